// The two output units: the default output ("auou"/"def "), which renders the graph on an
// audio device's real-time thread, and the generic output ("auou"/"genr"), which a caller pulls
// with AudioUnitRender and which converts from its input rate to its output rate.
#pragma once

#include "audio/graph/AudioUnitInstance.h"
#include "platform/device/BRIXAudioHardware.h"

#include <atomic>
#include <memory>
#include <vector>

typedef struct SRC_STATE_tag SRC_STATE;

namespace vell {

/// What both output units share: one input and one output, the volume parameter
/// (kHALOutputParam_Volume, ramped over one slice), the running state and the time-stamp
/// origin.
class OutputUnitBase : public AudioUnitInstance {
public:
    explicit OutputUnitBase(const AudioComponentDescription& description);

    bool isOutputUnit() const noexcept override { return true; }
    bool isRunning() const noexcept override { return mRunning.load(); }

    OSStatus getPropertyInfo(AudioUnitPropertyID id, AudioUnitScope scope,
                             AudioUnitElement element, UInt32* outSize,
                             bool* outWritable) override;
    OSStatus getProperty(AudioUnitPropertyID id, AudioUnitScope scope, AudioUnitElement element,
                         void* outData, UInt32* ioSize) override;
    OSStatus setProperty(AudioUnitPropertyID id, AudioUnitScope scope, AudioUnitElement element,
                         const void* data, UInt32 size) override;
    OSStatus getParameter(AudioUnitParameterID id, AudioUnitScope scope, AudioUnitElement element,
                          float* outValue) override;
    OSStatus setParameter(AudioUnitParameterID id, AudioUnitScope scope, AudioUnitElement element,
                          float value) override;

protected:
    /// Scales frames of io by the volume, ramping from the last slice's value.
    /// Thread: render. Wait-free, no allocation.
    VELL_RT void applyVolume(AudioBufferList& io, UInt32 frames) noexcept;
    /// Fills frames of io from input 0 in pieces no larger than the source's largest slice.
    /// Thread: render. Wait-free, no allocation.
    VELL_RT OSStatus pullInputInPieces(AudioUnitRenderActionFlags* ioActionFlags,
                                       const AudioTimeStamp& timeStamp, UInt32 frames,
                                       AudioBufferList& io) noexcept;
    /// The largest piece the input's source accepts. Thread: render.
    VELL_RT UInt32 inputPieceLimit() const noexcept;

    std::atomic<bool> mRunning{false};
    std::atomic<UInt32> mStartTimestampsAtZero{1};

private:
    std::atomic<float> mVolume{1.0f};
    float mGain = 1.0f;
};

/// The generic output. Its output format keeps the input's channel count; its output rate is
/// the input's unless set on the output scope, and then libsamplerate converts (prepared at
/// initialize, never allocating while rendering). Each render produces exactly the frames asked
/// for and pulls the input as far as the conversion needs.
class GenericOutputUnit final : public OutputUnitBase {
public:
    explicit GenericOutputUnit(const AudioComponentDescription& description);
    ~GenericOutputUnit() override;

    OSStatus start() override;
    OSStatus stop() override;
    /// Forgets the converter's history and buffered frames.
    OSStatus reset(AudioUnitScope scope, AudioUnitElement element) override;

    /// Input frames pulled since initialize or reset. Thread: any (between renders).
    std::uint64_t inputFramesPulled() const noexcept { return mInputFramesPulled.load(); }

protected:
    OSStatus checkFormat(AudioUnitScope scope, AudioUnitElement element,
                         const AudioStreamBasicDescription& format) const override;
    void formatChanged(AudioUnitScope scope, AudioUnitElement element) override;
    OSStatus prepare() override;
    void unprepare() override;
    VELL_RT OSStatus renderOutput(AudioUnitRenderActionFlags* ioActionFlags,
                                  const AudioTimeStamp& timeStamp, UInt32 bus, UInt32 frames,
                                  AudioBufferList& io) noexcept override;

private:
    VELL_RT OSStatus renderConverted(AudioUnitRenderActionFlags* ioActionFlags,
                                     const AudioTimeStamp& timeStamp, UInt32 frames,
                                     AudioBufferList& io) noexcept;
    void clearConverter() noexcept;

    bool mOutputRateSet = false;
    std::atomic<std::uint64_t> mInputFramesPulled{0};
    double mInputSampleTime = 0;

    // Conversion only (input rate differs from output rate).
    SRC_STATE* mConverter = nullptr;
    double mRatio = 1.0;              // output rate / input rate
    UInt32 mInputCapacity = 0;        // frames of one pull
    UInt32 mOutputCapacity = 0;       // frames one converter call may produce
    std::vector<float> mPlanar;       // one pull, channel after channel
    std::vector<float> mInterleavedIn;
    std::vector<float> mInterleavedOut;
    UInt32 mPendingInput = 0;         // frames of mInterleavedIn the converter has not taken
    UInt32 mFifoStart = 0;            // converted frames of mInterleavedOut not yet delivered
    UInt32 mFifoFrames = 0;
};

/// The default output: opens an output stream on its current device (the default output
/// device unless kAudioOutputUnitProperty_CurrentDevice names another) at initialize, with the
/// input's rate and channel count, and renders the graph from the device's real-time thread
/// between start and stop.
class DefaultOutputUnit final : public OutputUnitBase {
public:
    explicit DefaultOutputUnit(const AudioComponentDescription& description);
    ~DefaultOutputUnit() override;

    OSStatus start() override;
    OSStatus stop() override;
    OSStatus getPropertyInfo(AudioUnitPropertyID id, AudioUnitScope scope,
                             AudioUnitElement element, UInt32* outSize,
                             bool* outWritable) override;
    OSStatus getProperty(AudioUnitPropertyID id, AudioUnitScope scope, AudioUnitElement element,
                         void* outData, UInt32* ioSize) override;
    OSStatus setProperty(AudioUnitPropertyID id, AudioUnitScope scope, AudioUnitElement element,
                         const void* data, UInt32 size) override;

protected:
    OSStatus prepare() override;
    void unprepare() override;
    VELL_RT OSStatus renderOutput(AudioUnitRenderActionFlags* ioActionFlags,
                                  const AudioTimeStamp& timeStamp, UInt32 bus, UInt32 frames,
                                  AudioBufferList& io) noexcept override;

private:
    /// The device's render procedure. Thread: the device's real-time thread.
    VELL_RT static void deviceRender(void* context, float* const* channels, UInt32 channelCount,
                                     UInt32 frameCount, const AudioTimeStamp& timeStamp) noexcept;
    VELL_RT void renderDevice(float* const* channels, UInt32 channelCount,
                              UInt32 frameCount) noexcept;
    OSStatus openStream();

    AudioDeviceID mDevice = kAudioDeviceUnknown;
    std::unique_ptr<AudioOutputStream> mStream;
    double mSampleTime = 0;
};

} // namespace vell
