// The render end of an output stream: turns a device's request for frames into calls of the
// stream's render procedure, resampling when the device runs at another rate.
#pragma once

#include "platform/device/BRIXAudioHardware.h"
#include "rt/Realtime.h"
#include "support/Result.h"

#include <array>
#include <cstdint>
#include <vector>

typedef struct SRC_STATE_tag SRC_STATE;

namespace vell::detail {

/// Used by every output stream, on whatever thread drives the device. `prepare` allocates all
/// that `render` needs; `render` never allocates, locks or blocks.
class StreamRenderer {
public:
    static constexpr std::uint32_t kMaximumChannels = AudioBufferList::kMaxBuffers;

    StreamRenderer() = default;
    ~StreamRenderer();
    StreamRenderer(const StreamRenderer&) = delete;
    StreamRenderer& operator=(const StreamRenderer&) = delete;

    /// Prepares rendering at streamRate for a device at deviceRate. The procedure is asked for at
    /// most maxStreamFrames frames per call; the device may ask for at most
    /// `maximumDeviceFrames()` per `render`. Thread: main, while the device is stopped.
    Result<void> prepare(double streamRate, double deviceRate, std::uint32_t channelCount,
                         std::uint32_t maxStreamFrames, AudioDeviceRenderProc proc, void* context);

    bool isResampling() const noexcept { return mResampler != nullptr; }
    double streamRate() const noexcept { return mStreamRate; }
    double deviceRate() const noexcept { return mDeviceRate; }
    std::uint32_t channelCount() const noexcept { return mChannelCount; }
    std::uint32_t maximumStreamFrames() const noexcept { return mMaxStreamFrames; }
    /// The largest device request one `render` call serves.
    std::uint32_t maximumDeviceFrames() const noexcept { return mMaxDeviceFrames; }
    /// How far the pulled stream runs ahead of what the device has been given, in stream frames,
    /// on average (0 without resampling): what the resampler holds plus input pulled but not yet
    /// consumed, measured at prepare with a dry run.
    std::uint32_t latencyFrames() const noexcept { return mLatencyFrames; }

    /// Forgets the resampler's history and restarts the sample time at 0.
    /// Thread: main, while the device is stopped.
    void reset() noexcept;

    /// Fills channels[0..channelCount) with frames device frames; a request larger than
    /// `maximumDeviceFrames()` is served in several rounds.
    /// Thread: render. Wait-free, no allocation.
    VELL_RT void render(float* const* deviceChannels, std::uint32_t frames) noexcept;

private:
    VELL_RT void renderDirect(float* const* deviceChannels, std::uint32_t frames) noexcept;
    VELL_RT void renderResampled(float* const* deviceChannels, std::uint32_t frames) noexcept;
    /// Calls the procedure for frames stream frames into channels.
    VELL_RT void pull(float* const* channels, std::uint32_t frames) noexcept;
    void release() noexcept;
    std::uint32_t measureLatency();

    AudioDeviceRenderProc mProc = nullptr;
    void* mContext = nullptr;
    double mStreamRate = 0;
    double mDeviceRate = 0;
    std::uint32_t mChannelCount = 0;
    std::uint32_t mMaxStreamFrames = 0;
    std::uint32_t mMaxDeviceFrames = 0;
    std::uint32_t mLatencyFrames = 0;
    double mSampleTime = 0;

    // Resampling only.
    SRC_STATE* mResampler = nullptr;
    double mRatio = 1.0;
    std::vector<float> mPlanar;     // one stream block, channel after channel
    std::vector<float> mInput;      // the same block interleaved, for the resampler
    std::vector<float> mOutput;     // interleaved device frames
    std::uint32_t mInputOffset = 0; // frames of mInput already consumed
    std::uint32_t mInputFrames = 0; // frames of mInput not yet consumed
};

} // namespace vell::detail
