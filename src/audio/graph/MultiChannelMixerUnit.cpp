// The multichannel mixer.
#include "audio/graph/MultiChannelMixerUnit.h"

#include <algorithm>
#include <cmath>

namespace vell {

VELL_STATIC_ASSERT_LOCK_FREE(float);

MultiChannelMixerUnit::MultiChannelMixerUnit(const AudioComponentDescription& description)
    : AudioUnitInstance(description, kDefaultBusCount, 1)
{
    for (UInt32 i = 0; i < kMaxBusCount; ++i) {
        mBusVolume[i].store(1.0f);
        mBusEnable[i].store(1.0f);
        mBusGain[i] = 1.0f;
    }
}

OSStatus MultiChannelMixerUnit::getPropertyInfo(AudioUnitPropertyID id, AudioUnitScope scope,
                                                AudioUnitElement element, UInt32* outSize,
                                                bool* outWritable)
{
    const OSStatus status =
        AudioUnitInstance::getPropertyInfo(id, scope, element, outSize, outWritable);
    if (status == noErr && id == kAudioUnitProperty_ElementCount && outWritable) {
        *outWritable = scope == kAudioUnitScope_Input;
    }
    return status;
}

OSStatus MultiChannelMixerUnit::setProperty(AudioUnitPropertyID id, AudioUnitScope scope,
                                            AudioUnitElement element, const void* data,
                                            UInt32 size)
{
    if (id == kAudioUnitProperty_ElementCount) {
        UInt32 count = 0;
        if (const OSStatus status = detail::copyIn(count, data, size); status != noErr) {
            return status;
        }
        if (scope != kAudioUnitScope_Input) {
            return kAudioUnitErr_PropertyNotWritable;
        }
        if (const OSStatus status = checkNotInitialized(); status != noErr) {
            return status;
        }
        if (count == 0 || count > kMaxBusCount) {
            return kAudioUnitErr_InvalidPropertyValue;
        }
        setInputCount(count);
        return noErr;
    }
    return AudioUnitInstance::setProperty(id, scope, element, data, size);
}

OSStatus MultiChannelMixerUnit::getParameter(AudioUnitParameterID id, AudioUnitScope scope,
                                             AudioUnitElement element, float* outValue)
{
    if (!outValue) {
        return paramErr;
    }
    if (id == kMultiChannelMixerParam_Volume) {
        if (scope == kAudioUnitScope_Input) {
            if (element >= inputCount()) {
                return kAudioUnitErr_InvalidElement;
            }
            *outValue = mBusVolume[element].load();
            return noErr;
        }
        if (scope == kAudioUnitScope_Output) {
            if (element != 0) {
                return kAudioUnitErr_InvalidElement;
            }
            *outValue = mOutputVolume.load();
            return noErr;
        }
        return kAudioUnitErr_InvalidScope;
    }
    if (id == kMultiChannelMixerParam_Enable) {
        if (scope != kAudioUnitScope_Input) {
            return kAudioUnitErr_InvalidScope;
        }
        if (element >= inputCount()) {
            return kAudioUnitErr_InvalidElement;
        }
        *outValue = mBusEnable[element].load();
        return noErr;
    }
    return kAudioUnitErr_InvalidParameter;
}

OSStatus MultiChannelMixerUnit::setParameter(AudioUnitParameterID id, AudioUnitScope scope,
                                             AudioUnitElement element, float value)
{
    if (id == kMultiChannelMixerParam_Volume) {
        if (!std::isfinite(value) || value < 0.0f || value > kMaxVolume) {
            return paramErr;
        }
        if (scope == kAudioUnitScope_Input) {
            if (element >= inputCount()) {
                return kAudioUnitErr_InvalidElement;
            }
            mBusVolume[element].store(value);
            return noErr;
        }
        if (scope == kAudioUnitScope_Output) {
            if (element != 0) {
                return kAudioUnitErr_InvalidElement;
            }
            mOutputVolume.store(value);
            return noErr;
        }
        return kAudioUnitErr_InvalidScope;
    }
    if (id == kMultiChannelMixerParam_Enable) {
        if (scope != kAudioUnitScope_Input) {
            return kAudioUnitErr_InvalidScope;
        }
        if (element >= inputCount()) {
            return kAudioUnitErr_InvalidElement;
        }
        if (value != 0.0f && value != 1.0f) {
            return paramErr;
        }
        mBusEnable[element].store(value);
        return noErr;
    }
    return kAudioUnitErr_InvalidParameter;
}

OSStatus MultiChannelMixerUnit::reset(AudioUnitScope scope, AudioUnitElement element)
{
    if (const OSStatus status = AudioUnitInstance::reset(scope, element); status != noErr) {
        return status;
    }
    for (UInt32 i = 0; i < kMaxBusCount; ++i) {
        mBusGain[i] = mBusVolume[i].load() * mBusEnable[i].load();
    }
    mOutputGain = mOutputVolume.load();
    return noErr;
}

OSStatus MultiChannelMixerUnit::prepare()
{
    const AudioStreamBasicDescription& out = mOutputFormats[0];
    for (UInt32 bus = 0; bus < inputCount(); ++bus) {
        // Inputs are not converted: a bus that is used must run at the output's rate.
        if (hasInputSource(bus) && mInputFormats[bus].mSampleRate != out.mSampleRate) {
            return kAudioUnitErr_FormatNotSupported;
        }
    }
    mBusBuffer.assign(std::size_t(AudioBufferList::kMaxBuffers) * mMaxFrames, 0.0f);
    for (UInt32 i = 0; i < kMaxBusCount; ++i) {
        mBusGain[i] = mBusVolume[i].load() * mBusEnable[i].load();
    }
    mOutputGain = mOutputVolume.load();
    return noErr;
}

void MultiChannelMixerUnit::unprepare()
{
    mBusBuffer.clear();
    mBusBuffer.shrink_to_fit();
}

namespace {

/// out[i] += in[i] × (g0 + step × (i + 1)): a linear ramp ending at g0 + step × frames.
VELL_RT inline void mixRamp(float* out, const float* in, UInt32 frames, float g0,
                            float step) noexcept
{
    if (step == 0.0f) {
        if (g0 == 1.0f) {
            for (UInt32 i = 0; i < frames; ++i) {
                out[i] += in[i];
            }
        } else if (g0 != 0.0f) {
            for (UInt32 i = 0; i < frames; ++i) {
                out[i] += in[i] * g0;
            }
        }
        return;
    }
    for (UInt32 i = 0; i < frames; ++i) {
        out[i] += in[i] * (g0 + step * float(i + 1));
    }
}

} // namespace

OSStatus MultiChannelMixerUnit::renderOutput(AudioUnitRenderActionFlags* ioActionFlags,
                                             const AudioTimeStamp& timeStamp, UInt32, UInt32 frames,
                                             AudioBufferList& io) noexcept
{
    clearBufferList(io, frames);
    const UInt32 outChannels = io.mNumberBuffers;
    const float perFrame = frames > 0 ? 1.0f / float(frames) : 0.0f;
    bool anySound = false;

    for (UInt32 bus = 0; bus < inputCount(); ++bus) {
        const float target = mBusVolume[bus].load() * mBusEnable[bus].load();
        const float start = mBusGain[bus];
        mBusGain[bus] = target;
        if (!hasInputSource(bus)) {
            continue;
        }
        const UInt32 inChannels = mInputFormats[bus].mChannelsPerFrame;
        AudioBufferList input;
        makeBufferList(input, mBusBuffer.data(), inChannels, frames);
        AudioUnitRenderActionFlags flags = 0;
        if (pullInput(bus, &flags, timeStamp, frames, input) != noErr) {
            // A failing source contributes nothing this slice.
            continue;
        }
        // Muted buses are still pulled: their sources keep time (the music input advances
        // the file position whatever its volume).
        if (start == 0.0f && target == 0.0f) {
            continue;
        }
        anySound = true;
        const float step = (target - start) * perFrame;
        for (UInt32 c = 0; c < outChannels; ++c) {
            float* out = static_cast<float*>(io.mBuffers[c].mData);
            if (inChannels == outChannels || inChannels == 1) {
                const UInt32 from = inChannels == 1 ? 0 : c;
                mixRamp(out, static_cast<const float*>(input.mBuffers[from].mData), frames, start,
                        step);
            } else if (outChannels == 1) {
                // Several channels into one: their average.
                const float share = 1.0f / float(inChannels);
                for (UInt32 k = 0; k < inChannels; ++k) {
                    mixRamp(out, static_cast<const float*>(input.mBuffers[k].mData), frames,
                            start * share, step * share);
                }
            } else if (c < inChannels) {
                mixRamp(out, static_cast<const float*>(input.mBuffers[c].mData), frames, start,
                        step);
            }
        }
    }

    const float outTarget = mOutputVolume.load();
    const float outStart = mOutputGain;
    mOutputGain = outTarget;
    if (outStart != 1.0f || outTarget != 1.0f) {
        const float step = (outTarget - outStart) * perFrame;
        for (UInt32 c = 0; c < outChannels; ++c) {
            float* out = static_cast<float*>(io.mBuffers[c].mData);
            for (UInt32 i = 0; i < frames; ++i) {
                out[i] *= outStart + step * float(i + 1);
            }
        }
    }
    if (ioActionFlags) {
        if (anySound) {
            *ioActionFlags &= ~kAudioUnitRenderAction_OutputIsSilence;
        } else {
            *ioActionFlags |= kAudioUnitRenderAction_OutputIsSilence;
        }
    }
    return noErr;
}

} // namespace vell
