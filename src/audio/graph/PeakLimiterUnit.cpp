// The peak limiter.
//
// For each frame t the gain the frame needs is r(t) = min(1, ceiling / peak(t)). The applied
// gain for the delayed frame t - L is the average over the last L + 1 frames of h, where h is
// the sliding minimum of r over L + 1 frames, released slowly. Every h in that average covers
// frame t - L, so the average never exceeds r(t - L): no overs, and a gain that glides into
// every peak over L frames instead of jumping. Below the ceiling every term is exactly 1.
#include "audio/graph/PeakLimiterUnit.h"

#include <algorithm>
#include <cmath>

namespace vell {

namespace {
constexpr float kMinAttack = 0.001f;
constexpr float kMaxAttack = 0.02f;
constexpr float kMinDecay = 0.001f;
constexpr float kMaxDecay = 0.5f;
} // namespace

PeakLimiterUnit::PeakLimiterUnit(const AudioComponentDescription& description)
    : AudioUnitInstance(description, 1, 1)
{
}

UInt32 PeakLimiterUnit::lookAheadFrames() const noexcept
{
    return std::max<UInt32>(
        1, static_cast<UInt32>(std::lround(mAttackTime.load() * mOutputFormats[0].mSampleRate)));
}

OSStatus PeakLimiterUnit::getProperty(AudioUnitPropertyID id, AudioUnitScope scope,
                                      AudioUnitElement element, void* outData, UInt32* ioSize)
{
    if (id == kAudioUnitProperty_Latency) {
        if (scope != kAudioUnitScope_Global) {
            return kAudioUnitErr_InvalidScope;
        }
        const UInt32 frames = isInitialized() ? mLookAhead : lookAheadFrames();
        return detail::copyOut(double(frames) / mOutputFormats[0].mSampleRate, outData, ioSize);
    }
    return AudioUnitInstance::getProperty(id, scope, element, outData, ioSize);
}

OSStatus PeakLimiterUnit::getParameter(AudioUnitParameterID id, AudioUnitScope scope,
                                       AudioUnitElement element, float* outValue)
{
    if (!outValue) {
        return paramErr;
    }
    if (scope != kAudioUnitScope_Global) {
        return kAudioUnitErr_InvalidScope;
    }
    if (element != 0) {
        return kAudioUnitErr_InvalidElement;
    }
    switch (id) {
    case kLimiterParam_AttackTime:
        *outValue = mAttackTime.load();
        return noErr;
    case kLimiterParam_DecayTime:
        *outValue = mDecayTime.load();
        return noErr;
    case kLimiterParam_PreGain:
        *outValue = mPreGainDecibels.load();
        return noErr;
    default:
        return kAudioUnitErr_InvalidParameter;
    }
}

OSStatus PeakLimiterUnit::setParameter(AudioUnitParameterID id, AudioUnitScope scope,
                                       AudioUnitElement element, float value)
{
    if (scope != kAudioUnitScope_Global) {
        return kAudioUnitErr_InvalidScope;
    }
    if (element != 0) {
        return kAudioUnitErr_InvalidElement;
    }
    if (!std::isfinite(value)) {
        return paramErr;
    }
    switch (id) {
    case kLimiterParam_AttackTime:
        if (value < kMinAttack || value > kMaxAttack) {
            return paramErr;
        }
        mAttackTime.store(value);
        return noErr;
    case kLimiterParam_DecayTime:
        if (value < kMinDecay || value > kMaxDecay) {
            return paramErr;
        }
        mDecayTime.store(value);
        return noErr;
    case kLimiterParam_PreGain:
        if (value < -40.0f || value > 40.0f) {
            return paramErr;
        }
        mPreGainDecibels.store(value);
        return noErr;
    default:
        return kAudioUnitErr_InvalidParameter;
    }
}

void PeakLimiterUnit::formatChanged(AudioUnitScope scope, AudioUnitElement)
{
    // One format for both sides: the limiter neither converts nor remixes.
    if (scope == kAudioUnitScope_Input) {
        mOutputFormats[0] = mInputFormats[0];
    } else if (scope == kAudioUnitScope_Output) {
        mInputFormats[0] = mOutputFormats[0];
    }
}

OSStatus PeakLimiterUnit::prepare()
{
    const UInt32 channels = mOutputFormats[0].mChannelsPerFrame;
    mLookAhead = std::min<UInt32>(lookAheadFrames(), UInt32(mOutputFormats[0].mSampleRate));
    mWindow = mLookAhead + 1;
    mDelay.assign(std::size_t(channels) * mLookAhead, 0.0f);
    mMinValue.assign(mWindow, 1.0f);
    mMinIndex.assign(mWindow, 0);
    mSmoothed.assign(mWindow, 1.0f);
    clearState();
    return noErr;
}

void PeakLimiterUnit::unprepare()
{
    mDelay.clear();
    mMinValue.clear();
    mMinIndex.clear();
    mSmoothed.clear();
}

void PeakLimiterUnit::clearState() noexcept
{
    std::fill(mDelay.begin(), mDelay.end(), 0.0f);
    std::fill(mSmoothed.begin(), mSmoothed.end(), 1.0f);
    mSmoothedSum = double(mWindow);
    mMinHead = 0;
    mMinCount = 0;
    mReleased = 1.0f;
    mPosition = 0;
    mPreGain = std::pow(10.0f, mPreGainDecibels.load() / 20.0f);
}

OSStatus PeakLimiterUnit::reset(AudioUnitScope scope, AudioUnitElement element)
{
    if (const OSStatus status = AudioUnitInstance::reset(scope, element); status != noErr) {
        return status;
    }
    if (isInitialized()) {
        if (lookAheadFrames() != mLookAhead) {
            prepare();
        } else {
            clearState();
        }
    }
    return noErr;
}

OSStatus PeakLimiterUnit::renderOutput(AudioUnitRenderActionFlags* ioActionFlags,
                                       const AudioTimeStamp& timeStamp, UInt32, UInt32 frames,
                                       AudioBufferList& io) noexcept
{
    const OSStatus pulled = pullInput(0, ioActionFlags, timeStamp, frames, io);
    if (pulled != noErr && pulled != kAudioUnitErr_NoConnection) {
        return pulled;
    }
    if (ioActionFlags) {
        // The delay line may still hold sound.
        *ioActionFlags &= ~kAudioUnitRenderAction_OutputIsSilence;
    }

    const UInt32 channels = io.mNumberBuffers;
    const UInt32 window = mWindow;
    const double sampleRate = mOutputFormats[0].mSampleRate;
    const float release =
        1.0f - std::exp(-1.0f / (mDecayTime.load() * static_cast<float>(sampleRate)));
    const float targetPreGain = std::pow(10.0f, mPreGainDecibels.load() / 20.0f);
    const float preGainStart = mPreGain;
    const float preGainStep = frames > 0 ? (targetPreGain - preGainStart) / float(frames) : 0.0f;
    mPreGain = targetPreGain;

    for (UInt32 i = 0; i < frames; ++i) {
        const float preGain =
            preGainStep == 0.0f ? preGainStart : preGainStart + preGainStep * float(i + 1);
        const UInt32 slot = mPosition % window;
        const UInt32 delaySlot = mPosition % mLookAhead;
        float peak = 0.0f;
        for (UInt32 c = 0; c < channels; ++c) {
            float* data = static_cast<float*>(io.mBuffers[c].mData);
            const float x = data[i] * preGain;
            peak = std::max(peak, std::fabs(x));
            // The slot holds frame t - L, which leaves now; frame t takes its place.
            float& delayed = mDelay[std::size_t(c) * mLookAhead + delaySlot];
            data[i] = delayed;
            delayed = x;
        }
        const float required = peak > kPeakLimiterCeiling ? kPeakLimiterCeiling / peak : 1.0f;

        // Sliding minimum over the last `window` frames (a monotonic queue in a ring).
        while (mMinCount > 0) {
            const UInt32 back = (mMinHead + mMinCount - 1) % window;
            if (mMinValue[back] < required) {
                break;
            }
            --mMinCount;
        }
        {
            const UInt32 back = (mMinHead + mMinCount) % window;
            mMinValue[back] = required;
            mMinIndex[back] = mPosition;
            ++mMinCount;
        }
        while (mPosition - mMinIndex[mMinHead] >= window) {
            mMinHead = (mMinHead + 1) % window;
            --mMinCount;
        }
        const float minimum = mMinValue[mMinHead];

        mReleased = std::min(minimum, mReleased + (1.0f - mReleased) * release);
        mSmoothedSum += double(mReleased) - double(mSmoothed[slot]);
        mSmoothed[slot] = mReleased;
        const float gain =
            std::min(1.0f, static_cast<float>(mSmoothedSum / double(window)));

        for (UInt32 c = 0; c < channels; ++c) {
            float* data = static_cast<float*>(io.mBuffers[c].mData);
            // The clamp only catches rounding in the running sum.
            data[i] = std::clamp(data[i] * gain, -kPeakLimiterCeiling, kPeakLimiterCeiling);
        }
        ++mPosition;
    }
    return noErr;
}

} // namespace vell
