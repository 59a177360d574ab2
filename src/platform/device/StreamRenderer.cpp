// The render end of an output stream: direct calls of the render procedure, or calls at the
// stream's rate resampled to the device's rate with libsamplerate.
#include "platform/device/StreamRenderer.h"

#include "support/Format.h"

#include <samplerate.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstring>

namespace vell::detail {

namespace {

// The resampler's converter: the fastest band-limited one is transparent for playback and
// cheap enough for the device thread of a small machine.
constexpr int kConverterType = SRC_SINC_FASTEST;

// A render call needs at most this many resampler rounds: each round consumes input or
// produces output, so only a broken converter comes near it.
constexpr int kMaximumRounds = 4096;

Error rendererError(const std::string& reason)
{
    return makeUserError("The audio output could not be prepared.", reason);
}

std::uint64_t hostTimeNow() noexcept
{
    return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::nanoseconds>(
                                          std::chrono::steady_clock::now().time_since_epoch())
                                          .count());
}

/// Counts the frames a dry run pulls, and gives silence.
struct FrameCounter {
    double frames = 0;
    static void render(void* context, float* const* channels, std::uint32_t channelCount,
                       std::uint32_t frameCount, const AudioTimeStamp&) noexcept
    {
        static_cast<FrameCounter*>(context)->frames += frameCount;
        for (std::uint32_t c = 0; c < channelCount; ++c) {
            std::fill(channels[c], channels[c] + frameCount, 0.0f);
        }
    }
};

} // namespace

StreamRenderer::~StreamRenderer()
{
    release();
}

void StreamRenderer::release() noexcept
{
    if (mResampler) {
        src_delete(mResampler);
        mResampler = nullptr;
    }
}

Result<void> StreamRenderer::prepare(double streamRate, double deviceRate,
                                     std::uint32_t channelCount, std::uint32_t maxStreamFrames,
                                     AudioDeviceRenderProc proc, void* context)
{
    release();
    if (!proc) {
        return rendererError("No render procedure was given.");
    }
    if (!(streamRate > 0) || !(deviceRate > 0)) {
        return rendererError(
            vell::format("Unusable sample rates %g and %g.", streamRate, deviceRate));
    }
    if (channelCount == 0 || channelCount > kMaximumChannels) {
        return rendererError(vell::format("Unusable channel count %u.", channelCount));
    }
    if (maxStreamFrames == 0) {
        return rendererError("A buffer of no frames was asked for.");
    }
    mProc = proc;
    mContext = context;
    mStreamRate = streamRate;
    mDeviceRate = deviceRate;
    mChannelCount = channelCount;
    mMaxStreamFrames = maxStreamFrames;
    mSampleTime = 0;
    mLatencyFrames = 0;
    mInputOffset = 0;
    mInputFrames = 0;

    if (streamRate == deviceRate) {
        mRatio = 1.0;
        mMaxDeviceFrames = maxStreamFrames;
        mPlanar.assign(static_cast<std::size_t>(channelCount) * maxStreamFrames, 0.0f);
        mInput.clear();
        mOutput.clear();
        return {};
    }

    mRatio = deviceRate / streamRate;
    if (src_is_valid_ratio(mRatio) == 0) {
        return rendererError(
            vell::format("Cannot resample from %g Hz to %g Hz.", streamRate, deviceRate));
    }
    int error = 0;
    mResampler = src_new(kConverterType, static_cast<int>(channelCount), &error);
    if (!mResampler) {
        return rendererError(src_strerror(error));
    }
    // The device is served blocks of about the stream's block, at its own rate.
    mMaxDeviceFrames = static_cast<std::uint32_t>(std::ceil(maxStreamFrames * mRatio)) + 1;
    mPlanar.assign(static_cast<std::size_t>(channelCount) * maxStreamFrames, 0.0f);
    mInput.assign(static_cast<std::size_t>(channelCount) * maxStreamFrames, 0.0f);
    mOutput.assign(static_cast<std::size_t>(channelCount) * mMaxDeviceFrames, 0.0f);
    mLatencyFrames = measureLatency();
    return {};
}

std::uint32_t StreamRenderer::measureLatency()
{
    // The stream runs ahead of the device by what the resampler holds (its filter and the input
    // it buffers) plus the part of the last pulled block not yet consumed. A dry run with the
    // device's usual request size measures the average.
    FrameCounter counter;
    AudioDeviceRenderProc proc = mProc;
    void* context = mContext;
    mProc = &FrameCounter::render;
    mContext = &counter;
    const std::uint32_t request = std::max<std::uint32_t>(
        1, static_cast<std::uint32_t>(std::lround(mMaxStreamFrames * mRatio)));
    std::vector<float> scratch(static_cast<std::size_t>(request) * mChannelCount);
    std::array<float*, kMaximumChannels> channels{};
    for (std::uint32_t c = 0; c < mChannelCount; ++c) {
        channels[c] = scratch.data() + static_cast<std::size_t>(c) * request;
    }
    constexpr int kWarmUp = 16, kMeasured = 256;
    double deviceFrames = 0, sum = 0;
    for (int i = 0; i < kWarmUp + kMeasured; ++i) {
        render(channels.data(), request);
        deviceFrames += request;
        if (i >= kWarmUp) {
            sum += counter.frames - deviceFrames / mRatio;
        }
    }
    mProc = proc;
    mContext = context;
    reset();
    return static_cast<std::uint32_t>(std::lround(std::max(0.0, sum / kMeasured)));
}

void StreamRenderer::reset() noexcept
{
    if (mResampler) {
        src_reset(mResampler);
    }
    mInputOffset = 0;
    mInputFrames = 0;
    mSampleTime = 0;
}

VELL_RT void StreamRenderer::render(float* const* deviceChannels, std::uint32_t frames) noexcept
{
    if (mMaxDeviceFrames == 0) {
        return; // never prepared: nothing to call
    }
    std::array<float*, kMaximumChannels> channels{};
    for (std::uint32_t done = 0; done < frames;) {
        const std::uint32_t n = std::min(frames - done, mMaxDeviceFrames);
        for (std::uint32_t c = 0; c < mChannelCount; ++c) {
            channels[c] = deviceChannels[c] + done;
        }
        if (mResampler) {
            renderResampled(channels.data(), n);
        } else {
            renderDirect(channels.data(), n);
        }
        done += n;
    }
}

VELL_RT void StreamRenderer::pull(float* const* channels, std::uint32_t frames) noexcept
{
    AudioTimeStamp timeStamp;
    timeStamp.mSampleTime = mSampleTime;
    timeStamp.mHostTime = hostTimeNow();
    timeStamp.mRateScalar = 1.0;
    timeStamp.mFlags = kAudioTimeStampSampleTimeValid | kAudioTimeStampHostTimeValid;
    mProc(mContext, channels, mChannelCount, frames, timeStamp);
    mSampleTime += frames;
}

VELL_RT void StreamRenderer::renderDirect(float* const* deviceChannels,
                                          std::uint32_t frames) noexcept
{
    pull(deviceChannels, frames);
}

VELL_RT void StreamRenderer::renderResampled(float* const* deviceChannels,
                                             std::uint32_t frames) noexcept
{
    const std::uint32_t channelCount = mChannelCount;
    std::uint32_t produced = 0;
    for (int round = 0; produced < frames && round < kMaximumRounds; ++round) {
        if (mInputFrames == 0) {
            std::array<float*, kMaximumChannels> planar{};
            for (std::uint32_t c = 0; c < channelCount; ++c) {
                planar[c] = mPlanar.data() + static_cast<std::size_t>(c) * mMaxStreamFrames;
            }
            pull(planar.data(), mMaxStreamFrames);
            for (std::uint32_t i = 0; i < mMaxStreamFrames; ++i) {
                for (std::uint32_t c = 0; c < channelCount; ++c) {
                    mInput[static_cast<std::size_t>(i) * channelCount + c] = planar[c][i];
                }
            }
            mInputOffset = 0;
            mInputFrames = mMaxStreamFrames;
        }
        SRC_DATA data{};
        data.data_in = mInput.data() + static_cast<std::size_t>(mInputOffset) * channelCount;
        data.input_frames = mInputFrames;
        data.data_out = mOutput.data() + static_cast<std::size_t>(produced) * channelCount;
        data.output_frames = frames - produced;
        data.src_ratio = mRatio;
        data.end_of_input = 0;
        if (src_process(mResampler, &data) != 0) {
            break;
        }
        mInputOffset += static_cast<std::uint32_t>(data.input_frames_used);
        mInputFrames -= static_cast<std::uint32_t>(data.input_frames_used);
        produced += static_cast<std::uint32_t>(data.output_frames_gen);
    }
    if (produced < frames) {
        std::fill(mOutput.begin() + static_cast<std::ptrdiff_t>(produced) * channelCount,
                  mOutput.begin() + static_cast<std::ptrdiff_t>(frames) * channelCount, 0.0f);
    }
    for (std::uint32_t c = 0; c < channelCount; ++c) {
        float* out = deviceChannels[c];
        for (std::uint32_t i = 0; i < frames; ++i) {
            out[i] = mOutput[static_cast<std::size_t>(i) * channelCount + c];
        }
    }
}

} // namespace vell::detail
