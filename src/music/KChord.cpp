// Chords: suffix table, parsing and printing, chord tones and spelled transposition; keys.
#include "VellAudio/KChord.h"
#include "VellAudio/KKey.h"

#include "music/MusicError.h"
#include "support/Format.h"

#include <algorithm>
#include <array>

namespace vell {

namespace {

struct QualityInfo {
    KChordQuality quality;
    std::string_view suffix;                 // printed
    std::array<std::string_view, 4> aliases; // also read
    std::array<int, 5> intervals;            // -1 ends the list
};

// Parsing tries every suffix and alias for an exact match of the text between root and "/".
constexpr std::array<QualityInfo, 20> kQualities = {{
    {KChordQuality::major, "", {"maj", "M", "", ""}, {0, 4, 7, -1, -1}},
    {KChordQuality::minor, "m", {"min", "-", "mi", ""}, {0, 3, 7, -1, -1}},
    {KChordQuality::dominant7, "7", {"dom7", "", "", ""}, {0, 4, 7, 10, -1}},
    {KChordQuality::major7, "maj7", {"M7", "Maj7", "ma7", "j7"}, {0, 4, 7, 11, -1}},
    {KChordQuality::minor7, "m7", {"min7", "-7", "mi7", ""}, {0, 3, 7, 10, -1}},
    {KChordQuality::diminished, "dim", {"o", "dim5", "", ""}, {0, 3, 6, -1, -1}},
    {KChordQuality::diminished7, "dim7", {"o7", "", "", ""}, {0, 3, 6, 9, -1}},
    {KChordQuality::halfDiminished7, "m7b5", {"m7-5", "min7b5", "-7b5", ""}, {0, 3, 6, 10, -1}},
    {KChordQuality::augmented, "aug", {"+", "#5", "+5", ""}, {0, 4, 8, -1, -1}},
    {KChordQuality::suspended2, "sus2", {"", "", "", ""}, {0, 2, 7, -1, -1}},
    {KChordQuality::suspended4, "sus4", {"sus", "", "", ""}, {0, 5, 7, -1, -1}},
    {KChordQuality::dominant7sus4, "7sus4", {"7sus", "", "", ""}, {0, 5, 7, 10, -1}},
    {KChordQuality::major6, "6", {"maj6", "M6", "", ""}, {0, 4, 7, 9, -1}},
    {KChordQuality::minor6, "m6", {"min6", "-6", "", ""}, {0, 3, 7, 9, -1}},
    {KChordQuality::dominant9, "9", {"", "", "", ""}, {0, 4, 7, 10, 14}},
    {KChordQuality::major9, "maj9", {"M9", "Maj9", "", ""}, {0, 4, 7, 11, 14}},
    {KChordQuality::minor9, "m9", {"min9", "-9", "", ""}, {0, 3, 7, 10, 14}},
    {KChordQuality::add9, "add9", {"add2", "", "", ""}, {0, 4, 7, 14, -1}},
    {KChordQuality::power5, "5", {"", "", "", ""}, {0, 7, -1, -1, -1}},
    {KChordQuality::minorMajor7,
     "mMaj7",
     {"m(maj7)", "mM7", "minMaj7", "-maj7"},
     {0, 3, 7, 11, -1}},
}};

const QualityInfo& infoFor(KChordQuality quality)
{
    for (const auto& info : kQualities) {
        if (info.quality == quality) {
            return info;
        }
    }
    return kQualities[0];
}

std::optional<KChordQuality> qualityForSuffix(std::string_view suffix)
{
    for (const auto& info : kQualities) {
        if (info.suffix == suffix) {
            return info.quality;
        }
    }
    for (const auto& info : kQualities) {
        for (const auto alias : info.aliases) {
            if (!alias.empty() && alias == suffix) {
                return info.quality;
            }
        }
    }
    return std::nullopt;
}

std::string_view trim(std::string_view text)
{
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) {
        text.remove_prefix(1);
    }
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) {
        text.remove_suffix(1);
    }
    return text;
}

// The usual names of the twelve roots when nothing else decides: major-type chords and keys
// read C Db D Eb E F F# G Ab A Bb B, minor-type ones C C# D Eb E F F# G G# A Bb B.
constexpr KSpelling kMajorSpelling[12] = {KSpelling::sharps, KSpelling::flats,  KSpelling::sharps,
                                          KSpelling::flats,  KSpelling::sharps, KSpelling::flats,
                                          KSpelling::sharps, KSpelling::sharps, KSpelling::flats,
                                          KSpelling::sharps, KSpelling::flats,  KSpelling::sharps};
constexpr KSpelling kMinorSpelling[12] = {KSpelling::sharps, KSpelling::sharps, KSpelling::sharps,
                                          KSpelling::flats,  KSpelling::sharps, KSpelling::flats,
                                          KSpelling::sharps, KSpelling::sharps, KSpelling::sharps,
                                          KSpelling::sharps, KSpelling::flats,  KSpelling::sharps};

int modulo12(int value) noexcept
{
    const int r = value % 12;
    return r < 0 ? r + 12 : r;
}

} // namespace

KChord::KChord(KNoteName root, KChordQuality quality, std::optional<KNoteName> bass)
    : mRoot(root), mQuality(quality), mBass(bass)
{
}

std::optional<KChord> KChord::chordWithName(std::string_view name, Error* outError)
{
    const std::string_view text = trim(name);
    const auto fail = [&](const std::string& why) -> std::optional<KChord> {
        assignError(outError, detail::makeMusicError(format("\"%s\" is not a chord name: %s",
                                                            std::string(text.substr(0, 64)).c_str(),
                                                            why.c_str())));
        return std::nullopt;
    };
    if (text.empty()) {
        return fail("it is empty");
    }
    const auto root = KNoteName::parsePrefix(text);
    if (!root || (text[0] >= 'a' && text[0] <= 'g')) {
        return fail("expected a root note A to G (with # or b)");
    }
    std::string_view rest = text.substr(root->second);
    std::optional<KNoteName> bass;
    if (const auto slash = rest.rfind('/'); slash != std::string_view::npos) {
        const std::string_view bassText = rest.substr(slash + 1);
        const auto bassNote = KNoteName::parsePrefix(bassText);
        if (!bassNote || bassNote->second != bassText.size()) {
            return fail(format("unknown bass note \"%s\" after \"/\"",
                               std::string(bassText.substr(0, 16)).c_str()));
        }
        bass = bassNote->first;
        rest = rest.substr(0, slash);
    }
    const auto quality = qualityForSuffix(rest);
    if (!quality) {
        return fail(
            format("unknown chord quality \"%s\"", std::string(rest.substr(0, 16)).c_str()));
    }
    return KChord(root->first, *quality, bass);
}

std::string_view KChord::suffixForQuality(KChordQuality quality)
{
    return infoFor(quality).suffix;
}

std::string KChord::name() const
{
    std::string text = mRoot.text();
    text += suffixForQuality(mQuality);
    if (mBass) {
        text += '/';
        text += mBass->text();
    }
    return text;
}

bool KChord::isMinor() const noexcept
{
    switch (mQuality) {
    case KChordQuality::minor:
    case KChordQuality::minor7:
    case KChordQuality::minor6:
    case KChordQuality::minor9:
    case KChordQuality::diminished:
    case KChordQuality::diminished7:
    case KChordQuality::halfDiminished7:
    case KChordQuality::minorMajor7:
        return true;
    default:
        return false;
    }
}

std::vector<int> KChord::intervals() const
{
    std::vector<int> result;
    for (const int interval : infoFor(mQuality).intervals) {
        if (interval >= 0) {
            result.push_back(interval);
        }
    }
    return result;
}

std::vector<int> KChord::pitchClasses() const
{
    std::vector<int> result;
    for (const int interval : intervals()) {
        result.push_back(modulo12(mRoot.pitchClass() + interval));
    }
    return result;
}

std::vector<KPitch> KChord::pitches(int rootOctave) const
{
    std::vector<KPitch> result;
    const int rootMidi = (rootOctave + 1) * 12 + mRoot.pitchClass();
    if (mBass) {
        // The bass sits in the octave below the root.
        int bassMidi = (rootOctave + 1) * 12 + mBass->pitchClass();
        while (bassMidi >= rootMidi) {
            bassMidi -= 12;
        }
        if (bassMidi >= 0 && bassMidi <= 127) {
            result.emplace_back(bassMidi);
        }
    }
    for (const int interval : intervals()) {
        const int midi = rootMidi + interval;
        if (midi >= 0 && midi <= 127) {
            result.emplace_back(midi);
        }
    }
    return result;
}

KChord KChord::transposed(int semitones) const
{
    if (modulo12(semitones) == 0) {
        return *this;
    }
    const int rootClass = modulo12(mRoot.pitchClass() + semitones);
    KSpelling spelling;
    if (mRoot.accidental() > 0) {
        spelling = KSpelling::sharps;
    } else if (mRoot.accidental() < 0) {
        spelling = KSpelling::flats;
    } else {
        spelling = (isMinor() ? kMinorSpelling : kMajorSpelling)[rootClass];
    }
    const KNoteName root = KNoteName::nameForPitchClass(rootClass, spelling);
    std::optional<KNoteName> bass;
    if (mBass) {
        KSpelling bassSpelling = spelling;
        // A natural new root says nothing about accidentals: keep the bass's own leaning.
        if (root.accidental() == 0 && mBass->accidental() != 0) {
            bassSpelling = mBass->accidental() > 0 ? KSpelling::sharps : KSpelling::flats;
        }
        bass = KNoteName::nameForPitchClass(mBass->pitchClass() + semitones, bassSpelling);
    }
    return KChord(root, mQuality, bass);
}

bool KChord::isEnharmonicTo(const KChord& other) const noexcept
{
    if (mQuality != other.mQuality || mRoot.pitchClass() != other.mRoot.pitchClass() ||
        mBass.has_value() != other.mBass.has_value()) {
        return false;
    }
    return !mBass || mBass->pitchClass() == other.mBass->pitchClass();
}

std::string KKey::name() const
{
    if (!mTonicChord) {
        return {};
    }
    return mTonicChord->root().text() + (isMinor() ? " minor" : " major");
}

KKey KKey::transposedKeyWithOffset(std::int8_t offset) const
{
    if (!mTonicChord) {
        return KKey();
    }
    return KKey(mTonicChord->transposed(offset));
}

} // namespace vell
