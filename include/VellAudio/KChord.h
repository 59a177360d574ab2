// Chords of the music model: a spelled root, a quality and an optional bass note ("Am7",
// "F#maj7", "Bb/D"), with parsing, printing and transposition.
#pragma once

#include <VellAudio/Error.h>
#include <VellAudio/KPitch.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vell {

enum class KChordQuality : std::uint8_t {
    major = 0,           // ""
    minor = 1,           // "m"
    dominant7 = 2,       // "7"
    major7 = 3,          // "maj7"
    minor7 = 4,          // "m7"
    diminished = 5,      // "dim"
    diminished7 = 6,     // "dim7"
    halfDiminished7 = 7, // "m7b5"
    augmented = 8,       // "aug"
    suspended2 = 9,      // "sus2"
    suspended4 = 10,     // "sus4"
    dominant7sus4 = 11,  // "7sus4"
    major6 = 12,         // "6"
    minor6 = 13,         // "m6"
    dominant9 = 14,      // "9"
    major9 = 15,         // "maj9"
    minor9 = 16,         // "m9"
    add9 = 17,           // "add9"
    power5 = 18,         // "5"
    minorMajor7 = 19,    // "mMaj7"
};

class KChord {
public:
    /// C major.
    KChord() = default;
    KChord(KNoteName root, KChordQuality quality, std::optional<KNoteName> bass = std::nullopt);

    /// Parses a chord name: root letter with accidentals ("#", "b"), a quality suffix (the
    /// printed ones above and common aliases: "min", "-", "M7", "maj", "+", "o", "sus"...)
    /// and an optional "/bass". Surrounding spaces are ignored. Anything else fails with an
    /// error that names the text and the part that was not understood.
    static std::optional<KChord> chordWithName(std::string_view name, Error* outError = nullptr);

    const KNoteName& root() const noexcept { return mRoot; }
    KChordQuality quality() const noexcept { return mQuality; }
    const std::optional<KNoteName>& bass() const noexcept { return mBass; }

    /// The printed name: root, canonical suffix, "/bass" ("Am7", "F#maj7", "Bb/D").
    std::string name() const;
    /// The canonical suffix of a quality ("" for major, "m7" for minor7).
    static std::string_view suffixForQuality(KChordQuality quality);

    /// Whether the chord has a minor third (minor, m7, m6, m9, dim, dim7, m7b5, mMaj7).
    bool isMinor() const noexcept;
    /// Semitones of the chord tones above the root, ascending, starting with 0.
    std::vector<int> intervals() const;
    /// Pitch classes of the chord tones (root first), without the bass note.
    std::vector<int> pitchClasses() const;
    /// A close voicing with the root in rootOctave (scientific octave; 3 puts A at A3), the
    /// bass note (if any) below it. Notes outside 0...127 are left out.
    std::vector<KPitch> pitches(int rootOctave = 3) const;

    /// The chord moved by semitones. Spelling: a root written with sharps keeps sharps, with
    /// flats keeps flats; a natural root takes the usual name of its new pitch class (Db, Eb,
    /// F#, Ab, Bb for major-type chords; C#, Eb, F#, G#, Bb for minor-type ones). The bass
    /// follows the root's accidental. A multiple of 12 returns the chord unchanged.
    KChord transposed(int semitones) const;

    /// Same spelling, quality and bass.
    friend bool operator==(const KChord&, const KChord&) = default;
    /// Same sounding chord whatever the spelling ("A#m" and "Bbm").
    bool isEnharmonicTo(const KChord& other) const noexcept;

private:
    KNoteName mRoot{'C', 0};
    KChordQuality mQuality = KChordQuality::major;
    std::optional<KNoteName> mBass;
};

} // namespace vell
