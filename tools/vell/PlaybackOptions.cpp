// The options that say how a song is played or exported, shared by vell export and vell play.
#include "PlaybackOptions.h"

#include <cmath>
#include <map>

namespace vell::tool {
namespace {

// The player's limits, repeated so that parsing needs nothing from the engine.
constexpr double kMinimumSpeed = 0.125;
constexpr double kMaximumSpeed = 8;
constexpr long long kMaximumSemitones = 24;
constexpr double kMaximumCents = 1200;
constexpr long long kMaximumCountInBars = 64;

CLI::Validator speedCheck()
{
    return CLI::Validator(
        [](std::string& text) -> std::string {
            const auto speed = parseNumber(text);
            if (!speed) {
                return "needs a number, not \"" + text + "\"";
            }
            if (*speed == 0) {
                return "cannot be 0 (a negative speed plays backwards)";
            }
            if (std::abs(*speed) < kMinimumSpeed || std::abs(*speed) > kMaximumSpeed) {
                return "must be from 0.125 to 8, or -0.125 to -8 to play backwards, not " + text;
            }
            return {};
        },
        "");
}

} // namespace

void addPlaybackOptions(CLI::App& command, PlaybackOptions& options, PlaybackUse use)
{
    const std::string group = "Playback";
    auto grouped = [&](CLI::Option* option) { return option->group(group); };

    grouped(
        command.add_option(
            "--speed", options.speed,
            "file seconds per second: 0.125 to 8 (0.5 is half speed); negative plays backwards"))
        ->type_name("X")
        ->check(speedCheck());
    grouped(
        command.add_option("--semitones", options.semitones, "transpose by N semitones, -24 to 24"))
        ->type_name("N")
        ->check(wholeNumberIn(-kMaximumSemitones, kMaximumSemitones));
    grouped(command.add_option("--cents", options.cents, "fine pitch in cents, -1200 to 1200"))
        ->type_name("C")
        ->check(CLI::Range(-kMaximumCents, kMaximumCents).description(""));
    const std::map<std::string, StretchQuality> qualities = {{"best", StretchQuality::best},
                                                             {"good", StretchQuality::good},
                                                             {"low", StretchQuality::low}};
    grouped(command.add_option("--quality", options.quality,
                               "the time-stretcher's level (default best)"))
        ->type_name("best|good|low")
        ->transform(CLI::CheckedTransformer(qualities, CLI::ignore_case).description(""));

    CLI::Option* doc = grouped(addParsedOption<std::string>(
        command, "--doc", options.document, [](std::string_view text) { return std::string(text); },
        "the practice document (beats, notes) to use; by default FILE.vell.json beside the song"));
    doc->type_name("DOC.json");
    CLI::Option* bpm = grouped(addParsedOption<double>(
        command, "--bpm", options.bpm, [](std::string_view text) { return *parseNumber(text); },
        "a 4/4 beat grid at B beats per minute (not with --doc)"));
    bpm->type_name("B")->check(CLI::Range(10.0, 1000.0).description(""))->excludes(doc);
    grouped(addTimeOption(command, "--first-beat", options.firstBeat,
                          "where the --bpm grid's first beat falls (default 0)"))
        ->needs(bpm);
    grouped(command.add_flag("--metronome", options.metronome, "click on the beats"));
    grouped(addParsedOption<long long>(
                command, "--count-in", options.countIn,
                [](std::string_view text) { return std::llround(*parseNumber(text)); },
                "count in N bars of the song's beats before the music (turns on --metronome)"))
        ->type_name("BARS")
        ->check(wholeNumberIn(1, kMaximumCountInBars));
    grouped(command.add_flag("--notes", options.notes, "play the document's notes"));
    grouped(addIsolationOption(command, options.isolation));
    if (use == PlaybackUse::play) {
        grouped(addParsedOption<double>(
                    command, "--volume", options.volume,
                    [](std::string_view text) { return *parseNumber(text); },
                    "the music's level as a linear gain, 0 to 2 (default 1)"))
            ->type_name("V")
            ->check(CLI::Range(0.0, 2.0).description(""));
    }
    grouped(addTimeOption(command, "--from", options.from, "start of the range (default 0)"));
    grouped(addTimeOption(command, "--to", options.to, "end of the range (default the end)"));
    grouped(addParsedOption<long long>(
                command, "--loop", options.loop,
                [](std::string_view text) { return std::llround(*parseNumber(text)); },
                use == PlaybackUse::play ? "loop the range until stopped (N at least 1)"
                                         : "render the range N times through the loop"))
        ->type_name("N")
        ->check(wholeNumberIn(1, 10000));
}

void checkPlaybackOptions(const PlaybackOptions& options)
{
    if (options.from && options.to && *options.from >= *options.to) {
        throw UsageError("--from must come before --to");
    }
    if (options.countIn && options.speed < 0) {
        throw UsageError("--count-in plays forwards only (the speed is negative)");
    }
}

} // namespace vell::tool
