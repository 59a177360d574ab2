// The peak limiter ("aufx"/"lmtr"): a look-ahead limiter whose output never exceeds
// kPeakLimiterCeiling and which leaves a signal below the ceiling untouched (only delayed by
// the look-ahead, which it reports as its latency).
#pragma once

#include "audio/graph/AudioUnitInstance.h"

#include <atomic>
#include <vector>

namespace vell {

class PeakLimiterUnit final : public AudioUnitInstance {
public:
    explicit PeakLimiterUnit(const AudioComponentDescription& description);

    OSStatus getProperty(AudioUnitPropertyID id, AudioUnitScope scope, AudioUnitElement element,
                         void* outData, UInt32* ioSize) override;
    OSStatus getParameter(AudioUnitParameterID id, AudioUnitScope scope, AudioUnitElement element,
                          float* outValue) override;
    /// The attack time (look-ahead) takes effect at the next initialize or reset.
    OSStatus setParameter(AudioUnitParameterID id, AudioUnitScope scope, AudioUnitElement element,
                          float value) override;
    OSStatus reset(AudioUnitScope scope, AudioUnitElement element) override;

protected:
    void formatChanged(AudioUnitScope scope, AudioUnitElement element) override;
    OSStatus prepare() override;
    void unprepare() override;
    VELL_RT OSStatus renderOutput(AudioUnitRenderActionFlags* ioActionFlags,
                                  const AudioTimeStamp& timeStamp, UInt32 bus, UInt32 frames,
                                  AudioBufferList& io) noexcept override;

private:
    void clearState() noexcept;
    UInt32 lookAheadFrames() const noexcept;

    std::atomic<float> mAttackTime{0.0015f};
    std::atomic<float> mDecayTime{0.05f};
    std::atomic<float> mPreGainDecibels{0.0f};

    // Render state, sized by prepare.
    UInt32 mLookAhead = 0;          // L: frames of delay
    UInt32 mWindow = 1;             // L + 1
    std::vector<float> mDelay;      // per channel, mLookAhead frames each
    std::vector<float> mMinValue;   // sliding-minimum queue of required gains
    std::vector<UInt32> mMinIndex;
    UInt32 mMinHead = 0;
    UInt32 mMinCount = 0;
    std::vector<float> mSmoothed;   // the last mWindow released gains
    double mSmoothedSum = 0;
    float mReleased = 1.0f;
    float mPreGain = 1.0f;
    UInt32 mPosition = 0;           // frames processed, modulo mWindow
};

} // namespace vell
