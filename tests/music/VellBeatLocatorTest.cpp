// The beat locator: bar/beat lookups over metronome beats, pickups, extrapolation past the grid.
#include <VellAudio/VellBeatLocator.h>

#include "StorageBuilders.h"

#include <gtest/gtest.h>

#include <limits>
#include <random>

using namespace vell;
using namespace vell::test;

namespace {

VellBarBeatIndex at(long long beat, long long bar)
{
    return VellBarBeatIndex::indexPathForBeat(beat, bar);
}

VellBeatLocator locatorFor(const VellNoteEntryStorage& storage)
{
    VellBeatLocator locator;
    locator.updateWithNoteEntryStorage(storage);
    return locator;
}

struct GridPoint {
    Frame sample;
    long long beat;
    long long bar;
};

/// Each sample lies in the given beat of the given bar.
void expectIndexes(const VellBeatLocator& locator, std::initializer_list<GridPoint> points)
{
    for (const auto& point : points) {
        SCOPED_TRACE(point.sample);
        EXPECT_EQ(locator.barBeatIndexOfSample(point.sample), at(point.beat, point.bar));
    }
}

/// Each beat of each bar starts at the given sample.
void expectSamples(const VellBeatLocator& locator, std::initializer_list<GridPoint> points)
{
    for (const auto& point : points) {
        SCOPED_TRACE(point.sample);
        EXPECT_EQ(locator.sampleOfBarBeatIndex(at(point.beat, point.bar)), point.sample);
    }
}

/// Four bars of 4/4: metronome beats every 2000 frames from first, bars every 8000.
void fillFourFour(VellNoteEntryStorage& storage, Frame first = 0)
{
    setSignature(storage, 4, 4);
    addBeats(storage, 32, first, everyNth(8));
}

VellBeatLocator fourFourLocator(Frame first = 0)
{
    VellNoteEntryStorage storage;
    fillFourFour(storage, first);
    return locatorFor(storage);
}

} // namespace

TEST(VellBeatLocatorTest, BarsAndBeatsInsideTheGrid)
{
    const VellBeatLocator locator = fourFourLocator();
    ASSERT_TRUE(locator.hasBeatEntries());
    EXPECT_EQ(locator.beatCount(), 16u);
    expectIndexes(
        locator,
        {{0, 0, 0}, {1999, 0, 0}, {2000, 1, 0}, {7999, 3, 0}, {8000, 0, 1}, {30000, 3, 3}});
    EXPECT_EQ(locator.barIndexOfSample(17000), 2);
    // Beat 5 of bar 1 runs on into bar 2.
    expectSamples(locator, {{0, 0, 0}, {12000, 2, 1}, {18000, 5, 1}});
}

TEST(VellBeatLocatorTest, ExtrapolatesPastBothEnds)
{
    // Beats from 10000 to 40000; past either end, beats every 2000 and bars every four.
    const VellBeatLocator locator = fourFourLocator(10000);
    expectIndexes(locator,
                  {{41999, 3, 3}, {42000, 0, 4}, {9999, 3, -1}, {2000, 0, -1}, {1999, 3, -2}});
    expectSamples(
        locator,
        {{42000, 0, 4}, {10000 + 5 * 8000 + 2 * 2000, 2, 5}, {2000, 0, -1}, {-4000, 1, -2}});

    // Every frame lies at or after its beat and before the next one, far out too.
    std::mt19937_64 random(7);
    std::uniform_int_distribution<Frame> frames(-200000, 400000);
    for (int i = 0; i < 2000; ++i) {
        const Frame sample = frames(random);
        SCOPED_TRACE(sample);
        const VellBarBeatIndex index = locator.barBeatIndexOfSample(sample);
        EXPECT_GE(index.beat, 0);
        EXPECT_LT(index.beat, 4);
        const Frame beat = locator.sampleOfBarBeatIndex(index);
        EXPECT_LE(beat, sample);
        EXPECT_GT(beat + 2000, sample);
    }
}

TEST(VellBeatLocatorTest, PickupBarEndsOnTheLastBeatOfAFullBar)
{
    VellNoteEntryStorage storage;
    setSignature(storage, 4, 4);
    // Entries 0 and 1 before the first downbeat at entry 2: one metronome beat of pickup.
    addBeats(storage, 34, 0, [](int i) { return i >= 2 && (i - 2) % 8 == 0; });
    const VellBeatLocator locator = locatorFor(storage);
    expectIndexes(locator, {{0, 3, -1}, {2000, 0, 0}, {10000, 0, 1}});
    // Before the file: extrapolated.
    expectSamples(locator, {{0, 3, -1}, {10000, 0, 1}, {-6000, 0, -1}});
}

TEST(VellBeatLocatorTest, WithoutDownbeatsBarsFollowTheNumerator)
{
    VellNoteEntryStorage storage;
    setSignature(storage, 3, 4);
    addBeats(storage, 18, 0, [](int) { return false; });
    VellBeatLocator locator = locatorFor(storage);
    EXPECT_EQ(locator.beatCount(), 9u);
    expectIndexes(locator, {{5999, 2, 0}, {6000, 0, 1}});
    expectSamples(locator, {{18000, 0, 3}});

    // 6/8: every entry is a metronome beat, six to the bar.
    VellNoteEntryStorage compound;
    setSignature(compound, 6, 8);
    addBeats(compound, 12, 0, everyNth(6));
    locator.updateWithNoteEntryStorage(compound);
    expectIndexes(locator, {{5000, 5, 0}, {6000, 0, 1}});
    expectSamples(locator, {{12000, 0, 2}});
}

TEST(VellBeatLocatorTest, ClosestBeatAndCountInBeatsAreIgnored)
{
    VellNoteEntryStorage storage;
    fillFourFour(storage, 10000);
    const VellBeatLocator locator = locatorFor(storage);
    EXPECT_EQ(locator.closestBarBeatSampleToSample(12999), 12000);
    EXPECT_EQ(locator.closestBarBeatSampleToSample(13001), 14000);
    EXPECT_EQ(locator.closestBarBeatSampleToSample(13000), 12000); // a tie goes to the earlier
    EXPECT_EQ(locator.closestBarBeatSampleToSample(100), 0);       // extrapolated before
    EXPECT_EQ(locator.closestBarBeatSampleToSample(45100), 46000); // and after

    // Artificial count-in beats (negative locations) change nothing.
    storage.addBeatEntry(beatAt(storage, -1000, true));
    const VellBeatLocator withCountIn = locatorFor(storage);
    EXPECT_EQ(withCountIn.beatCount(), locator.beatCount());
    EXPECT_EQ(withCountIn.barBeatIndexOfSample(10000), at(0, 0));
}

TEST(VellBeatLocatorTest, DegenerateGrids)
{
    VellBeatLocator empty = fourFourLocator();
    empty.updateWithNoteEntryStorage(std::shared_ptr<const VellNoteEntryStorage>());
    EXPECT_FALSE(empty.hasBeatEntries());
    EXPECT_EQ(empty.sampleOfBarBeatIndex(at(0, 0)), kFrameNotFound);
    EXPECT_EQ(empty.barBeatIndexOfSample(5000), at(0, 0));
    EXPECT_EQ(empty.closestBarBeatSampleToSample(5000), 5000);

    VellNoteEntryStorage storage;
    addBeats(storage, 1, 7000, everyNth(1));
    const VellBeatLocator single = locatorFor(storage);
    EXPECT_TRUE(single.hasBeatEntries());
    EXPECT_EQ(single.barBeatIndexOfSample(0), at(0, 0));
    EXPECT_EQ(single.barBeatIndexOfSample(1'000'000), at(0, 0));
    EXPECT_EQ(single.sampleOfBarBeatIndex(at(2, 3)), 7000);
    EXPECT_EQ(single.closestBarBeatSampleToSample(0), 7000);

    // Extreme frames and indexes stay defined.
    const VellBeatLocator locator = fourFourLocator();
    constexpr Frame kMin = std::numeric_limits<Frame>::min();
    EXPECT_LT(locator.barIndexOfSample(kMin), 0);
    EXPECT_GT(locator.barIndexOfSample(kFrameNotFound), 0);
    EXPECT_LE(locator.sampleOfBarBeatIndex(at(0, std::numeric_limits<long long>::min())), 0);
    EXPECT_GE(locator.sampleOfBarBeatIndex(at(std::numeric_limits<long long>::max(), 0)), 0);
    EXPECT_GE(locator.closestBarBeatSampleToSample(kFrameNotFound), 0);
}
