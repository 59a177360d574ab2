// The prefetching file reader: control on the main thread, block filling on the prefetch thread,
// wait-free copying on the render thread.
#include "audio/reader/BRIXAudioFileReader.h"

#include "support/Format.h"
#include "support/Log.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <limits>
#include <span>
#include <system_error>

namespace vell {
namespace {

/// How long main-thread calls wait for the prefetch thread to ready the reading position.
constexpr std::chrono::seconds kServeTimeout{1};
/// How long the waiting (offline) mode waits for one block before giving up.
constexpr std::chrono::seconds kBlockTimeout{2};

std::chrono::microseconds pollIntervalFor(std::uint32_t framesPerBuffer, double sampleRate)
{
    // The render thread cannot wake the prefetch thread, so the prefetch thread looks for freed
    // buffers this often: an eighth of a buffer's duration, within 1 to 10 ms.
    using std::chrono::microseconds;
    if (!(sampleRate > 0)) {
        return microseconds(10000);
    }
    const double us = double(framesPerBuffer) / sampleRate * 1e6 / 8.0;
    return microseconds(std::clamp<long long>(static_cast<long long>(us), 1000, 10000));
}

Frame saturatingAdd(Frame a, Frame b) noexcept
{
    Frame sum = 0;
    if (__builtin_add_overflow(a, b, &sum)) {
        return b > 0 ? std::numeric_limits<Frame>::max() : std::numeric_limits<Frame>::min();
    }
    return sum;
}

} // namespace

// ---- Creation and main-thread control ----------------------------------------------------------

std::unique_ptr<BRIXAudioFileReader>
BRIXAudioFileReader::create(std::uint32_t bufferCount, std::uint32_t framesPerBuffer,
                            const AudioStreamBasicDescription& format)
{
    if (bufferCount == 0 || framesPerBuffer == 0 || format.mChannelsPerFrame == 0 ||
        format.mChannelsPerFrame > AudioBufferList::kMaxBuffers) {
        return nullptr;
    }
    return std::unique_ptr<BRIXAudioFileReader>(
        new BRIXAudioFileReader(bufferCount, framesPerBuffer, format));
}

BRIXAudioFileReader::BRIXAudioFileReader(std::uint32_t bufferCount, std::uint32_t framesPerBuffer,
                                         const AudioStreamBasicDescription& format)
    : mBufferCount(bufferCount), mFramesPerBuffer(framesPerBuffer),
      mChannels(format.mChannelsPerFrame), mFormat(format),
      mPollInterval(pollIntervalFor(framesPerBuffer, format.mSampleRate)),
      mStorage(std::size_t(bufferCount) * framesPerBuffer * format.mChannelsPerFrame, 0.0f),
      mSlots(std::make_unique<Slot[]>(bufferCount))
{
    for (std::uint32_t i = 0; i < bufferCount; ++i) {
        mSlots[i].data = mStorage.data() + std::size_t(i) * framesPerBuffer * mChannels;
    }
}

BRIXAudioFileReader::~BRIXAudioFileReader()
{
    stop();
}

std::shared_ptr<BRIXExtendedAudioFile> BRIXAudioFileReader::audioFile() const
{
    std::lock_guard lock(mMutex);
    return mFile;
}

void BRIXAudioFileReader::setAudioFile(std::shared_ptr<BRIXExtendedAudioFile> file)
{
    std::lock_guard lifecycle(mLifecycleMutex);
    std::unique_lock lock(mMutex);
    const bool wasRunning = mThread.joinable();
    stopLocked(lock);
    mFile = std::move(file);
    mControl.fileEpoch += 1;
    mControl.frameCount = mFile ? std::max<Frame>(mFile->frameCount(), 0) : 0;
    mControl.seekSerial += 1;
    mControl.seekFrame = 0;
    updateLoopLocked();
    publishControlLocked();
    if (wasRunning) {
        startLocked(lock);
    }
}

void BRIXAudioFileReader::setCurrentFrame(Frame frame)
{
    std::unique_lock lock(mMutex);
    mControl.seekSerial += 1;
    mControl.seekFrame = std::clamp<Frame>(frame, 0, mControl.frameCount);
    publishControlLocked();
    waitUntilServedLocked(lock, mControl.version);
}

bool BRIXAudioFileReader::start()
{
    std::lock_guard lifecycle(mLifecycleMutex);
    std::unique_lock lock(mMutex);
    return startLocked(lock);
}

void BRIXAudioFileReader::stop()
{
    std::lock_guard lifecycle(mLifecycleMutex);
    std::unique_lock lock(mMutex);
    stopLocked(lock);
}

bool BRIXAudioFileReader::startLocked(std::unique_lock<std::mutex>& lock)
{
    if (mThread.joinable()) {
        return true;
    }
    mStopRequested = false;
    try {
        mThread = std::thread([this] { prefetchLoop(); });
    } catch (const std::system_error& e) {
        VELL_LOG_ERROR(format("Could not start the file reader's prefetch thread: %s", e.what()));
        return false;
    }
    mRunning = true;
    waitUntilServedLocked(lock, mControl.version);
    return true;
}

void BRIXAudioFileReader::stopLocked(std::unique_lock<std::mutex>& lock)
{
    if (!mThread.joinable()) {
        return;
    }
    mStopRequested = true;
    mRunning = false;
    mPrefetchWake.notify_all();
    mProgress.notify_all();
    lock.unlock();
    // Only one lifecycle call runs at a time, so nobody else touches mThread meanwhile.
    mThread.join();
    lock.lock();
}

void BRIXAudioFileReader::setReverse(bool reverse)
{
    std::unique_lock lock(mMutex);
    if (mControl.reverse == reverse) {
        return;
    }
    mControl.reverse = reverse;
    publishControlLocked();
    waitUntilServedLocked(lock, mControl.version);
}

bool BRIXAudioFileReader::isReverse() const
{
    std::lock_guard lock(mMutex);
    return mControl.reverse;
}

void BRIXAudioFileReader::enableLoopingInRange(Frame location, Frame length)
{
    std::unique_lock lock(mMutex);
    const FrameRange range{location, length};
    if (mLoopEnabled && _loopRange == range) {
        return;
    }
    mLoopEnabled = true;
    _loopRange = range;
    updateLoopLocked();
    publishControlLocked();
    waitUntilServedLocked(lock, mControl.version);
}

void BRIXAudioFileReader::disableLooping()
{
    std::unique_lock lock(mMutex);
    if (!mLoopEnabled) {
        return;
    }
    mLoopEnabled = false;
    updateLoopLocked();
    publishControlLocked();
    waitUntilServedLocked(lock, mControl.version);
}

bool BRIXAudioFileReader::isLooping() const
{
    std::lock_guard lock(mMutex);
    return mLoopEnabled && _loopRange.length > 0;
}

BRIXAudioFileReader::FrameRange BRIXAudioFileReader::loopRange() const
{
    std::lock_guard lock(mMutex);
    return _loopRange;
}

void BRIXAudioFileReader::setWaitsForData(bool waits)
{
    mWaitsForData = waits;
}

void BRIXAudioFileReader::updateLoopLocked()
{
    const Frame count = mControl.frameCount;
    const Frame start = std::clamp<Frame>(_loopRange.location, 0, count);
    const Frame end =
        std::clamp<Frame>(saturatingAdd(_loopRange.location, _loopRange.length), 0, count);
    mControl.looping = mLoopEnabled && end > start;
    mControl.loopStart = mControl.looping ? start : 0;
    mControl.loopEnd = mControl.looping ? end : 0;
}

void BRIXAudioFileReader::publishControlLocked()
{
    mControl.version += 1;
    mControlBuffer.write(mControl);
    mWakeRequested = true;
    mPrefetchWake.notify_all();
}

void BRIXAudioFileReader::waitUntilServedLocked(std::unique_lock<std::mutex>& lock,
                                                std::uint64_t version)
{
    if (!mRunning.load()) {
        return;
    }
    mProgress.wait_for(lock, kServeTimeout,
                       [&] { return mServedVersion >= version || mStopRequested; });
}

// ---- Reading position rules (shared by the prefetch and render threads) -----------------------

Frame BRIXAudioFileReader::normalizedPosition(Frame position, const Control& control) noexcept
{
    Frame p = std::clamp<Frame>(position, -1, control.frameCount);
    if (control.reverse && p >= control.frameCount) {
        p = control.frameCount - 1; // reading backwards starts on the last frame
    } else if (!control.reverse && p < 0) {
        p = 0;
    }
    if (control.looping && (p < control.loopStart || p >= control.loopEnd)) {
        p = control.reverse ? control.loopEnd - 1 : control.loopStart;
    }
    return p;
}

bool BRIXAudioFileReader::isAtEnd(Frame position, const Control& control) noexcept
{
    if (control.looping) {
        return false;
    }
    return control.reverse ? position < 0 : position >= control.frameCount;
}

// ---- Prefetch thread ----------------------------------------------------------------------------

void BRIXAudioFileReader::planBlocks(Frame position, const Control& control,
                                     std::vector<Frame>& outBlocks) const
{
    outBlocks.clear();
    if (isAtEnd(position, control)) {
        return;
    }
    const Frame size = mFramesPerBuffer;
    Frame cursor = position;
    while (outBlocks.size() < mBufferCount) {
        const Frame block = cursor / size;
        if (std::find(outBlocks.begin(), outBlocks.end(), block) != outBlocks.end()) {
            break; // a loop brought reading back to a block already planned
        }
        outBlocks.push_back(block);
        if (!control.reverse) {
            const Frame limit = control.looping ? control.loopEnd : control.frameCount;
            const Frame next = (block + 1) * size;
            if (next < limit) {
                cursor = next;
            } else if (control.looping) {
                cursor = control.loopStart;
            } else {
                break;
            }
        } else {
            const Frame low = control.looping ? control.loopStart : 0;
            const Frame first = block * size;
            if (first > low) {
                cursor = first - 1;
            } else if (control.looping) {
                cursor = control.loopEnd - 1;
            } else {
                break;
            }
        }
    }
}

bool BRIXAudioFileReader::isResident(Frame block, std::uint32_t fileEpoch) const noexcept
{
    for (std::uint32_t i = 0; i < mBufferCount; ++i) {
        const Slot& slot = mSlots[i];
        if ((slot.state.load() & kReady) && slot.block.load() == block &&
            slot.fileEpoch.load() == fileEpoch) {
            return true;
        }
    }
    return false;
}

bool BRIXAudioFileReader::fillBlock(Frame block, const Control& control,
                                    const std::vector<Frame>& plan,
                                    const BRIXExtendedAudioFile* file)
{
    // Take a buffer nobody reads: an empty one, else one holding a block reading no longer needs.
    int victim = -1;
    std::uint64_t version = 0;
    for (std::uint32_t i = 0; i < mBufferCount && victim < 0; ++i) {
        const std::uint64_t s = mSlots[i].state.load();
        if (!(s & kReady)) { // never pinned: the render thread pins ready buffers only
            victim = int(i);
            version = (s >> 2) + 1;
        }
    }
    for (std::uint32_t i = 0; i < mBufferCount && victim < 0; ++i) {
        Slot& slot = mSlots[i];
        std::uint64_t s = slot.state.load();
        if (s & kPinned) {
            continue;
        }
        const bool needed = slot.fileEpoch.load() == control.fileEpoch &&
                            std::find(plan.begin(), plan.end(), slot.block.load()) != plan.end();
        if (needed) {
            continue;
        }
        // Fails if the render thread pinned it meanwhile; then it stays as it is.
        const std::uint64_t claimed = ((s >> 2) + 1) << 2;
        if (slot.state.compare_exchange_strong(s, claimed)) {
            victim = int(i);
            version = claimed >> 2;
        }
    }
    if (victim < 0) {
        return false;
    }

    Slot& slot = mSlots[std::size_t(victim)];
    slot.block.store(block);
    slot.fileEpoch.store(control.fileEpoch);
    const Frame first = block * Frame(mFramesPerBuffer);
    const Frame available = std::clamp<Frame>(control.frameCount - first, 0, mFramesPerBuffer);
    const std::uint32_t fileChannels = file->channelCount();
    for (std::uint32_t c = 0; c < mChannels; ++c) {
        float* out = slot.data + std::size_t(c) * mFramesPerBuffer;
        std::size_t copied = 0;
        if (fileChannels > 0) {
            const std::span<const float> samples = file->channelData(std::min(c, fileChannels - 1));
            if (std::size_t(first) < samples.size()) {
                copied = std::min<std::size_t>(std::size_t(available),
                                               samples.size() - std::size_t(first));
                std::memcpy(out, samples.data() + first, copied * sizeof(float));
            }
        }
        std::fill(out + copied, out + mFramesPerBuffer, 0.0f);
    }
    slot.state.store((version << 2) | kReady);
    return true;
}

void BRIXAudioFileReader::prefetchLoop()
{
    std::vector<Frame> plan;
    plan.reserve(mBufferCount);
    std::unique_lock lock(mMutex);
    while (!mStopRequested) {
        const Control control = mControl;
        const std::shared_ptr<BRIXExtendedAudioFile> file = mFile;
        mWakeRequested = false;
        lock.unlock();

        // Plan from where the render thread reads, or from a seek it has not taken yet. The two
        // loads may mix positions of two calls; a wrong plan only costs a refill next round.
        const std::uint64_t serial = mPublishedSeekSerial.load();
        const Frame reading = mPublishedPosition.load();
        const Frame position =
            normalizedPosition(serial == control.seekSerial ? reading : control.seekFrame, control);
        planBlocks(position, control, plan);

        bool filled = false;
        bool firstReady = plan.empty();
        for (std::size_t i = 0; i < plan.size(); ++i) {
            if (isResident(plan[i], control.fileEpoch)) {
                firstReady = firstReady || i == 0;
                continue;
            }
            if (file) {
                filled = fillBlock(plan[i], control, plan, file.get());
                firstReady = firstReady || (filled && i == 0);
            }
            break; // plan again after every fill, so a seek is seen at once
        }

        lock.lock();
        if (firstReady && control.version > mServedVersion) {
            mServedVersion = control.version;
        }
        if (filled || firstReady) {
            mProgress.notify_all();
        }
        if (!filled && !mWakeRequested && !mStopRequested) {
            mPrefetchWake.wait_for(lock, mPollInterval);
        }
    }
}

// ---- Render thread ------------------------------------------------------------------------------

VELL_RT void BRIXAudioFileReader::adoptControl() noexcept
{
    if (!mControlBuffer.hasNewSnapshot()) {
        return;
    }
    const Control& control = mControlBuffer.read();
    if (control.seekSerial != mAdopted.seekSerial) {
        mPosition = control.seekFrame;
    }
    mAdopted = control;
    mPosition = normalizedPosition(mPosition, mAdopted);
    publishPosition();
}

VELL_RT void BRIXAudioFileReader::publishPosition() noexcept
{
    // Position first: a prefetch thread that sees the new serial also sees this position.
    mPublishedPosition.store(mPosition);
    mPublishedSeekSerial.store(mAdopted.seekSerial);
}

VELL_RT int BRIXAudioFileReader::pinBlock(Frame block) noexcept
{
    for (std::uint32_t i = 0; i < mBufferCount; ++i) {
        Slot& slot = mSlots[i];
        std::uint64_t s = slot.state.load();
        if (!(s & kReady) || slot.block.load() != block ||
            slot.fileEpoch.load() != mAdopted.fileEpoch) {
            continue;
        }
        // One attempt: success proves the buffer was not refilled since s was read (the fill
        // version would differ), so block and data belong together. Failure means the prefetch
        // thread is refilling it: treat it as not ready.
        if (slot.state.compare_exchange_strong(s, s | kPinned)) {
            mPinnedState = s;
            return int(i);
        }
    }
    return -1;
}

VELL_RT void BRIXAudioFileReader::unpin(int slot) noexcept
{
    // Nobody else changes a pinned state, so a plain store releases it; it also orders this
    // thread's reads of the data before the prefetch thread's next claim.
    mSlots[std::size_t(slot)].state.store(mPinnedState);
}

VELL_RT Frame BRIXAudioFileReader::readingFrame() noexcept
{
    adoptControl();
    return mPosition;
}

VELL_RT bool BRIXAudioFileReader::reachedEndOfStream() noexcept
{
    adoptControl();
    return isAtEnd(mPosition, mAdopted);
}

VELL_RT std::uint32_t BRIXAudioFileReader::copyFrames(float* const* channels,
                                                      std::uint32_t channelCount,
                                                      std::uint32_t frames) noexcept
{
    adoptControl();
    if (!channels || channelCount == 0) {
        return 0;
    }
    const Control& c = mAdopted;
    const Frame size = mFramesPerBuffer;
    const bool waits = mWaitsForData.load();
    std::uint32_t done = 0;
    int pinned = -1;
    Frame pinnedBlock = -1;
    while (done < frames && !isAtEnd(mPosition, c)) {
        const Frame block = mPosition / size;
        if (pinned < 0 || pinnedBlock != block) {
            if (pinned >= 0) {
                unpin(pinned);
            }
            pinned = pinBlock(block);
            if (pinned < 0) {
                if (waits && waitForBlock(block)) {
                    continue;
                }
                break; // starved: hand out what is there, never anything older
            }
            pinnedBlock = block;
            if (waits) {
                wakePrefetch(); // the buffer left behind may be refilled now
            }
        }
        const float* data = mSlots[std::size_t(pinned)].data;
        const Frame first = block * size;
        Frame run = 0;
        if (!c.reverse) {
            const Frame limit = std::min(first + size, c.looping ? c.loopEnd : c.frameCount);
            run = std::min<Frame>(frames - done, limit - mPosition);
            const std::size_t offset = std::size_t(mPosition - first);
            for (std::uint32_t ch = 0; ch < channelCount; ++ch) {
                const float* src =
                    data + std::size_t(std::min(ch, mChannels - 1)) * mFramesPerBuffer;
                std::memcpy(channels[ch] + done, src + offset, std::size_t(run) * sizeof(float));
            }
            mPosition += run;
            if (c.looping && mPosition >= c.loopEnd) {
                mPosition = c.loopStart;
            }
        } else {
            const Frame low = std::max(first, c.looping ? c.loopStart : Frame(0));
            run = std::min<Frame>(frames - done, mPosition - low + 1);
            const std::size_t offset = std::size_t(mPosition - first);
            for (std::uint32_t ch = 0; ch < channelCount; ++ch) {
                const float* src =
                    data + std::size_t(std::min(ch, mChannels - 1)) * mFramesPerBuffer;
                float* dst = channels[ch] + done;
                for (Frame k = 0; k < run; ++k) {
                    dst[k] = src[offset - std::size_t(k)];
                }
            }
            mPosition -= run;
            if (c.looping && mPosition < c.loopStart) {
                mPosition = c.loopEnd - 1;
            }
        }
        done += std::uint32_t(run);
    }
    if (pinned >= 0) {
        unpin(pinned);
    }
    if (done < frames && !isAtEnd(mPosition, c)) {
        mUnderruns.fetch_add(1);
    }
    publishPosition();
    return done;
}

void BRIXAudioFileReader::wakePrefetch()
{
    publishPosition();
    std::lock_guard lock(mMutex);
    mWakeRequested = true;
    mPrefetchWake.notify_all();
}

bool BRIXAudioFileReader::waitForBlock(Frame block)
{
    if (!mRunning.load()) {
        return false;
    }
    publishPosition();
    std::unique_lock lock(mMutex);
    mWakeRequested = true;
    mPrefetchWake.notify_all();
    mProgress.wait_for(lock, kBlockTimeout,
                       [&] { return isResident(block, mAdopted.fileEpoch) || mStopRequested; });
    return isResident(block, mAdopted.fileEpoch);
}

VELL_RT Frame BRIXAudioFileReader::contiguousFrames() noexcept
{
    adoptControl();
    const Control& c = mAdopted;
    if (isAtEnd(mPosition, c)) {
        return 0;
    }
    if (!c.reverse) {
        return std::max<Frame>((c.looping ? c.loopEnd : c.frameCount) - mPosition, 0);
    }
    return std::max<Frame>(mPosition - (c.looping ? c.loopStart : Frame(0)) + 1, 0);
}

// ---- C entry points -----------------------------------------------------------------------------

VELL_RT Frame BRIXAudioFileReaderGetCurrentFrame(BRIXAudioBufferQueue* queue) noexcept
{
    return queue ? queue->readingFrame() : 0;
}

VELL_RT void BRIXAudioBufferQueueCopyIntoChannels(BRIXAudioBufferQueue* queue,
                                                  float* const* channels,
                                                  std::uint32_t channelCount,
                                                  std::uint32_t* ioFrames) noexcept
{
    if (!ioFrames) {
        return;
    }
    if (!queue || !channels || channelCount == 0) {
        *ioFrames = 0;
        return;
    }
    *ioFrames = queue->copyFrames(channels, channelCount, *ioFrames);
}

VELL_RT void BRIXAudioBufferQueueCopyInto(BRIXAudioBufferQueue* queue, AudioBufferList* bufferList,
                                          std::uint32_t* ioFrames) noexcept
{
    if (!ioFrames) {
        return;
    }
    if (!queue || !bufferList || bufferList->mNumberBuffers == 0 ||
        bufferList->mNumberBuffers > AudioBufferList::kMaxBuffers) {
        *ioFrames = 0;
        return;
    }
    std::array<float*, AudioBufferList::kMaxBuffers> channels{};
    std::uint32_t capacity = *ioFrames;
    for (std::uint32_t i = 0; i < bufferList->mNumberBuffers; ++i) {
        const AudioBuffer& buffer = bufferList->mBuffers[i];
        if (!buffer.mData) {
            *ioFrames = 0;
            return;
        }
        channels[i] = static_cast<float*>(buffer.mData);
        capacity = std::min<std::uint32_t>(capacity, buffer.mDataByteSize / sizeof(float));
    }
    *ioFrames = queue->copyFrames(channels.data(), bufferList->mNumberBuffers, capacity);
}

VELL_RT Frame BRIXAudioBufferQueueContiguousFrames(BRIXAudioBufferQueue* queue) noexcept
{
    return queue ? queue->contiguousFrames() : 0;
}

VELL_RT bool BRIXAudioBufferQueueReachedEndOfStream(BRIXAudioBufferQueue* queue) noexcept
{
    return queue && queue->reachedEndOfStream();
}

} // namespace vell
