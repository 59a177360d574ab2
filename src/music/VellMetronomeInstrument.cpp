// The metronome instrument table on the General MIDI percussion map.
#include "VellAudio/VellMetronomeInstrument.h"

namespace vell {

VellMetronomeInstrument::VellMetronomeInstrument()
    : VellMetronomeInstrument(allInstruments().front())
{
}

VellMetronomeInstrument::VellMetronomeInstrument(long long identifier, std::string_view name,
                                                 std::uint8_t midiNote,
                                                 std::uint8_t accentedMidiNote,
                                                 std::uint8_t velocity,
                                                 std::uint8_t accentedVelocity)
    : mIdentifier(identifier), mName(name), mMidiNote(midiNote),
      mAccentedMidiNote(accentedMidiNote), mVelocity(velocity), mAccentedVelocity(accentedVelocity)
{
}

const std::vector<VellMetronomeInstrument>& VellMetronomeInstrument::allInstruments()
{
    static const std::vector<VellMetronomeInstrument> instruments = {
        VellMetronomeInstrument(0, "Click", 33, 34, 100, 127),
        VellMetronomeInstrument(1, "Side Stick", 37, 37, 90, 127),
        VellMetronomeInstrument(2, "Wood Block", 77, 76, 100, 127),
        VellMetronomeInstrument(3, "Cowbell", 56, 56, 90, 127),
        VellMetronomeInstrument(4, "Claves", 75, 75, 90, 127),
        VellMetronomeInstrument(5, "Hi-Hat", 42, 46, 90, 120),
    };
    return instruments;
}

VellMetronomeInstrument VellMetronomeInstrument::instrumentWithIdentifier(long long identifier)
{
    for (const auto& instrument : allInstruments()) {
        if (instrument.identifier() == identifier) {
            return instrument;
        }
    }
    return allInstruments().front();
}

} // namespace vell
