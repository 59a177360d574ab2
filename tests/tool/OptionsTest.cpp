// The vell tool's option parsing: times, isolation settings, sizes and the playback options.
#include "Options.h"
#include "PlaybackOptions.h"

#include <gtest/gtest.h>

using namespace vell::tool;

TEST(OptionsTest, ParsesTimes)
{
    EXPECT_EQ(parseTime("12.5"), 12.5);
    EXPECT_EQ(parseTime("0"), 0.0);
    EXPECT_EQ(parseTime("1:02"), 62.0);
    EXPECT_EQ(parseTime("10:00.25"), 600.25);
    for (const char* bad :
         {"", "-1", "1:60", "1:-2", "a:10", "1:2:3", "1.5:10", "nan", "inf", "12s"}) {
        SCOPED_TRACE(bad);
        EXPECT_FALSE(parseTime(bad));
    }
}

TEST(OptionsTest, ParsesIsolationAndSize)
{
    const auto all = parseIsolation("pan=0.1,width=0.2,low=500,high=2000,mute");
    EXPECT_EQ(all.pan, 0.1);
    EXPECT_EQ(all.width, 0.2);
    EXPECT_EQ(all.lowHz, 500.0);
    EXPECT_EQ(all.highHz, 2000.0);
    EXPECT_TRUE(all.mute);

    const auto some = parseIsolation("pan=0");
    EXPECT_EQ(some.pan, 0.0);
    EXPECT_FALSE(some.width);
    EXPECT_FALSE(some.mute);

    for (const char* bad :
         {"", "pan=2", "width=-1", "pan", "volume=3", "low=2000,high=500", "pan=0.5,,"}) {
        SCOPED_TRACE(bad);
        EXPECT_THROW(parseIsolation(bad), UsageError);
    }

    const auto size = parseSize("1200x400");
    EXPECT_EQ(size.width, 1200);
    EXPECT_EQ(size.height, 400);
    for (const char* bad : {"1200", "x400", "10x10", "1200x400.5", "axb", "99999x100"}) {
        SCOPED_TRACE(bad);
        EXPECT_THROW(parseSize(bad), UsageError);
    }
}

namespace {

struct Parsed {
    PlaybackOptions options;
    std::optional<std::string> error; // the parser's message when it refused the line
};

Parsed parsePlayback(std::vector<std::string> args, PlaybackUse use = PlaybackUse::play)
{
    Parsed parsed;
    CLI::App app;
    addPlaybackOptions(app, parsed.options, use);
    args.insert(args.begin(), "vell");
    std::vector<const char*> argv;
    for (const std::string& arg : args) {
        argv.push_back(arg.c_str());
    }
    try {
        app.parse(static_cast<int>(argv.size()), argv.data());
    } catch (const CLI::ParseError& error) {
        parsed.error = error.what();
    }
    return parsed;
}

} // namespace

TEST(PlaybackOptionsTest, ParsesEveryOption)
{
    const Parsed parsed = parsePlayback(
        {"--speed",     "-0.5",    "--semitones", "-12",        "--cents",      "-50",
         "--quality",   "Low",     "--bpm",       "96",         "--first-beat", "0:01.5",
         "--metronome", "--notes", "--isolate",   "pan=0,mute", "--volume",     "1.5",
         "--from",      "1:00",    "--to",        "75",         "--loop",       "3"});
    ASSERT_FALSE(parsed.error) << *parsed.error;
    const PlaybackOptions& options = parsed.options;
    EXPECT_EQ(options.speed, -0.5);
    EXPECT_EQ(options.semitones, -12);
    EXPECT_EQ(options.cents, -50);
    EXPECT_EQ(options.quality, StretchQuality::low);
    EXPECT_EQ(options.bpm, 96.0);
    EXPECT_EQ(options.firstBeat, 1.5);
    EXPECT_TRUE(options.metronome && options.notes);
    ASSERT_TRUE(options.isolation);
    EXPECT_EQ(options.isolation->pan, 0.0);
    EXPECT_TRUE(options.isolation->mute);
    EXPECT_EQ(options.volume, 1.5);
    EXPECT_EQ(options.from, 60.0);
    EXPECT_EQ(options.to, 75.0);
    EXPECT_EQ(options.loop, 3);
    EXPECT_NO_THROW(checkPlaybackOptions(options));

    const Parsed defaults = parsePlayback({});
    ASSERT_FALSE(defaults.error);
    EXPECT_EQ(defaults.options.speed, 1.0);
    EXPECT_EQ(defaults.options.quality, StretchQuality::best);
    EXPECT_FALSE(defaults.options.document || defaults.options.bpm || defaults.options.loop);

    for (const std::vector<std::string>& edge : {std::vector<std::string>{"--speed", "8"},
                                                 {"--speed", "-0.125"},
                                                 {"--semitones", "-24"},
                                                 {"--cents", "1200"},
                                                 {"--volume", "0"},
                                                 {"--doc", "song.vell.json"}}) {
        SCOPED_TRACE(edge[0] + " " + edge[1]);
        EXPECT_FALSE(parsePlayback(edge).error);
    }
}

TEST(PlaybackOptionsTest, RefusesValuesOutsideTheLimitsAndConflicts)
{
    for (const std::vector<std::string>& bad : {std::vector<std::string>{"--speed", "0"},
                                                {"--speed", "0.1"},
                                                {"--speed", "-9"},
                                                {"--speed", "fast"},
                                                {"--semitones", "25"},
                                                {"--semitones", "1.5"},
                                                {"--cents", "1300"},
                                                {"--quality", "great"},
                                                {"--loop", "0"},
                                                {"--volume", "2.5"},
                                                {"--from", "-1"},
                                                {"--to", "1:75"},
                                                {"--isolate", "pan=2"},
                                                {"--first-beat", "2"},
                                                {"--doc", "d.json", "--bpm", "96"},
                                                {"--bpm", "0"}}) {
        SCOPED_TRACE(bad[0] + " " + bad[1]);
        EXPECT_TRUE(parsePlayback(bad).error);
    }
    // Exporting ignores the music level, so it does not take the option.
    EXPECT_TRUE(parsePlayback({"--volume", "1"}, PlaybackUse::exportFile).error);

    PlaybackOptions range;
    range.from = 5;
    EXPECT_NO_THROW(checkPlaybackOptions(range));
    range.to = 5;
    EXPECT_THROW(checkPlaybackOptions(range), UsageError);
    range.to = 4;
    EXPECT_THROW(checkPlaybackOptions(range), UsageError);
}
