// Pitches and spelled note names: MIDI numbers, scientific names, parsing.
#include "VellAudio/KPitch.h"

#include "music/MusicError.h"
#include "support/Format.h"

#include <charconv>
#include <cmath>

namespace vell {

namespace {

// Pitch class of each natural letter, A...G.
constexpr int kNaturalPitchClass[7] = {9, 11, 0, 2, 4, 5, 7};

int naturalPitchClass(char letter) noexcept
{
    return kNaturalPitchClass[letter - 'A'];
}

int modulo12(int value) noexcept
{
    const int r = value % 12;
    return r < 0 ? r + 12 : r;
}

} // namespace

KNoteName KNoteName::nameForPitchClass(int pitchClass, KSpelling spelling)
{
    static constexpr const char kSharpNames[12][2] = {{'C', 0}, {'C', 1}, {'D', 0}, {'D', 1},
                                                      {'E', 0}, {'F', 0}, {'F', 1}, {'G', 0},
                                                      {'G', 1}, {'A', 0}, {'A', 1}, {'B', 0}};
    static constexpr const char kFlatNames[12][2] = {{'C', 0},  {'D', -1}, {'D', 0},  {'E', -1},
                                                     {'E', 0},  {'F', 0},  {'G', -1}, {'G', 0},
                                                     {'A', -1}, {'A', 0},  {'B', -1}, {'B', 0}};
    const auto& entry =
        (spelling == KSpelling::flats ? kFlatNames : kSharpNames)[modulo12(pitchClass)];
    return KNoteName(entry[0], entry[1]);
}

std::optional<std::pair<KNoteName, std::size_t>> KNoteName::parsePrefix(std::string_view text)
{
    if (text.empty()) {
        return std::nullopt;
    }
    char letter = text[0];
    if (letter >= 'a' && letter <= 'g') {
        letter = static_cast<char>(letter - 'a' + 'A');
    }
    if (letter < 'A' || letter > 'G') {
        return std::nullopt;
    }
    std::size_t used = 1;
    int accidental = 0;
    // Up to two accidentals of one kind: "C#b" reads as C# followed by "b".
    while (used < text.size() && used < 3 && (text[used] == '#' || text[used] == 'b') &&
           (used == 1 || text[used] == text[1])) {
        accidental += text[used] == '#' ? 1 : -1;
        ++used;
    }
    return std::pair{KNoteName(letter, accidental), used};
}

int KNoteName::pitchClass() const noexcept
{
    return modulo12(naturalPitchClass(mLetter) + mAccidental);
}

std::string KNoteName::text() const
{
    std::string text(1, mLetter);
    for (int i = 0; i < mAccidental; ++i) {
        text += '#';
    }
    for (int i = 0; i > mAccidental; --i) {
        text += 'b';
    }
    return text;
}

std::optional<KPitch> KPitch::pitchWithName(std::string_view name, Error* outError)
{
    const auto fail = [&](const char* why) -> std::optional<KPitch> {
        assignError(outError,
                    detail::makeMusicError(format("\"%s\" is not a pitch name: %s",
                                                  std::string(name.substr(0, 64)).c_str(), why)));
        return std::nullopt;
    };
    const auto note = KNoteName::parsePrefix(name);
    if (!note) {
        return fail("expected a note letter A to G, optionally with # or b, then an octave");
    }
    const std::string_view rest = name.substr(note->second);
    int octave = 0;
    const auto [end, ec] = std::from_chars(rest.data(), rest.data() + rest.size(), octave);
    if (rest.empty() || ec != std::errc() || end != rest.data() + rest.size()) {
        return fail("expected an octave number after the note (as in C#4)");
    }
    if (octave < -1 || octave > 9) {
        return fail("the octave must be between -1 and 9");
    }
    // Accidentals may cross the octave boundary: B#3 is C4, Cb4 is B3.
    const int midi =
        (octave + 1) * 12 + naturalPitchClass(note->first.letter()) + note->first.accidental();
    if (midi < 0 || midi > 127) {
        return fail("the pitch lies outside the MIDI range C-1 to G9");
    }
    return KPitch(midi);
}

double KPitch::frequency() const noexcept
{
    return 440.0 * std::exp2((static_cast<double>(mMidiNote) - 69.0) / 12.0);
}

std::string KPitch::name(KSpelling spelling) const
{
    return KNoteName::nameForPitchClass(pitchClass(), spelling).text() + std::to_string(octave());
}

std::optional<KPitch> KPitch::transposed(int semitones) const
{
    const long long midi = static_cast<long long>(mMidiNote) + semitones;
    if (midi < 0 || midi > 127) {
        return std::nullopt;
    }
    return KPitch(static_cast<int>(midi));
}

} // namespace vell
