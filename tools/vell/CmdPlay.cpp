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
    Error error;
    std::shared_ptr<BRIXExtendedAudioFile> file = BRIXExtendedAudioFile::create(args.path, &error);
    if (!file) {
        throw Failure(describe(args.path, error));
    }
    SongDocument document = findSongDocument(args.path, *file, args.playback);
    playSong({args.path, std::move(file), std::move(document)}, args.playback, args.output);
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

VELL_COMMAND(
    {"play", "vell play FILE [options] [--for S] [--device NAME|null]",
     "play through the output device; on a terminal a full-screen practice view (? lists the "
     "keys)",
     definePlay});

} // namespace vell::tool
