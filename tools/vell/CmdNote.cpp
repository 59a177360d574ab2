// vell note: sounds one pitch on the guitar sampler, live or into a WAVE file.
#include "Command.h"
#include "Options.h"
#include "Pitches.h"

#include <VellAudio/KPitch.h>

#include <cstdio>

namespace vell::tool {
namespace {

/// How long a note is held when --for does not say.
constexpr double kDefaultHoldSeconds = 1.5;

struct NoteArguments {
    std::string name;
    SoundOptions sound;
};

int runNote(const NoteArguments& args)
{
    checkSoundOptions(args.sound);
    Error error;
    const std::optional<KPitch> pitch = KPitch::pitchWithName(args.name, &error);
    if (!pitch) {
        return failWith(args.name, error);
    }
    // Spelled as asked: Bb3 stays Bb3.
    const auto written = KNoteName::parsePrefix(args.name);
    const KSpelling spelling =
        written && written->first.accidental() < 0 ? KSpelling::flats : KSpelling::sharps;
    std::printf("%s: MIDI %d, %.2f Hz\n", pitch->name(spelling).c_str(), int(pitch->midiNote()),
                pitch->frequency());
    std::fflush(stdout);
    sound(args.sound, {[p = *pitch](MIDIOutputUnit& unit) { unit.playNote(p); },
                       args.sound.output.seconds.value_or(kDefaultHoldSeconds)});
    return kExitSuccess;
}

CommandRunner defineNote(CLI::App& command)
{
    auto args = std::make_shared<NoteArguments>();
    command.add_option("NAME", args->name, "the pitch: C4, F#3, Bb2 (A4 is 440 Hz)")->required();
    addSoundOptions(command, args->sound);
    return [args] { return runNote(*args); };
}

} // namespace

VELL_COMMAND({"note", "vell note NAME [--for S] [-o OUT.wav]",
              "sound one pitch on the guitar sampler (held 1.5 s unless --for says)", defineNote});

} // namespace vell::tool
