// vell play: plays a song through an output device with a live status line and keys.
#include "Command.h"
#include "Playback.h"
#include "PlaybackOptions.h"
#include "PreparedSong.h"

namespace vell::tool {
namespace {

struct PlayArguments {
    std::string path;
    PlaybackOptions playback;
    OutputOptions output;
};

int runPlay(const PlayArguments& args)
{
    checkPlaybackOptions(args.playback);
    chooseOutputDevice(args.output.device);
    PreparedSong song = prepareSong(args.path, args.playback);
    playSong(song, args.output, args.playback.loop.has_value());
    return kExitSuccess;
}

CommandRunner definePlay(CLI::App& command)
{
    auto args = std::make_shared<PlayArguments>();
    command.add_option("FILE", args->path, "the song")->required();
    addPlaybackOptions(command, args->playback, PlaybackUse::play);
    addOutputOptions(command, args->output);
    return [args] { return runPlay(*args); };
}

} // namespace

VELL_COMMAND({"play", "vell play FILE [options] [--for S] [--device NAME|null]",
              "play through the output device with a live status line (space pauses, q quits)",
              definePlay});

} // namespace vell::tool
