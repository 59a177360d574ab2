// Fuzz target: pitch names ("C#4", "Bb-1").
//
// Invariants: a name that parses gives a MIDI note 0...127 whose printed names, with sharps and
// with flats, parse back to the same note; its pitch class is the spelled note's.
#include "FuzzSupport.h"
#include "FuzzTarget.h"

#include <VellAudio/KPitch.h>

#include <string>

VELL_FUZZ_TARGET(KPitch)
{
    const std::string_view text = vell::fuzz::asText(data, size);
    vell::Error error;
    const auto pitch = vell::KPitch::pitchWithName(text, &error);
    if (!pitch) {
        VELL_FUZZ_CHECK(!error.localizedDescription().empty());
        return 0;
    }
    VELL_FUZZ_CHECK(pitch->midiNote() <= 127);
    const auto spelled = vell::KNoteName::parsePrefix(text);
    VELL_FUZZ_REQUIRE(spelled.has_value());
    VELL_FUZZ_CHECK(spelled->first.pitchClass() == pitch->pitchClass());
    for (const auto spelling : {vell::KSpelling::sharps, vell::KSpelling::flats}) {
        const std::string name = pitch->name(spelling);
        const auto again = vell::KPitch::pitchWithName(name);
        VELL_FUZZ_CHECK(again && *again == *pitch);
        VELL_FUZZ_CHECK(again && again->name(spelling) == name);
    }
    VELL_FUZZ_CHECK(pitch->frequency() > 8.0 && pitch->frequency() < 12544.0);
    return 0;
}
