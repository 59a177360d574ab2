// The multichannel mixer ("aumx"/"mcmx"): sums its input buses into one output, each bus with a
// volume and an enable switch, the sum with an output volume. Gain changes ramp linearly over
// one slice so they never click.
#pragma once

#include "audio/graph/AudioUnitInstance.h"

#include <array>
#include <atomic>
#include <vector>

namespace vell {

class MultiChannelMixerUnit final : public AudioUnitInstance {
public:
    static constexpr UInt32 kDefaultBusCount = 8;
    static constexpr UInt32 kMaxBusCount = 64;
    /// The largest volume accepted.
    static constexpr float kMaxVolume = 16.0f;

    explicit MultiChannelMixerUnit(const AudioComponentDescription& description);

    OSStatus setProperty(AudioUnitPropertyID id, AudioUnitScope scope, AudioUnitElement element,
                         const void* data, UInt32 size) override;
    OSStatus getPropertyInfo(AudioUnitPropertyID id, AudioUnitScope scope,
                             AudioUnitElement element, UInt32* outSize,
                             bool* outWritable) override;
    OSStatus getParameter(AudioUnitParameterID id, AudioUnitScope scope, AudioUnitElement element,
                          float* outValue) override;
    OSStatus setParameter(AudioUnitParameterID id, AudioUnitScope scope, AudioUnitElement element,
                          float value) override;
    /// Jumps every ramp to its target.
    OSStatus reset(AudioUnitScope scope, AudioUnitElement element) override;

protected:
    OSStatus prepare() override;
    void unprepare() override;
    VELL_RT OSStatus renderOutput(AudioUnitRenderActionFlags* ioActionFlags,
                                  const AudioTimeStamp& timeStamp, UInt32 bus, UInt32 frames,
                                  AudioBufferList& io) noexcept override;

private:
    // Written by any thread through the parameter calls, read once per slice by the render
    // thread; a slice sees either the old or the new value of each.
    std::array<std::atomic<float>, kMaxBusCount> mBusVolume;
    std::array<std::atomic<float>, kMaxBusCount> mBusEnable;
    std::atomic<float> mOutputVolume{1.0f};
    // Render thread only (and reset, which does not run while rendering): the gain each ramp
    // ended the last slice at.
    std::array<float, kMaxBusCount> mBusGain{};
    float mOutputGain = 1.0f;
    std::vector<float> mBusBuffer;
};

} // namespace vell
