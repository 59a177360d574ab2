// vell demo: the built-in demo song and its practice document: write, export or play them.
#include "Command.h"
#include "Export.h"
#include "Options.h"
#include "Playback.h"
#include "PreparedSong.h"

#include <VellAudio/VellDemoSong.h>

#include <cstdio>
#include <filesystem>

namespace vell::tool {
namespace {

struct DemoArguments {
    std::optional<std::string> directory; // --write
    std::optional<std::string> out;       // -o
    OutputOptions output;
};

int writeDemo(const VellDemoSong& song, const std::filesystem::path& dir)
{
    Error error;
    if (!song.writeToDirectory(dir, &error)) {
        return fail(error.localizedDescription());
    }
    std::printf(
        "wrote %s and %s: %.1f s, %.0f Hz stereo, 4/4 at %.0f BPM in A minor, lead on the left\n",
        (dir / VellDemoSong::kAudioFileName).c_str(),
        (dir / VellDemoSong::kDocumentFileName).c_str(),
        static_cast<double>(song.frameCount()) / song.sampleRate(), song.sampleRate(),
        VellDemoSong::kTempo);
    return kExitSuccess;
}

/// The demo at half speed with the metronome and the lead's notes: what it is there to show.
PreparedSong prepareDemo(const VellDemoSong& song)
{
    PlaybackOptions options;
    options.speed = 0.5;
    options.metronome = true;
    options.notes = true;
    std::shared_ptr<BRIXExtendedAudioFile> file =
        BRIXExtendedAudioFile::createWithSamples({song.left(), song.right()}, song.sampleRate());
    if (!file) {
        throw Failure("the demo song could not be made");
    }
    return prepareSong("demo", std::move(file), song.document().noteEntryStorage(), options);
}

int runDemo(const DemoArguments& args)
{
    if (args.out) {
        checkExportPath(*args.out);
    } else if (!args.directory) {
        chooseOutputDevice(args.output.device);
    }
    const VellDemoSong song = VellDemoSong::make();
    if (args.directory) {
        return writeDemo(song, *args.directory);
    }
    PreparedSong demo = prepareDemo(song);
    if (args.out) {
        exportSong(demo, *args.out, std::nullopt);
    } else {
        playSong(demo, args.output, false);
    }
    return kExitSuccess;
}

CommandRunner defineDemo(CLI::App& command)
{
    auto args = std::make_shared<DemoArguments>();
    auto text = [](std::string_view value) { return std::string(value); };
    CLI::Option* write = addParsedOption<std::string>(
        command, "--write", args->directory, text,
        "write the song (demo.wav) and its practice document (demo.json) into DIR");
    write->type_name("DIR");
    CLI::Option* out = addParsedOption<std::string>(
        command, "-o", args->out, text,
        "render it at half speed with the metronome and the lead's notes to OUT (.wav, .aif, "
        ".m4a)");
    out->type_name("OUT")->excludes(write);
    addOutputOptions(command, args->output);
    for (CLI::Option* playOnly : {command.get_option("--for"), command.get_option("--device")}) {
        playOnly->excludes(write)->excludes(out);
    }
    return [args] { return runDemo(*args); };
}

} // namespace

VELL_COMMAND({"demo", "vell demo [--write DIR | -o OUT] [--for S] [--device NAME|null]",
              "the built-in demo song: write it with its document, export it, or play it at half "
              "speed with the metronome and the lead's notes",
              defineDemo});

} // namespace vell::tool
