// vell strum: strums a chord across a guitar's six strings, live or into a WAVE file.
#include "Command.h"
#include "Options.h"
#include "Pitches.h"

#include <VellAudio/GuitarVoicing.h>
#include <VellAudio/KChord.h>

#include <cstdio>

namespace vell::tool {
namespace {

struct StrumArguments {
    std::string name;
    SoundOptions sound;
};

int runStrum(const StrumArguments& args)
{
    checkSoundOptions(args.sound);
    Error error;
    const std::optional<KChord> chord = KChord::chordWithName(args.name, &error);
    if (!chord) {
        return failWith(args.name, error);
    }
    const std::vector<KPitch> strings = guitarVoicing(*chord);
    std::string names;
    for (const KPitch& pitch : strings) {
        names +=
            " " + pitch.name(chord->root().accidental() < 0 ? KSpelling::flats : KSpelling::sharps);
    }
    std::printf("%s:%s\n", chord->name().c_str(), names.c_str());
    std::fflush(stdout);
    sound(args.sound, {[strings](MIDIOutputUnit& unit) { unit.strumNotes(strings); },
                       args.sound.output.seconds});
    return kExitSuccess;
}

CommandRunner defineStrum(CLI::App& command)
{
    auto args = std::make_shared<StrumArguments>();
    command.add_option("CHORD", args->name, "the chord: Am7, F#maj7, Bb/D")->required();
    addSoundOptions(command, args->sound);
    return [args] { return runStrum(*args); };
}

} // namespace

VELL_COMMAND({"strum", "vell strum CHORD [-o OUT.wav]",
              "strum a chord on the guitar sampler, lowest string first, until it rings out",
              defineStrum});

} // namespace vell::tool
