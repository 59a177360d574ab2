// vell demo: the built-in demo song and its practice document.
#include "Command.h"

#include <VellAudio/VellDemoSong.h>

#include <cstdio>
#include <filesystem>

namespace vell::tool {
namespace {

constexpr const char* kAvailable = "use --write DIR to write demo.wav and demo.json";

int runDemo(const Arguments& args)
{
    args.rejectUnknown({});
    if (!args.positional().empty()) {
        throw UsageError("unexpected argument \"" + args.positional().front() + "\"");
    }
    if (args.value("-o")) {
        std::fprintf(stderr, "vell demo: exporting with -o is not available yet; %s\n", kAvailable);
        return kExitUsage;
    }
    const auto directory = args.value("--write");
    if (!directory) {
        std::fprintf(stderr, "vell demo: nothing to do (playing is not available yet); %s\n",
                     kAvailable);
        return kExitUsage;
    }

    const VellDemoSong song = VellDemoSong::make();
    Error error;
    if (!song.writeToDirectory(*directory, &error)) {
        return fail(error.localizedDescription());
    }
    const std::filesystem::path dir(*directory);
    std::printf(
        "wrote %s and %s: %.1f s, %.0f Hz stereo, 4/4 at %.0f BPM in A minor, lead on the left\n",
        (dir / VellDemoSong::kAudioFileName).c_str(),
        (dir / VellDemoSong::kDocumentFileName).c_str(),
        static_cast<double>(song.frameCount()) / song.sampleRate(), song.sampleRate(),
        VellDemoSong::kTempo);
    return kExitSuccess;
}

} // namespace

VELL_COMMAND({"demo",
              "vell demo --write DIR",
              "write the built-in demo song and its practice document",
              {"--write", "-o"},
              runDemo});

} // namespace vell::tool
