// Pitches and spelled note names of the music model: MIDI notes named like "C#4" (A4 = 69).
#pragma once

#include <VellAudio/Error.h>

#include <compare>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace vell {

/// Which accidental a pitch class without a natural name is spelled with.
enum class KSpelling : std::uint8_t { sharps = 0, flats = 1 };

/// A spelled pitch class: a letter and an accidental (-2 double flat ... +2 double sharp).
/// "Bb" and "A#" are different names of the same pitch class.
class KNoteName {
public:
    constexpr KNoteName() = default;
    /// letter is 'A'...'G'; accidental is clamped to -2...2.
    constexpr KNoteName(char letter, int accidental)
        : mLetter(letter >= 'A' && letter <= 'G' ? letter : 'C'),
          mAccidental(static_cast<std::int8_t>(accidental < -2  ? -2
                                               : accidental > 2 ? 2
                                                                : accidental))
    {
    }

    /// The natural name, or the sharp or flat name, of a pitch class (any integer, taken mod 12).
    static KNoteName nameForPitchClass(int pitchClass, KSpelling spelling);

    /// Reads a note name at the start of text ("C", "f#", "Bb", "Ebb", "C##"): the name and
    /// how many characters it took, or nothing when text does not start with one.
    static std::optional<std::pair<KNoteName, std::size_t>> parsePrefix(std::string_view text);

    char letter() const noexcept { return mLetter; }
    int accidental() const noexcept { return mAccidental; }
    /// 0 (C) ... 11 (B).
    int pitchClass() const noexcept;
    /// "C", "F#", "Bb", "Ebb", "C##".
    std::string text() const;

    friend bool operator==(const KNoteName&, const KNoteName&) = default;

private:
    char mLetter = 'C';
    std::int8_t mAccidental = 0;
};

/// A pitch: a MIDI note number 0...127 (middle C = C4 = 60, A4 = 69 = 440 Hz).
class KPitch {
public:
    constexpr KPitch() = default;
    /// Out-of-range notes are clamped to 0...127.
    constexpr explicit KPitch(int midiNote)
        : mMidiNote(static_cast<std::uint8_t>(midiNote < 0     ? 0
                                              : midiNote > 127 ? 127
                                                               : midiNote))
    {
    }

    static constexpr KPitch pitchWithMidiNote(int midiNote) { return KPitch(midiNote); }

    /// Parses "C4", "C#4", "Db4", "a3", "Bb-1", "B#3" (= C4). Unknown text or a note outside
    /// 0...127 fails with an error naming the text.
    static std::optional<KPitch> pitchWithName(std::string_view name, Error* outError = nullptr);

    std::uint8_t midiNote() const noexcept { return mMidiNote; }
    /// 0 (C) ... 11 (B).
    int pitchClass() const noexcept { return mMidiNote % 12; }
    /// Scientific octave: C4 is middle C, so MIDI 0 is in octave -1.
    int octave() const noexcept { return mMidiNote / 12 - 1; }
    /// Equal-tempered frequency with A4 = 440 Hz.
    double frequency() const noexcept;
    /// "C#4" (or "Db4" with flats).
    std::string name(KSpelling spelling = KSpelling::sharps) const;
    /// The pitch semitones away, or nothing when it leaves 0...127.
    std::optional<KPitch> transposed(int semitones) const;

    friend constexpr auto operator<=>(const KPitch&, const KPitch&) = default;

private:
    std::uint8_t mMidiNote = 60;
};

} // namespace vell
