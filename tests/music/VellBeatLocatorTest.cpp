// The beat locator: bar/beat lookups over metronome beats, pickups, extrapolation past the grid.
#include <VellAudio/VellBeatLocator.h>
#include <VellAudio/VellNoteEntryStorage.h>

#include <gtest/gtest.h>

#include <limits>
#include <random>

using namespace vell;

namespace {

/// Beat entries every 1000 frames from first, downbeats where isDownbeat(index) says.
template <class IsDownbeat>
void addBeats(VellNoteEntryStorage& storage, int count, Frame first, IsDownbeat isDownbeat)
{
    VellEntryArray<VellBeatEntry> beats;
    for (int i = 0; i < count; ++i) {
        auto beat = storage.newBeatEntry();
        beat->setLocation(first + 1000 * i);
        beat->setDownbeat(isDownbeat(i));
        beats.push_back(beat);
    }
    storage.addBeatEntriesFromArray(beats);
}

void setSignature(VellNoteEntryStorage& storage, int numerator, int denominator)
{
    auto signature = storage.newTimeSignatureEntry();
    signature->setNumerator(static_cast<std::uint8_t>(numerator));
    signature->setDenominator(static_cast<std::uint8_t>(denominator));
    storage.addTimeSignatureEntry(signature);
}

VellBarBeatIndex at(long long beat, long long bar)
{
    return VellBarBeatIndex::indexPathForBeat(beat, bar);
}

/// Four bars of 4/4: metronome beats every 2000 frames from first, bars every 8000.
VellBeatLocator fourFourLocator(Frame first = 0)
{
    VellNoteEntryStorage storage;
    setSignature(storage, 4, 4);
    addBeats(storage, 32, first, [](int i) { return i % 8 == 0; });
    VellBeatLocator locator;
    locator.updateWithNoteEntryStorage(storage);
    return locator;
}

} // namespace

TEST(VellBeatLocatorTest, BarsAndBeatsInsideTheGrid)
{
    const VellBeatLocator locator = fourFourLocator();
    ASSERT_TRUE(locator.hasBeatEntries());
    EXPECT_EQ(locator.beatCount(), 16u);
    EXPECT_EQ(locator.barBeatIndexOfSample(0), at(0, 0));
    EXPECT_EQ(locator.barBeatIndexOfSample(1999), at(0, 0));
    EXPECT_EQ(locator.barBeatIndexOfSample(2000), at(1, 0));
    EXPECT_EQ(locator.barBeatIndexOfSample(7999), at(3, 0));
    EXPECT_EQ(locator.barBeatIndexOfSample(8000), at(0, 1));
    EXPECT_EQ(locator.barBeatIndexOfSample(30000), at(3, 3));
    EXPECT_EQ(locator.barIndexOfSample(17000), 2);

    EXPECT_EQ(locator.sampleOfBarBeatIndex(at(0, 0)), 0);
    EXPECT_EQ(locator.sampleOfBarBeatIndex(at(2, 1)), 12000);
    EXPECT_EQ(locator.sampleOfBarBeatIndex(at(5, 1)), 18000); // runs on into bar 2
}

TEST(VellBeatLocatorTest, ExtrapolatesPastBothEnds)
{
    const VellBeatLocator locator = fourFourLocator(10000);
    // After the last beat (40000): beats every 2000, bars every four.
    EXPECT_EQ(locator.barBeatIndexOfSample(41999), at(3, 3));
    EXPECT_EQ(locator.barBeatIndexOfSample(42000), at(0, 4));
    EXPECT_EQ(locator.sampleOfBarBeatIndex(at(0, 4)), 42000);
    EXPECT_EQ(locator.sampleOfBarBeatIndex(at(2, 5)), 10000 + 5 * 8000 + 2 * 2000);
    // Before the first beat.
    EXPECT_EQ(locator.barBeatIndexOfSample(9999), at(3, -1));
    EXPECT_EQ(locator.barBeatIndexOfSample(2000), at(0, -1));
    EXPECT_EQ(locator.barBeatIndexOfSample(1999), at(3, -2));
    EXPECT_EQ(locator.sampleOfBarBeatIndex(at(0, -1)), 2000);
    EXPECT_EQ(locator.sampleOfBarBeatIndex(at(1, -2)), -4000);

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
    VellBeatLocator locator;
    locator.updateWithNoteEntryStorage(storage);
    EXPECT_EQ(locator.barBeatIndexOfSample(0), at(3, -1));
    EXPECT_EQ(locator.barBeatIndexOfSample(2000), at(0, 0));
    EXPECT_EQ(locator.barBeatIndexOfSample(10000), at(0, 1));
    EXPECT_EQ(locator.sampleOfBarBeatIndex(at(3, -1)), 0);
    EXPECT_EQ(locator.sampleOfBarBeatIndex(at(0, 1)), 10000);
    EXPECT_EQ(locator.sampleOfBarBeatIndex(at(0, -1)), -6000); // before the file: extrapolated
}

TEST(VellBeatLocatorTest, WithoutDownbeatsBarsFollowTheNumerator)
{
    VellNoteEntryStorage storage;
    setSignature(storage, 3, 4);
    addBeats(storage, 18, 0, [](int) { return false; });
    VellBeatLocator locator;
    locator.updateWithNoteEntryStorage(storage);
    EXPECT_EQ(locator.beatCount(), 9u);
    EXPECT_EQ(locator.barBeatIndexOfSample(5999), at(2, 0));
    EXPECT_EQ(locator.barBeatIndexOfSample(6000), at(0, 1));
    EXPECT_EQ(locator.sampleOfBarBeatIndex(at(0, 3)), 18000);

    // 6/8: every entry is a metronome beat, six to the bar.
    VellNoteEntryStorage compound;
    setSignature(compound, 6, 8);
    addBeats(compound, 12, 0, [](int i) { return i % 6 == 0; });
    locator.updateWithNoteEntryStorage(compound);
    EXPECT_EQ(locator.barBeatIndexOfSample(5000), at(5, 0));
    EXPECT_EQ(locator.barBeatIndexOfSample(6000), at(0, 1));
    EXPECT_EQ(locator.sampleOfBarBeatIndex(at(0, 2)), 12000);
}

TEST(VellBeatLocatorTest, ClosestBeatAndCountInBeatsAreIgnored)
{
    VellNoteEntryStorage storage;
    setSignature(storage, 4, 4);
    addBeats(storage, 32, 10000, [](int i) { return i % 8 == 0; });
    VellBeatLocator locator;
    locator.updateWithNoteEntryStorage(storage);
    EXPECT_EQ(locator.closestBarBeatSampleToSample(12999), 12000);
    EXPECT_EQ(locator.closestBarBeatSampleToSample(13001), 14000);
    EXPECT_EQ(locator.closestBarBeatSampleToSample(13000), 12000); // a tie goes to the earlier
    EXPECT_EQ(locator.closestBarBeatSampleToSample(100), 0);       // extrapolated before
    EXPECT_EQ(locator.closestBarBeatSampleToSample(45100), 46000); // and after

    // Artificial count-in beats (negative locations) change nothing.
    auto artificial = storage.newBeatEntry();
    artificial->setLocation(-1000);
    artificial->setDownbeat(true);
    storage.addBeatEntry(artificial);
    VellBeatLocator withCountIn;
    withCountIn.updateWithNoteEntryStorage(storage);
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
    addBeats(storage, 1, 7000, [](int) { return true; });
    VellBeatLocator single;
    single.updateWithNoteEntryStorage(storage);
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
