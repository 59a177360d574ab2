// The status check, the parameter calls and the MIDI send of the unit role types.
#include "countin_midi/AudioUnitTypes.h"

#include "support/Assert.h"

#include <cstdio>
#include <limits>

namespace vell {

namespace {

bool check(OSStatus status, std::string_view line)
{
    if (status == noErr) {
        return true;
    }
    std::printf("%.*s%d\n", int(line.size()), line.data(), int(status));
    std::fflush(stdout);
    return false;
}

} // namespace

bool checkAudioCall(OSStatus status)
{
    return check(status, kAudioCallFailedLine);
}

bool checkAddNode(OSStatus status)
{
    return check(status, kAddNodeFailedLine);
}

std::optional<float> parameterValue(AudioUnit unit, const AudioUnitParameterAddress& address)
{
    VELL_ALWAYS_ASSERT(unit != nullptr);
    AudioUnitParameterValue value = 0;
    if (!checkAudioCall(AudioUnitGetParameter(unit, address.parameter, address.scope,
                                              address.element, &value))) {
        return std::nullopt;
    }
    return value;
}

bool setParameterValue(AudioUnit unit, const AudioUnitParameterAddress& address, float value)
{
    VELL_ALWAYS_ASSERT(unit != nullptr);
    return checkAudioCall(
        AudioUnitSetParameter(unit, address.parameter, address.scope, address.element, value, 0));
}

bool detail::sendMIDIEvent(AudioUnit unit, MIDIMessage message, const KPitch& pitch, int velocity,
                           std::int64_t offset)
{
    VELL_ALWAYS_ASSERT(unit != nullptr);
    VELL_ALWAYS_ASSERT(velocity >= 0 && velocity <= 255);
    VELL_ALWAYS_ASSERT(offset >= 0 && offset <= std::numeric_limits<std::uint32_t>::max());
    return checkAudioCall(MusicDeviceMIDIEvent(unit, rawValue(message), pitch.midiNote() & 0xFFu,
                                               UInt32(velocity), UInt32(offset)));
}

std::optional<float> AudioOutput::volume() const
{
    return parameterValue(audioUnit, {kVolumeParameter, kAudioUnitScope_Output, 0});
}

bool AudioOutput::setVolume(float value) const
{
    return setParameterValue(audioUnit, {kVolumeParameter, kAudioUnitScope_Output, 0}, value);
}

bool AudioOutput::setInputVolume(float value) const
{
    return setParameterValue(audioUnit, {kVolumeParameter, kAudioUnitScope_Input, 0}, value);
}

std::optional<float> MultiChannelMixer::volume() const
{
    return parameterValue(audioUnit, {kVolumeParameter, kAudioUnitScope_Output, 0});
}

bool MultiChannelMixer::setVolume(float value) const
{
    return setParameterValue(audioUnit, {kVolumeParameter, kAudioUnitScope_Output, 0}, value);
}

bool MultiChannelMixer::setInputVolume(float value, AudioUnitElement element) const
{
    return setParameterValue(audioUnit, {kVolumeParameter, kAudioUnitScope_Input, element}, value);
}

} // namespace vell
