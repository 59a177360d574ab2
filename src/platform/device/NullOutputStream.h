// The null device's output stream: a thread that pulls the render procedure at real-time pace
// on a steady clock and discards the sound.
#pragma once

#include "platform/device/BRIXAudioHardware.h"
#include "platform/device/StreamRenderer.h"
#include "rt/Realtime.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

namespace vell::detail {

/// What the null device played, for tests: the first frames of the next stream opened after
/// the capture is installed, up to a capacity fixed in advance (the render thread only copies).
class NullDeviceCapture {
public:
    NullDeviceCapture(std::uint32_t channelCount, std::size_t capacityFrames);
    /// Installs capture for the next stream opened (null: none). Thread: main.
    static void install(std::shared_ptr<NullDeviceCapture> capture);
    /// The capture installed, which the caller takes over (none is left installed).
    static std::shared_ptr<NullDeviceCapture> take();
    /// Thread: render. Wait-free, no allocation; frames past the capacity are dropped.
    VELL_RT void append(const float* const* channels, std::uint32_t channelCount,
                        std::uint32_t frames) noexcept;
    /// The frames captured so far of one channel. Thread: any, after the stream stopped.
    std::vector<float> channel(std::uint32_t index) const;
    std::size_t frameCount() const noexcept { return mFrames.load(); }

private:
    std::uint32_t mChannelCount;
    std::size_t mCapacity;
    std::vector<float> mSamples; // channel after channel, mCapacity frames each
    std::atomic<std::size_t> mFrames{0};
};

class NullOutputStream final : public AudioOutputStream {
public:
    /// A stream at sampleRate on a null device running at deviceRate (0: the stream's rate;
    /// another rate makes the stream resample). Thread: main.
    static std::unique_ptr<NullOutputStream>
    open(double sampleRate, double deviceRate, std::uint32_t channelCount,
         std::uint32_t framesPerBuffer, AudioDeviceRenderProc proc, void* context, Error* outError);
    ~NullOutputStream() override;

    OSStatus start() override;
    OSStatus stop() override;
    bool isRunning() const override { return mRunning.load(); }

    AudioDeviceID device() const override { return kNullAudioDeviceID; }
    double sampleRate() const override { return mRenderer.streamRate(); }
    std::uint32_t channelCount() const override { return mRenderer.channelCount(); }
    std::uint32_t maximumFramesPerBuffer() const override
    {
        return mRenderer.maximumStreamFrames();
    }
    double outputStageLatencySeconds() const override { return 0; }
    std::uint32_t deviceLatencyFrames() const override { return mRenderer.maximumStreamFrames(); }
    std::uint32_t streamLatencyFrames() const override { return mRenderer.latencyFrames(); }

    double deviceSampleRate() const { return mRenderer.deviceRate(); }
    /// Device frames in one cycle of the clock.
    std::uint32_t deviceFramesPerCycle() const { return mDeviceFrames; }
    /// Cycles the clock skipped because the render thread fell behind by more than a few.
    std::uint64_t skippedCycles() const { return mSkippedCycles.load(); }

    /// One cycle of the device: renders deviceFramesPerCycle frames and drops them. The clock
    /// thread calls it; tests call it directly.
    /// Thread: render. Wait-free, no allocation.
    VELL_RT void renderCycle() noexcept;

private:
    NullOutputStream() = default;
    void run() noexcept;

    StreamRenderer mRenderer;
    std::uint32_t mDeviceFrames = 0;
    std::vector<float> mScratch;
    std::vector<float*> mChannels;
    std::atomic<bool> mRunning{false};
    std::atomic<bool> mStopRequested{false};
    std::atomic<std::uint64_t> mSkippedCycles{0};
    std::shared_ptr<NullDeviceCapture> mCapture;
    std::thread mThread;
};

} // namespace vell::detail
