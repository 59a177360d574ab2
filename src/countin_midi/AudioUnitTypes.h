// Typed handles over the render graph's units: the status check every call goes through, the
// parameter address, the MIDI channel messages, and one small value type per unit role.
#pragma once

#include "VellAudio/KPitch.h"
#include "audio/graph/AudioUnit.h"

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace vell {

inline constexpr std::string_view kAudioCallFailedLine = "audioCallFailed: status = ";
inline constexpr std::string_view kAddNodeFailedLine = "audioCallFailed failed with status ";

/// Whether status is noErr; any other status prints "audioCallFailed: status = N" on standard
/// output. Thread: main.
bool checkAudioCall(OSStatus status);
/// As checkAudioCall, with the line that adding a node prints: "audioCallFailed failed with
/// status N". Thread: main.
bool checkAddNode(OSStatus status);

/// Where a parameter lives on a unit.
struct AudioUnitParameterAddress {
    std::uint32_t parameter = 0;
    std::uint32_t scope = 0;
    std::uint32_t element = 0;

    friend bool operator==(const AudioUnitParameterAddress&,
                           const AudioUnitParameterAddress&) = default;
};
static_assert(sizeof(AudioUnitParameterAddress) == 12);

/// Channel-voice status bytes (channel 0). Comparable, and hashable through std::hash.
enum class MIDIMessage : std::uint8_t {
    noteOff = 0x80,
    noteOn = 0x90,
};

/// The message a status byte names, or nothing for any other byte.
constexpr std::optional<MIDIMessage> midiMessageFromRawValue(std::uint8_t rawValue) noexcept
{
    switch (rawValue) {
    case std::uint8_t(MIDIMessage::noteOn):
        return MIDIMessage::noteOn;
    case std::uint8_t(MIDIMessage::noteOff):
        return MIDIMessage::noteOff;
    default:
        return std::nullopt;
    }
}

constexpr std::uint8_t rawValue(MIDIMessage message) noexcept
{
    return static_cast<std::uint8_t>(message);
}

/// What an audio-unit handle points at: the unit instance itself, owned by its graph.
struct ComponentInstanceRecord {
    AudioUnitInstance* data = nullptr;
};

/// A type that wraps one unit handle.
template <class T>
concept AudioUnitType = requires(const T& unit) {
    { unit.audioUnit } -> std::convertible_to<AudioUnit>;
};

/// A unit that takes MIDI events: a pitch's note number as data 1, a velocity from 0 to 255
/// (anything else stops the process) as data 2, and a sample-frame offset that must fit in 32
/// unsigned bits (likewise). Answers whether the call succeeded.
template <class T>
concept MusicDeviceType = AudioUnitType<T> && requires(const T& device, MIDIMessage message,
                                                       const KPitch& pitch, int velocity,
                                                       std::int64_t offset) {
    { device.sendMIDIEvent(message, pitch, velocity, offset) } -> std::same_as<bool>;
};

/// The generic parameter calls on any unit handle; failures print their status line.
/// Thread: main (the graph's units accept parameters from any thread, the printing does not).
std::optional<float> parameterValue(AudioUnit unit, const AudioUnitParameterAddress& address);
bool setParameterValue(AudioUnit unit, const AudioUnitParameterAddress& address, float value);

namespace detail {
/// The one MIDI send both music-device roles share.
bool sendMIDIEvent(AudioUnit unit, MIDIMessage message, const KPitch& pitch, int velocity,
                   std::int64_t offset);
} // namespace detail

/// The peak limiter role.
struct AudioEffect {
    static constexpr AudioComponentDescription componentDescription{
        kAudioUnitType_Effect, kAudioUnitSubType_PeakLimiter, kAudioUnitManufacturer_System, 0, 0};
    AudioUnit audioUnit = nullptr;
};

/// Any unit that plays MIDI.
struct MusicDevice {
    AudioUnit audioUnit = nullptr;

    bool sendMIDIEvent(MIDIMessage message, const KPitch& pitch, int velocity,
                       std::int64_t offset) const
    {
        return detail::sendMIDIEvent(audioUnit, message, pitch, velocity, offset);
    }
};

/// The sampler, a music device.
struct AUSampler {
    static constexpr AudioComponentDescription componentDescription{
        kAudioUnitType_MusicDevice, kAudioUnitSubType_Sampler, kAudioUnitManufacturer_System, 0, 0};
    AudioUnit audioUnit = nullptr;

    bool sendMIDIEvent(MIDIMessage message, const KPitch& pitch, int velocity,
                       std::int64_t offset) const
    {
        return detail::sendMIDIEvent(audioUnit, message, pitch, velocity, offset);
    }
};

/// The default output; its volume is parameter 14.
struct AudioOutput {
    static constexpr AudioComponentDescription componentDescription{
        kAudioUnitType_Output, kAudioUnitSubType_DefaultOutput, kAudioUnitManufacturer_System, 0,
        0};
    static constexpr AudioUnitParameterID kVolumeParameter = kHALOutputParam_Volume;
    AudioUnit audioUnit = nullptr;

    /// The volume seen from the output scope.
    std::optional<float> volume() const;
    /// Sets the volume on the output scope.
    bool setVolume(float value) const;
    /// Sets the volume on the input scope.
    bool setInputVolume(float value) const;
};

/// The multichannel mixer; its volume is parameter 0.
struct MultiChannelMixer {
    static constexpr AudioComponentDescription componentDescription{
        kAudioUnitType_Mixer, kAudioUnitSubType_MultiChannelMixer, kAudioUnitManufacturer_System,
        0, 0};
    static constexpr AudioUnitParameterID kVolumeParameter = kMultiChannelMixerParam_Volume;
    AudioUnit audioUnit = nullptr;

    /// The output volume (output scope, element 0).
    std::optional<float> volume() const;
    bool setVolume(float value) const;
    /// The volume of one input bus.
    bool setInputVolume(float value, AudioUnitElement element = 0) const;
};

static_assert(AudioUnitType<AudioEffect> && AudioUnitType<AudioOutput> &&
              AudioUnitType<MultiChannelMixer>);
static_assert(MusicDeviceType<MusicDevice> && MusicDeviceType<AUSampler>);

} // namespace vell
