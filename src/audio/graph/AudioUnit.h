// Audio units: component codes, property and parameter identifiers, status codes, and the
// C-style calls that get and set properties and parameters, render, and play notes.
#pragma once

#include "VellAudio/AudioTypes.h"

#include <cstdint>

namespace vell {

class AudioUnitInstance;
/// A unit instance. The graph that made it owns it; the handle is never freed by its users.
using AudioUnit = AudioUnitInstance*;

using UInt32 = std::uint32_t;
using Boolean = std::uint8_t;
using AudioUnitPropertyID = std::uint32_t;
using AudioUnitScope = std::uint32_t;
using AudioUnitElement = std::uint32_t;
using AudioUnitParameterID = std::uint32_t;
using AudioUnitParameterValue = float;
using MusicDeviceInstrumentID = std::uint32_t;
using MusicDeviceGroupID = std::uint32_t;
using NoteInstanceID = std::uint32_t;

// ---- Status codes.
inline constexpr OSStatus paramErr = -50;
inline constexpr OSStatus invalidComponentID = -3000;
inline constexpr OSStatus kAudioUnitErr_InvalidProperty = -10879;
inline constexpr OSStatus kAudioUnitErr_InvalidParameter = -10878;
inline constexpr OSStatus kAudioUnitErr_InvalidElement = -10877;
inline constexpr OSStatus kAudioUnitErr_NoConnection = -10876;
inline constexpr OSStatus kAudioUnitErr_FailedInitialization = -10875;
inline constexpr OSStatus kAudioUnitErr_TooManyFramesToProcess = -10874;
inline constexpr OSStatus kAudioUnitErr_InvalidFile = -10871;
inline constexpr OSStatus kAudioUnitErr_FormatNotSupported = -10868;
inline constexpr OSStatus kAudioUnitErr_Uninitialized = -10867;
inline constexpr OSStatus kAudioUnitErr_InvalidScope = -10866;
inline constexpr OSStatus kAudioUnitErr_PropertyNotWritable = -10865;
inline constexpr OSStatus kAudioUnitErr_CannotDoInCurrentContext = -10863;
inline constexpr OSStatus kAudioUnitErr_InvalidPropertyValue = -10851;
inline constexpr OSStatus kAudioUnitErr_Initialized = -10849;
inline constexpr OSStatus kAUGraphErr_NodeNotFound = -10860;
inline constexpr OSStatus kAUGraphErr_InvalidConnection = -10861;
inline constexpr OSStatus kAUGraphErr_OutputNodeErr = -10862;
inline constexpr OSStatus kAUGraphErr_CannotDoInCurrentContext = -10863;
inline constexpr OSStatus kAUGraphErr_InvalidAudioUnit = -10864;

// ---- Component codes.
inline constexpr OSType kAudioUnitManufacturer_System = fourCharCode("appl");
inline constexpr OSType kAudioUnitType_Output = fourCharCode("auou");
inline constexpr OSType kAudioUnitSubType_DefaultOutput = fourCharCode("def ");
inline constexpr OSType kAudioUnitSubType_GenericOutput = fourCharCode("genr");
inline constexpr OSType kAudioUnitType_Mixer = fourCharCode("aumx");
inline constexpr OSType kAudioUnitSubType_MultiChannelMixer = fourCharCode("mcmx");
inline constexpr OSType kAudioUnitType_MusicDevice = fourCharCode("aumu");
inline constexpr OSType kAudioUnitSubType_Sampler = fourCharCode("samp");
inline constexpr OSType kAudioUnitType_Effect = fourCharCode("aufx");
inline constexpr OSType kAudioUnitSubType_PeakLimiter = fourCharCode("lmtr");

// ---- Scopes.
inline constexpr AudioUnitScope kAudioUnitScope_Global = 0;
inline constexpr AudioUnitScope kAudioUnitScope_Input = 1;
inline constexpr AudioUnitScope kAudioUnitScope_Output = 2;

// ---- Properties (value type in brackets).
/// [AUSamplerClassInfo] the sampler's preset document.
inline constexpr AudioUnitPropertyID kAudioUnitProperty_ClassInfo = 0;
/// [double] the sample rate of one scope and element.
inline constexpr AudioUnitPropertyID kAudioUnitProperty_SampleRate = 2;
/// [AudioStreamBasicDescription] 32-bit float, non-interleaved, 1 to 8 channels.
inline constexpr AudioUnitPropertyID kAudioUnitProperty_StreamFormat = 8;
/// [UInt32] number of elements (buses) in a scope; settable on the mixer's input scope.
inline constexpr AudioUnitPropertyID kAudioUnitProperty_ElementCount = 11;
/// [double] seconds between input and output.
inline constexpr AudioUnitPropertyID kAudioUnitProperty_Latency = 12;
/// [UInt32] the largest frame count one render call may ask for.
inline constexpr AudioUnitPropertyID kAudioUnitProperty_MaximumFramesPerSlice = 14;
/// [AudioDeviceID] the device a default output renders to.
inline constexpr AudioUnitPropertyID kAudioOutputUnitProperty_CurrentDevice = 2000;
/// [UInt32] non-zero while the output unit runs.
inline constexpr AudioUnitPropertyID kAudioOutputUnitProperty_IsRunning = 2001;
/// [UInt32] non-zero: render time stamps start at sample time 0 on every start.
inline constexpr AudioUnitPropertyID kAudioOutputUnitProperty_StartTimestampsAtZero = 2007;
/// [AUSamplerInstrumentData] loads a preset or a SoundFont instrument into the sampler.
inline constexpr AudioUnitPropertyID kAUSamplerProperty_LoadInstrument = 4102;

// ---- Parameters.
/// Mixer volume: input scope per bus, output scope element 0. Linear gain, 0 to 2, default 1.
inline constexpr AudioUnitParameterID kMultiChannelMixerParam_Volume = 0;
/// Mixer bus enable: input scope per bus, 0 or 1, default 1.
inline constexpr AudioUnitParameterID kMultiChannelMixerParam_Enable = 1;
/// Output unit volume: input or output scope, element 0. Linear gain, 0 to 1, default 1.
inline constexpr AudioUnitParameterID kHALOutputParam_Volume = 14;
/// Limiter look-ahead (attack) in seconds, 0.001 to 0.02, default 0.0015.
inline constexpr AudioUnitParameterID kLimiterParam_AttackTime = 0;
/// Limiter release (decay) time constant in seconds, 0.001 to 0.5, default 0.05.
inline constexpr AudioUnitParameterID kLimiterParam_DecayTime = 1;
/// Limiter gain before limiting in decibels, -40 to 40, default 0.
inline constexpr AudioUnitParameterID kLimiterParam_PreGain = 2;
/// The limiter's ceiling: its output never exceeds this magnitude (-0.1 dBFS).
inline constexpr float kPeakLimiterCeiling = 0.98855309f;

// ---- Sampler instruments.
inline constexpr std::uint8_t kInstrumentType_SF2Preset = 1;
inline constexpr std::uint8_t kInstrumentType_AUPreset = 2;
inline constexpr std::uint8_t kAUSampler_DefaultPercussionBankMSB = 0x78;
inline constexpr std::uint8_t kAUSampler_DefaultMelodicBankMSB = 0x79;
inline constexpr std::uint8_t kAUSampler_DefaultBankLSB = 0x00;

/// Value of kAUSamplerProperty_LoadInstrument. fileURL is a file path. With
/// kInstrumentType_AUPreset the file is a preset document (the bank and preset fields are not
/// used); with kInstrumentType_SF2Preset it is a SoundFont whose preset presetID is played, from
/// the percussion bank when bankMSB is kAUSampler_DefaultPercussionBankMSB.
struct AUSamplerInstrumentData {
    const char* fileURL = nullptr;
    std::uint8_t instrumentType = kInstrumentType_AUPreset;
    std::uint8_t bankMSB = kAUSampler_DefaultMelodicBankMSB;
    std::uint8_t bankLSB = kAUSampler_DefaultBankLSB;
    std::uint8_t presetID = 0;
};

/// Value of the sampler's kAudioUnitProperty_ClassInfo: the text of a preset document (JSON) and
/// the folder its relative paths start from (may be null). When read back, the pointers stay
/// valid until the next preset change.
struct AUSamplerClassInfo {
    const char* document = nullptr;
    UInt32 length = 0;
    const char* baseDirectory = nullptr;
};

/// The two values MusicDeviceStartNote takes.
struct MusicDeviceNoteParams {
    UInt32 argCount = 2;
    float mPitch = 60.0f;
    float mVelocity = 127.0f;
};

/// Instrument argument of MusicDeviceStartNote: play the group's current instrument.
inline constexpr MusicDeviceInstrumentID kMusicNoteEvent_UseGroupInstrument = 0xFFFFFFFFu;

// ---- Unit calls. Thread: main thread unless noted.

OSStatus AudioUnitInitialize(AudioUnit unit);
OSStatus AudioUnitUninitialize(AudioUnit unit);
OSStatus AudioUnitGetPropertyInfo(AudioUnit unit, AudioUnitPropertyID id, AudioUnitScope scope,
                                  AudioUnitElement element, UInt32* outDataSize,
                                  Boolean* outWritable);
OSStatus AudioUnitGetProperty(AudioUnit unit, AudioUnitPropertyID id, AudioUnitScope scope,
                              AudioUnitElement element, void* outData, UInt32* ioDataSize);
OSStatus AudioUnitSetProperty(AudioUnit unit, AudioUnitPropertyID id, AudioUnitScope scope,
                              AudioUnitElement element, const void* inData, UInt32 inDataSize);

/// Thread: any. Parameters are atomics; a change reaches the audio at the next render, where
/// gains ramp linearly over one slice.
OSStatus AudioUnitGetParameter(AudioUnit unit, AudioUnitParameterID id, AudioUnitScope scope,
                               AudioUnitElement element, AudioUnitParameterValue* outValue);
OSStatus AudioUnitSetParameter(AudioUnit unit, AudioUnitParameterID id, AudioUnitScope scope,
                               AudioUnitElement element, AudioUnitParameterValue value,
                               UInt32 bufferOffsetInFrames);

/// Clears the unit's state (delay lines, ramps, sounding notes). Not while it renders.
OSStatus AudioUnitReset(AudioUnit unit, AudioUnitScope scope, AudioUnitElement element);

/// Adds or removes a notification called before (flags | kAudioUnitRenderAction_PreRender) and after
/// (flags | kAudioUnitRenderAction_PostRender) every render of the unit. Not while it renders.
OSStatus AudioUnitAddRenderNotify(AudioUnit unit, AURenderCallback proc, void* refCon);
OSStatus AudioUnitRemoveRenderNotify(AudioUnit unit, AURenderCallback proc, void* refCon);

/// Renders frames of output bus outputBusNumber into ioData (one buffer per channel; null data
/// pointers are pointed at the unit's own buffers). Pulls everything upstream on the caller's
/// thread. Thread: render (the caller becomes the render thread). No allocation, no locks.
OSStatus AudioUnitRender(AudioUnit unit, AudioUnitRenderActionFlags* ioActionFlags,
                         const AudioTimeStamp* inTimeStamp, UInt32 outputBusNumber,
                         UInt32 numberFrames, AudioBufferList* ioData) noexcept;

/// Starts or stops an output unit (the default output drives its device).
OSStatus AudioOutputUnitStart(AudioUnit unit);
OSStatus AudioOutputUnitStop(AudioUnit unit);

// ---- Music device calls (the sampler). Thread: any; on the render thread (inside a render
// notification or callback) the event joins the current slice without a queue, elsewhere it
// goes through a lock-free queue to the next slice. Offsets are sample frames from the start
// of the next slice the unit renders; an offset past that slice carries over to later ones.

/// Starts a note. pitch may be fractional (60.5 is a quarter tone above middle C). When
/// *outNoteInstanceID is non-zero on entry it names the note; otherwise the sampler assigns an
/// id and writes it back. group is the MIDI channel (0 to 15).
OSStatus MusicDeviceStartNote(AudioUnit unit, MusicDeviceInstrumentID instrument,
                              MusicDeviceGroupID group, NoteInstanceID* outNoteInstanceID,
                              UInt32 offsetSampleFrame, const MusicDeviceNoteParams* params);
/// Releases the note that MusicDeviceStartNote started with this id on this group.
OSStatus MusicDeviceStopNote(AudioUnit unit, MusicDeviceGroupID group, NoteInstanceID instanceID,
                             UInt32 offsetSampleFrame);
/// Sends one MIDI channel-voice message (note on and off, controllers, program change, pitch
/// bend, pressure).
OSStatus MusicDeviceMIDIEvent(AudioUnit unit, UInt32 status, UInt32 data1, UInt32 data2,
                              UInt32 offsetSampleFrame);

} // namespace vell
