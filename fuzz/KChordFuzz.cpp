// Fuzz target: chord names and the note names they start with.
//
// Invariants: a chord that parses prints a name that parses back to the same chord (and prints
// the same again); transposing by an octave changes nothing, and there and back again gives the
// same sounding chord; the chord's tones are its intervals above the root. A note-name prefix
// takes one to three characters and reads back from its own text.
#include "FuzzSupport.h"
#include "FuzzTarget.h"

#include <VellAudio/KChord.h>

#include <string>

namespace {

using vell::KChord;
using vell::KNoteName;

void checkNoteNamePrefix(std::string_view text)
{
    const auto prefix = KNoteName::parsePrefix(text);
    if (!prefix) {
        return;
    }
    const auto& [name, used] = *prefix;
    VELL_FUZZ_CHECK(used >= 1 && used <= 3 && used <= text.size());
    VELL_FUZZ_CHECK(name.pitchClass() >= 0 && name.pitchClass() < 12);
    const std::string printed = name.text();
    const auto again = KNoteName::parsePrefix(printed);
    VELL_FUZZ_CHECK(again && again->first == name && again->second == printed.size());
}

int checkChord(const KChord& chord)
{
    const std::string name = chord.name();
    vell::Error error;
    const auto parsed = KChord::chordWithName(name, &error);
    VELL_FUZZ_REQUIRE(parsed.has_value());
    VELL_FUZZ_CHECK(*parsed == chord);
    VELL_FUZZ_CHECK(parsed->name() == name);
    VELL_FUZZ_CHECK(chord.isEnharmonicTo(*parsed));

    const auto intervals = chord.intervals();
    const auto classes = chord.pitchClasses();
    VELL_FUZZ_REQUIRE(!intervals.empty() && intervals.size() == classes.size());
    VELL_FUZZ_CHECK(intervals.front() == 0 && classes.front() == chord.root().pitchClass());
    for (std::size_t i = 0; i < intervals.size(); ++i) {
        VELL_FUZZ_CHECK((chord.root().pitchClass() + intervals[i]) % 12 == classes[i]);
    }
    for (const auto& pitch : chord.pitches(3)) {
        VELL_FUZZ_CHECK(pitch.midiNote() <= 127);
    }

    VELL_FUZZ_CHECK(chord.transposed(12) == chord && chord.transposed(-24) == chord);
    for (int semitones = 1; semitones < 12; ++semitones) {
        const KChord moved = chord.transposed(semitones);
        VELL_FUZZ_CHECK(moved.quality() == chord.quality());
        VELL_FUZZ_CHECK(moved.root().pitchClass() == (chord.root().pitchClass() + semitones) % 12);
        VELL_FUZZ_CHECK(moved.bass().has_value() == chord.bass().has_value());
        VELL_FUZZ_CHECK(moved.transposed(-semitones).isEnharmonicTo(chord));
        const auto movedParsed = KChord::chordWithName(moved.name());
        VELL_FUZZ_CHECK(movedParsed && *movedParsed == moved);
    }
    return 0;
}

} // namespace

VELL_FUZZ_TARGET(KChord)
{
    const std::string_view text = vell::fuzz::asText(data, size);
    checkNoteNamePrefix(text);

    vell::Error error;
    const auto chord = KChord::chordWithName(text, &error);
    if (!chord) {
        VELL_FUZZ_CHECK(!error.localizedDescription().empty());
        return 0;
    }
    checkChord(*chord);
    return 0;
}
