// The C-style unit calls and the factory that makes a unit from its component description.
#include "audio/graph/AudioUnit.h"

#include "audio/graph/AudioComponents.h"
#include "audio/graph/MultiChannelMixerUnit.h"
#include "audio/graph/OutputUnits.h"
#include "audio/graph/PeakLimiterUnit.h"
#include "audio/graph/SamplerUnit.h"

namespace vell {

namespace detail {

namespace {
bool matches(const AudioComponentDescription& d, OSType type, OSType subType) noexcept
{
    return d.componentType == type && d.componentSubType == subType &&
           (d.componentManufacturer == 0 ||
            d.componentManufacturer == kAudioUnitManufacturer_System);
}
} // namespace

std::unique_ptr<AudioUnitInstance> makeAudioUnit(const AudioComponentDescription& description)
{
    AudioComponentDescription d = description;
    d.componentManufacturer = kAudioUnitManufacturer_System;
    if (matches(description, kAudioUnitType_Mixer, kAudioUnitSubType_MultiChannelMixer)) {
        return std::make_unique<MultiChannelMixerUnit>(d);
    }
    if (matches(description, kAudioUnitType_MusicDevice, kAudioUnitSubType_Sampler)) {
        return std::make_unique<SamplerUnit>(d);
    }
    if (matches(description, kAudioUnitType_Effect, kAudioUnitSubType_PeakLimiter)) {
        return std::make_unique<PeakLimiterUnit>(d);
    }
    if (matches(description, kAudioUnitType_Output, kAudioUnitSubType_GenericOutput)) {
        return std::make_unique<GenericOutputUnit>(d);
    }
    if (matches(description, kAudioUnitType_Output, kAudioUnitSubType_DefaultOutput)) {
        return std::make_unique<DefaultOutputUnit>(d);
    }
    return nullptr;
}

bool isKnownComponent(const AudioComponentDescription& d) noexcept
{
    return matches(d, kAudioUnitType_Mixer, kAudioUnitSubType_MultiChannelMixer) ||
           matches(d, kAudioUnitType_MusicDevice, kAudioUnitSubType_Sampler) ||
           matches(d, kAudioUnitType_Effect, kAudioUnitSubType_PeakLimiter) ||
           matches(d, kAudioUnitType_Output, kAudioUnitSubType_GenericOutput) ||
           matches(d, kAudioUnitType_Output, kAudioUnitSubType_DefaultOutput);
}

} // namespace detail

namespace {
SamplerUnit* asSampler(AudioUnit unit) noexcept
{
    if (!unit || unit->description().componentType != kAudioUnitType_MusicDevice) {
        return nullptr;
    }
    return static_cast<SamplerUnit*>(unit);
}
} // namespace

OSStatus AudioUnitInitialize(AudioUnit unit)
{
    return unit ? unit->initialize() : paramErr;
}

OSStatus AudioUnitUninitialize(AudioUnit unit)
{
    return unit ? unit->uninitialize() : paramErr;
}

OSStatus AudioUnitGetPropertyInfo(AudioUnit unit, AudioUnitPropertyID id, AudioUnitScope scope,
                                  AudioUnitElement element, UInt32* outDataSize,
                                  Boolean* outWritable)
{
    if (!unit) {
        return paramErr;
    }
    bool writable = false;
    const OSStatus status = unit->getPropertyInfo(id, scope, element, outDataSize, &writable);
    if (status == noErr && outWritable) {
        *outWritable = writable ? 1 : 0;
    }
    return status;
}

OSStatus AudioUnitGetProperty(AudioUnit unit, AudioUnitPropertyID id, AudioUnitScope scope,
                              AudioUnitElement element, void* outData, UInt32* ioDataSize)
{
    if (!unit || !ioDataSize) {
        return paramErr;
    }
    if (!outData) {
        return paramErr;
    }
    return unit->getProperty(id, scope, element, outData, ioDataSize);
}

OSStatus AudioUnitSetProperty(AudioUnit unit, AudioUnitPropertyID id, AudioUnitScope scope,
                              AudioUnitElement element, const void* inData, UInt32 inDataSize)
{
    if (!unit || !inData) {
        return paramErr;
    }
    return unit->setProperty(id, scope, element, inData, inDataSize);
}

OSStatus AudioUnitGetParameter(AudioUnit unit, AudioUnitParameterID id, AudioUnitScope scope,
                               AudioUnitElement element, AudioUnitParameterValue* outValue)
{
    if (!unit || !outValue) {
        return paramErr;
    }
    return unit->getParameter(id, scope, element, outValue);
}

OSStatus AudioUnitSetParameter(AudioUnit unit, AudioUnitParameterID id, AudioUnitScope scope,
                               AudioUnitElement element, AudioUnitParameterValue value, UInt32)
{
    if (!unit) {
        return paramErr;
    }
    return unit->setParameter(id, scope, element, value);
}

OSStatus AudioUnitReset(AudioUnit unit, AudioUnitScope scope, AudioUnitElement element)
{
    return unit ? unit->reset(scope, element) : paramErr;
}

OSStatus AudioUnitAddRenderNotify(AudioUnit unit, AURenderCallback proc, void* refCon)
{
    return unit ? unit->addRenderNotify(proc, refCon) : paramErr;
}

OSStatus AudioUnitRemoveRenderNotify(AudioUnit unit, AURenderCallback proc, void* refCon)
{
    return unit ? unit->removeRenderNotify(proc, refCon) : paramErr;
}

OSStatus AudioUnitRender(AudioUnit unit, AudioUnitRenderActionFlags* ioActionFlags,
                         const AudioTimeStamp* inTimeStamp, UInt32 outputBusNumber,
                         UInt32 numberFrames, AudioBufferList* ioData) noexcept
{
    if (!unit || !ioData || !inTimeStamp) {
        return paramErr;
    }
    return unit->render(ioActionFlags, inTimeStamp, outputBusNumber, numberFrames, ioData);
}

OSStatus AudioOutputUnitStart(AudioUnit unit)
{
    if (!unit) {
        return paramErr;
    }
    return unit->isOutputUnit() ? unit->start() : kAudioUnitErr_InvalidProperty;
}

OSStatus AudioOutputUnitStop(AudioUnit unit)
{
    if (!unit) {
        return paramErr;
    }
    return unit->isOutputUnit() ? unit->stop() : kAudioUnitErr_InvalidProperty;
}

OSStatus MusicDeviceStartNote(AudioUnit unit, MusicDeviceInstrumentID instrument,
                              MusicDeviceGroupID group, NoteInstanceID* outNoteInstanceID,
                              UInt32 offsetSampleFrame, const MusicDeviceNoteParams* params)
{
    SamplerUnit* sampler = asSampler(unit);
    if (!sampler) {
        return paramErr;
    }
    return sampler->startNote(instrument, group, outNoteInstanceID, offsetSampleFrame, params);
}

OSStatus MusicDeviceStopNote(AudioUnit unit, MusicDeviceGroupID group, NoteInstanceID instanceID,
                             UInt32 offsetSampleFrame)
{
    SamplerUnit* sampler = asSampler(unit);
    if (!sampler) {
        return paramErr;
    }
    return sampler->stopNote(group, instanceID, offsetSampleFrame);
}

OSStatus MusicDeviceMIDIEvent(AudioUnit unit, UInt32 status, UInt32 data1, UInt32 data2,
                              UInt32 offsetSampleFrame)
{
    SamplerUnit* sampler = asSampler(unit);
    if (!sampler) {
        return paramErr;
    }
    return sampler->midiEvent(status, data1, data2, offsetSampleFrame);
}

} // namespace vell
