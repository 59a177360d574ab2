// The vell tool's command-line parsing: options, times, isolation settings, sizes.
#include "Command.h"
#include "Options.h"

#include <gtest/gtest.h>

using namespace vell::tool;

TEST(ArgumentsTest, SeparatesOptionsValuesAndPositionals)
{
    const Arguments args({"song.mp3", "--speed", "-0.5", "--json", "-o", "out.wav", "--set",
                          "title=A", "--set=artist=B", "--at", "1:02.5"},
                         {"--speed", "-o", "--set", "--at"});
    EXPECT_EQ(args.positional(), std::vector<std::string>{"song.mp3"});
    EXPECT_EQ(args.number("--speed"), -0.5);
    EXPECT_TRUE(args.flag("--json"));
    EXPECT_FALSE(args.flag("--stereo"));
    EXPECT_EQ(args.value("-o"), "out.wav");
    EXPECT_EQ(args.values("--set"), (std::vector<std::string>{"title=A", "artist=B"}));
    EXPECT_EQ(args.time("--at"), 62.5);
    EXPECT_NO_THROW(args.rejectUnknown({"--json"}));
    EXPECT_THROW(args.rejectUnknown({}), UsageError);

    // A negative number where a positional is expected is a value, not an option.
    const Arguments negative({"note", "-3"}, {});
    EXPECT_EQ(negative.positional().size(), 2u);

    EXPECT_THROW(Arguments({"--speed"}, {"--speed"}), UsageError);
    const Arguments badNumber({"--speed", "fast"}, {"--speed"});
    EXPECT_THROW(badNumber.number("--speed"), UsageError);
    EXPECT_THROW(badNumber.requirePositional(0, "FILE"), UsageError);
}

TEST(ArgumentsTest, ParsesTimes)
{
    EXPECT_EQ(parseTime("12.5"), 12.5);
    EXPECT_EQ(parseTime("0"), 0.0);
    EXPECT_EQ(parseTime("1:02"), 62.0);
    EXPECT_EQ(parseTime("10:00.25"), 600.25);
    for (const char* bad : {"", "-1", "1:60", "1:-2", "a:10", "1:2:3", "1.5:10", "nan", "inf", "12s"}) {
        SCOPED_TRACE(bad);
        EXPECT_FALSE(parseTime(bad));
    }
}

TEST(ArgumentsTest, ParsesIsolationAndSize)
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

    for (const char* bad : {"", "pan=2", "width=-1", "pan", "volume=3", "low=2000,high=500",
                            "pan=0.5,,"}) {
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
