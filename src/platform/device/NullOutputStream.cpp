// The null device's clock thread: renders one buffer per period of the device's rate, sleeping
// until each period's deadline on the steady clock.
#include "platform/device/NullOutputStream.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <pthread.h>
#include <utility>

namespace vell::detail {

namespace {

// Behind by more than this many cycles (the process was stopped, the machine swapped), the
// clock starts afresh rather than rushing to catch up.
constexpr int kMaximumLateCycles = 8;

} // namespace

std::unique_ptr<NullOutputStream> NullOutputStream::open(double sampleRate, double deviceRate,
                                                         std::uint32_t channelCount,
                                                         std::uint32_t framesPerBuffer,
                                                         AudioDeviceRenderProc proc, void* context,
                                                         Error* outError)
{
    std::unique_ptr<NullOutputStream> stream(new NullOutputStream());
    const double rate = deviceRate > 0 ? deviceRate : sampleRate;
    Result<void> prepared =
        stream->mRenderer.prepare(sampleRate, rate, channelCount, framesPerBuffer, proc, context);
    if (!prepared) {
        assignError(outError, prepared.error());
        return nullptr;
    }
    // One cycle is one stream buffer's worth of device time (as a real device would ask).
    stream->mDeviceFrames = rate == sampleRate
                                ? framesPerBuffer
                                : std::min(stream->mRenderer.maximumDeviceFrames(),
                                           static_cast<std::uint32_t>(
                                               std::lround(framesPerBuffer * rate / sampleRate)));
    stream->mScratch.assign(static_cast<std::size_t>(stream->mDeviceFrames) * channelCount, 0.0f);
    for (std::uint32_t c = 0; c < channelCount; ++c) {
        stream->mChannels.push_back(stream->mScratch.data() +
                                    static_cast<std::size_t>(c) * stream->mDeviceFrames);
    }
    stream->mCapture = NullDeviceCapture::take();
    return stream;
}

NullOutputStream::~NullOutputStream()
{
    stop();
}

OSStatus NullOutputStream::start()
{
    if (mRunning.load()) {
        return noErr;
    }
    mRenderer.reset();
    mStopRequested.store(false);
    mRunning.store(true);
    mThread = std::thread([this] { run(); });
    return noErr;
}

OSStatus NullOutputStream::stop()
{
    if (!mThread.joinable()) {
        mRunning.store(false);
        return noErr;
    }
    mStopRequested.store(true);
    mThread.join();
    mRunning.store(false);
    return noErr;
}

VELL_RT void NullOutputStream::renderCycle() noexcept
{
    mRenderer.render(mChannels.data(), mDeviceFrames);
    if (mCapture) {
        mCapture->append(mChannels.data(), static_cast<std::uint32_t>(mChannels.size()),
                         mDeviceFrames);
    }
}

namespace {
std::shared_ptr<NullDeviceCapture>& installedCapture()
{
    static std::shared_ptr<NullDeviceCapture> capture;
    return capture;
}
} // namespace

NullDeviceCapture::NullDeviceCapture(std::uint32_t channelCount, std::size_t capacityFrames)
    : mChannelCount(channelCount), mCapacity(capacityFrames),
      mSamples(capacityFrames * channelCount, 0.0f)
{
}

void NullDeviceCapture::install(std::shared_ptr<NullDeviceCapture> capture)
{
    installedCapture() = std::move(capture);
}

std::shared_ptr<NullDeviceCapture> NullDeviceCapture::take()
{
    return std::exchange(installedCapture(), nullptr);
}

VELL_RT void NullDeviceCapture::append(const float* const* channels, std::uint32_t channelCount,
                                       std::uint32_t frames) noexcept
{
    const std::size_t start = mFrames.load(std::memory_order_relaxed);
    const std::size_t n = std::min<std::size_t>(frames, mCapacity - start);
    for (std::uint32_t c = 0; c < std::min(channelCount, mChannelCount); ++c) {
        std::copy_n(channels[c], n,
                    mSamples.begin() + static_cast<std::ptrdiff_t>(c * mCapacity + start));
    }
    mFrames.store(start + n, std::memory_order_release);
}

std::vector<float> NullDeviceCapture::channel(std::uint32_t index) const
{
    const std::size_t frames = mFrames.load(std::memory_order_acquire);
    if (index >= mChannelCount) {
        return {};
    }
    const auto begin = mSamples.begin() + static_cast<std::ptrdiff_t>(index * mCapacity);
    return std::vector<float>(begin, begin + static_cast<std::ptrdiff_t>(frames));
}

void NullOutputStream::run() noexcept
{
    pthread_setname_np(pthread_self(), "vell-null-out");
    using Clock = std::chrono::steady_clock;
    const auto period = std::chrono::duration_cast<Clock::duration>(
        std::chrono::duration<double>(mDeviceFrames / mRenderer.deviceRate()));
    auto deadline = Clock::now();
    while (!mStopRequested.load()) {
        renderCycle();
        deadline += period;
        const auto now = Clock::now();
        if (now - deadline > period * kMaximumLateCycles) {
            mSkippedCycles.fetch_add(static_cast<std::uint64_t>((now - deadline) / period));
            deadline = now;
        }
        std::this_thread::sleep_until(deadline);
    }
}

} // namespace vell::detail
