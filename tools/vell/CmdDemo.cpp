// vell demo: the built-in demo song and its practice document: write, export or play them.
#include "Command.h"
#include "Export.h"
#include "Options.h"
#include "Playback.h"
#include "PlaybackOptions.h"
#include "PreparedSong.h"

#include <VellAudio/VellDemoSong.h>

#include <cstdio>
#include <filesystem>

namespace vell::tool {
namespace {

struct DemoArguments {
    std::optional<std::string> directory; // --write
    std::optional<std::string> out;       // -o
    PlaybackOptions playback;
    OutputOptions output;
};

/// Where `s` saves the demo's document while it plays.
constexpr const char* kDemoSavePath = "demo.vell.json";

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
    if (args.out) {
        PreparedSong demo = prepareDemo(song);
        exportSong(demo, *args.out, std::nullopt);
        return kExitSuccess;
    }
    checkPlaybackOptions(args.playback);
    PlaySource source;
    source.name = "demo";
    source.file =
        BRIXExtendedAudioFile::createWithSamples({song.left(), song.right()}, song.sampleRate());
    auto document = std::make_shared<VellPracticeDocument>();
    Error error;
    if (!source.file || !document->readFromJSONData(song.document().JSONData(), &error)) {
        throw Failure("the demo song could not be made");
    }
    source.document = SongDocument{std::move(document), kDemoSavePath, DocumentOrigin::doc, {}};
    playSong(std::move(source), args.playback, args.output);
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
    addPlaybackOptions(command, args->playback, PlaybackUse::play);
    addOutputOptions(command, args->output);
    for (CLI::Option* playOnly : {command.get_option("--for"), command.get_option("--device")}) {
        playOnly->excludes(write)->excludes(out);
    }
    return [args] { return runDemo(*args); };
}

} // namespace

VELL_COMMAND({"demo",
              "vell demo [--write DIR | -o OUT] [options of play] [--for S] [--device NAME|null]",
              "the built-in demo song: write it with its document, export it at half speed with "
              "the metronome and the lead's notes, or play it as vell play does",
              defineDemo});

} // namespace vell::tool
