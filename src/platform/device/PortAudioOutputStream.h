// An output stream on a PortAudio device: non-interleaved float, at the stream's rate or, when
// the device refuses it, at the device's own rate through the stream's resampler.
#pragma once

#include "platform/device/BRIXAudioHardware.h"
#include "platform/device/StreamRenderer.h"
#include "rt/Realtime.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

namespace vell::detail {

class PortAudioOutputStream final : public AudioOutputStream {
public:
    /// Opens PortAudio device paIndex (known to the hardware as device). Thread: main.
    static std::unique_ptr<PortAudioOutputStream>
    open(int paIndex, AudioDeviceID device, double sampleRate, std::uint32_t channelCount,
         std::uint32_t framesPerBuffer, AudioDeviceRenderProc proc, void* context, Error* outError);
    ~PortAudioOutputStream() override;

    OSStatus start() override;
    OSStatus stop() override;
    bool isRunning() const override;

    AudioDeviceID device() const override { return mDevice; }
    double sampleRate() const override { return mRenderer.streamRate(); }
    std::uint32_t channelCount() const override { return mRenderer.channelCount(); }
    std::uint32_t maximumFramesPerBuffer() const override
    {
        return mRenderer.maximumStreamFrames();
    }
    double outputStageLatencySeconds() const override { return mOutputLatency; }
    std::uint32_t deviceLatencyFrames() const override { return 0; }
    std::uint32_t streamLatencyFrames() const override { return mRenderer.latencyFrames(); }

    /// The rate the device runs at (the stream's rate unless it resamples).
    double deviceSampleRate() const { return mRenderer.deviceRate(); }
    /// Device cycles that reported an output underflow.
    std::uint64_t underflowCount() const { return mUnderflows.load(); }

    /// PortAudio's callback lands here.
    /// Thread: render. Wait-free, no allocation.
    VELL_RT void renderDeviceBuffer(float* const* channels, std::uint32_t frames,
                                    bool underflowed) noexcept;

private:
    PortAudioOutputStream() = default;

    AudioDeviceID mDevice = kAudioDeviceUnknown;
    std::string mDeviceName;
    void* mStream = nullptr; // PaStream
    StreamRenderer mRenderer;
    double mOutputLatency = 0;
    std::atomic<std::uint64_t> mUnderflows{0};
};

} // namespace vell::detail
