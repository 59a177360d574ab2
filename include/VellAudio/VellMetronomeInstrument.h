// Metronome instruments: which General MIDI drum notes and velocities the metronome plays.
#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

namespace vell {

/// One metronome sound on the General MIDI percussion map (channel 10 note numbers): the note
/// and velocity of an ordinary beat and of an accented downbeat.
///
/// | identifier | name | midiNote | accentedMidiNote |
/// |---|---|---|---|
/// | 0 (default) | Click | 33 metronome click | 34 metronome bell |
/// | 1 | Side Stick | 37 | 37 |
/// | 2 | Wood Block | 77 low wood block | 76 high wood block |
/// | 3 | Cowbell | 56 | 56 |
/// | 4 | Claves | 75 | 75 |
/// | 5 | Hi-Hat | 42 closed | 46 open |
class VellMetronomeInstrument {
public:
    /// The default instrument (identifier 0).
    VellMetronomeInstrument();

    /// The instrument with that identifier; an unknown identifier gives the default instrument.
    static VellMetronomeInstrument instrumentWithIdentifier(long long identifier);
    /// Every instrument, in identifier order.
    static const std::vector<VellMetronomeInstrument>& allInstruments();

    long long identifier() const noexcept { return mIdentifier; }
    std::string_view name() const noexcept { return mName; }
    std::uint8_t midiNote() const noexcept { return mMidiNote; }
    std::uint8_t accentedMidiNote() const noexcept { return mAccentedMidiNote; }
    std::uint8_t velocity() const noexcept { return mVelocity; }
    std::uint8_t accentedVelocity() const noexcept { return mAccentedVelocity; }

    friend bool operator==(const VellMetronomeInstrument& a, const VellMetronomeInstrument& b)
    {
        return a.mIdentifier == b.mIdentifier;
    }

private:
    VellMetronomeInstrument(long long identifier, std::string_view name, std::uint8_t midiNote,
                            std::uint8_t accentedMidiNote, std::uint8_t velocity,
                            std::uint8_t accentedVelocity);

    long long mIdentifier = 0;
    std::string_view mName;
    std::uint8_t mMidiNote = 0;
    std::uint8_t mAccentedMidiNote = 0;
    std::uint8_t mVelocity = 0;
    std::uint8_t mAccentedVelocity = 0;
};

} // namespace vell
