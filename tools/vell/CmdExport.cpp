// vell export: renders a song as it is heard (speed, pitch, isolation, metronome, notes) to a file.
#include "Command.h"
#include "Export.h"
#include "PlaybackOptions.h"
#include "PreparedSong.h"

namespace vell::tool {
namespace {

struct ExportArguments {
    std::string path;
    std::string out;
    PlaybackOptions playback;
};

int runExport(const ExportArguments& args)
{
    checkPlaybackOptions(args.playback);
    checkExportPath(args.out); // before anything is decoded
    PreparedSong song = prepareSong(args.path, args.playback);
    exportSong(song, args.out, args.playback.loop);
    return kExitSuccess;
}

CommandRunner defineExport(CLI::App& command)
{
    auto args = std::make_shared<ExportArguments>();
    command.add_option("FILE", args->path, "the song")->required();
    command.add_option("-o", args->out, "the file to write: .wav, .aif or .m4a (44.1 kHz stereo)")
        ->type_name("OUT")
        ->required();
    addPlaybackOptions(command, args->playback, PlaybackUse::exportFile);
    return [args] { return runExport(*args); };
}

} // namespace

VELL_COMMAND({"export", "vell export FILE -o OUT [--from T] [--to T] [options]",
              "render the processed audio to .wav, .aif or .m4a", defineExport});

} // namespace vell::tool
