// vell freeze: holds the sound of a song at a moment, played until a key is pressed or rendered
// to a file.
#include "Command.h"
#include "Options.h"
#include "Playback.h"
#include "PreparedSong.h"
#include "Terminal.h"

#include <VellAudio/BRIXExtendedAudioFile.h>
#include <VellAudio/TessalyCore.h>
#include <VellAudio/VellAudioFreezer.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <thread>
#include <unistd.h>

namespace vell::tool {
namespace {

/// How long the held sound lasts without --seconds, when it cannot wait for a key.
constexpr double kDefaultSeconds = 5;
constexpr double kMaximumSemitones = 24;
constexpr auto kTick = std::chrono::milliseconds(20);

struct FreezeArguments {
    std::string path;
    std::optional<double> at;
    std::optional<double> seconds;
    std::optional<std::string> out;
    double semitones = 0;
    std::optional<IsolationOption> isolation;
    std::optional<std::string> device;
};

std::string printed(const char* format, double a, double b)
{
    char text[160];
    std::snprintf(text, sizeof text, format, a, b);
    return text;
}

/// Copies the --isolate settings into the freezer through an isolation engine of their own.
void isolate(VellAudioFreezer& freezer, const IsolationOption& option, double sampleRate)
{
    TessalyInstance* engine = TessalyCreate(static_cast<std::uint32_t>(sampleRate), 2, 1024);
    if (!engine) {
        throw Failure("cannot isolate audio at this sample rate");
    }
    applyIsolation(engine, option);
    freezer.takeSettingsFromTessalyInstance(engine);
    TessalyDestroy(engine);
}

/// Plays the held sound until a key, --seconds or a stop signal; returns the seconds held.
double hold(VellAudioFreezer& freezer, const FreezeArguments& args)
{
    KeyReader keys;
    std::optional<double> limit = args.seconds;
    if (!keys.isActive() && !limit) {
        limit = kDefaultSeconds;
    }
    if (!freezer.startPlayback()) {
        freezer.stopPlayback();
        throw Failure(args.path + ": the output device did not start");
    }
    if (isTerminal(STDOUT_FILENO)) {
        std::printf("holding %s at %.3f s%s\n", args.path.c_str(), *args.at,
                    keys.isActive() ? " (press a key to stop)" : "");
        std::fflush(stdout);
    }
    StopSignals stop;
    const auto start = std::chrono::steady_clock::now();
    auto held = [&] {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    };
    while (!stop.caught() && !(limit && held() >= *limit) && !keys.poll()) {
        std::this_thread::sleep_for(kTick);
    }
    freezer.stopPlayback();
    return held();
}

int runFreeze(const FreezeArguments& args)
{
    if (args.seconds && *args.seconds <= 0) {
        throw UsageError("--seconds must be more than 0");
    }
    Error error;
    std::shared_ptr<BRIXExtendedAudioFile> file = BRIXExtendedAudioFile::create(args.path, &error);
    if (!file) {
        return failWith(args.path, error);
    }
    const double rate = file->sampleRate();
    const auto frame = static_cast<Frame>(std::llround(*args.at * rate));
    if (frame >= file->frameCount()) {
        return fail(args.path + printed(": --at %.3f s lies past the end (%.3f s)", *args.at,
                                        file->duration()));
    }
    if (!args.out) {
        // Before the freezer is made: its engine takes the default output as it is then.
        chooseOutputDevice(args.device);
    }

    const std::unique_ptr<VellAudioFreezer> freezer = VellAudioFreezer::create(file, &error);
    if (!freezer) {
        return failWith(args.path, error);
    }
    if (args.isolation) {
        isolate(*freezer, *args.isolation, rate);
    }
    freezer->setPitchShift(static_cast<float>(args.semitones));
    if (!freezer->setFrozenAudioFrame(frame)) {
        // A window needs this much of the song from the frame on.
        const double needed = double(VellAudioFreezer::kFrozenBufferCapacity + 2) / rate;
        if (file->frameCount() < Frame(VellAudioFreezer::kFrozenBufferCapacity) + 2) {
            return fail(args.path + printed(": too short to freeze (%.3f s; it needs %.3f s)",
                                            file->duration(), needed));
        }
        return fail(args.path + printed(": --at %.3f s is too near the end to freeze (it needs "
                                        "%.3f s of the song from there)",
                                        *args.at, needed));
    }

    if (args.out) {
        const double seconds = args.seconds.value_or(kDefaultSeconds);
        if (!freezer->writeFrozenAudioToFile(*args.out, std::llround(seconds * rate), &error)) {
            return failWith(*args.out, error);
        }
        return kExitSuccess;
    }
    std::printf("held %.1f s\n", hold(*freezer, args));
    return kExitSuccess;
}

CommandRunner defineFreeze(CLI::App& command)
{
    auto args = std::make_shared<FreezeArguments>();
    command.add_option("FILE", args->path, "the song")->required();
    addTimeOption(command, "--at", args->at, "the moment to hold")->required();
    addTimeOption(command, "--seconds", args->seconds,
                  "how long to hold it (default: until a key is pressed, or 5 s when writing a "
                  "file or when standard input is not a terminal)")
        ->type_name("S");
    CLI::Option* out =
        command.add_option("-o", args->out, "render the held sound to a file instead of playing")
            ->type_name("OUT.wav")
            ->check(CLI::Validator(
                [](std::string& text) -> std::string {
                    const std::string extension = std::filesystem::path(text).extension().string();
                    return extension == ".wav" || extension == ".aif" || extension == ".aiff"
                               ? std::string()
                               : "must name a .wav or .aif file, not \"" + text + "\"";
                },
                ""));
    command.add_option("--semitones", args->semitones, "transpose by N semitones, -24 to 24")
        ->type_name("N")
        ->check(CLI::Range(-kMaximumSemitones, kMaximumSemitones).description(""));
    addIsolationOption(command, args->isolation);
    addParsedOption<std::string>(
        command, "--device", args->device, [](std::string_view text) { return std::string(text); },
        "the output device (a name or part of one); null plays in real time into nothing")
        ->type_name("NAME|null")
        ->excludes(out);
    return [args] { return runFreeze(*args); };
}

} // namespace

VELL_COMMAND({"freeze",
              "vell freeze FILE --at T [--seconds S] [-o OUT.wav] [--semitones N] "
              "[--isolate pan=P,width=W,low=HZ,high=HZ[,mute]] [--device NAME|null]",
              "hold the sound at a moment: play it until a key is pressed, or write it to a file",
              defineFreeze});

} // namespace vell::tool
