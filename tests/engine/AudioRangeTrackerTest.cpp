// Frame bookkeeping of the render path: the tracker's ring of fed spans and the per-cycle
// scheduling range on the slowed grid.
#include "engine/AudioRangeTracker.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <ostream>

using namespace vell;

namespace {

FileRangeTracker trackerWith(std::initializer_list<FileRange> ranges)
{
    FileRangeTracker tracker;
    for (const FileRange& range : ranges) {
        tracker.record(range);
    }
    return tracker;
}

} // namespace

TEST(AudioRangeTrackerTest, ConsumesAcrossSlotsAndJumpsAtLoopWraps)
{
    FileRangeTracker fresh;
    EXPECT_EQ(fresh.consumeFrames(100), -1);
    EXPECT_EQ(fresh.readIndex, 0);

    auto tracker = trackerWith({{0, 4096}, {4096, 8192}});
    EXPECT_EQ(tracker.consumeFrames(0), 0);
    EXPECT_EQ(tracker.consumeFrames(-5), 0);
    EXPECT_EQ(tracker.consumeFrames(4096), 4096);
    EXPECT_EQ(tracker.readIndex, 1);

    tracker = trackerWith({{0, 4096}, {4096, 8192}});
    EXPECT_EQ(tracker.consumeFrames(5000), 5000);
    EXPECT_EQ(tracker.readIndex, 1);

    // The read frame stays at the loop's end until the wrapped block is reached, then jumps.
    tracker = trackerWith({{90000, 94096}, {10000, 14096}});
    EXPECT_EQ(tracker.consumeFrames(4000), 94000);
    EXPECT_EQ(tracker.consumeFrames(96), 10000);
    EXPECT_EQ(tracker.consumeFrames(100), 10100);

    // Feeding and consuming in step: the write and read indices both wrap around the ring.
    constexpr long long slots = FileRangeTracker::kSlotCount;
    tracker = FileRangeTracker{};
    for (long long i = 0; i < slots; ++i) {
        tracker.record({i * 1000, i * 1000 + 1000});
    }
    EXPECT_EQ(tracker.writeIndex, 0);
    EXPECT_EQ(tracker.consumeFrames(1500), 1500);
    tracker.record({500000, 501000}); // into slot 0, used up above
    EXPECT_EQ(tracker.consumeFrames(500 + (slots - 2) * 1000 - 100), slots * 1000 - 100);
    EXPECT_EQ(tracker.consumeFrames(100), 500000);
    EXPECT_EQ(tracker.readIndex, 0);
    // Consumption stops at a cleared slot instead of running into stale ones.
    FileRangeTracker partial = trackerWith({{0, 100}});
    EXPECT_EQ(partial.consumeFrames(500), -1);
    EXPECT_EQ(partial.readIndex, 1);
}

TEST(AudioRangeTrackerTest, ResetStartsAnEmptyRingAtTheFrame)
{
    auto tracker = trackerWith({{0, 4096}, {4096, 8192}, {8192, 12288}});
    tracker.consumeFrames(5000);

    tracker.reset(1000);
    EXPECT_EQ(tracker.readFrame(), 1000);
    EXPECT_EQ(tracker.ranges[0], (FileRange{1000, 1000}));
    EXPECT_TRUE(tracker.ranges[1].isCleared());
    EXPECT_TRUE(tracker.ranges[2].isCleared());
    EXPECT_EQ(tracker.writeIndex, 1);
    EXPECT_EQ(tracker.readIndex, 0);

    // The zero-length slot is used up at once; nothing recorded after it reads as -1.
    FileRangeTracker copy = tracker;
    EXPECT_EQ(copy.consumeFrames(10), -1);
    EXPECT_EQ(copy.readIndex, 1);

    // The first block fed after a seek continues from the seek frame.
    tracker.record({1000, 5096});
    EXPECT_EQ(tracker.consumeFrames(10), 1010);
}

TEST(AudioRangeTrackerTest, QuantisedRoundTrip)
{
    const auto half = FileRangeMapping::withRate(0.5);
    EXPECT_EQ(half.fileToSlowed(1001), 2002);
    EXPECT_EQ(half.slowedToFile(2002), 1001);
    // Deliberately lossy: 1001 lies between two slowed frames at this rate.
    const auto threeQuarters = FileRangeMapping::withRate(0.75);
    EXPECT_EQ(threeQuarters.slowedToFile(threeQuarters.fileToSlowed(1001)), 1000);
}

TEST(AudioRangeTrackerTest, ConsumptionHandsOutEachSpanOnceAcrossAWrap)
{
    FileRangeTracker tracker;
    tracker.reset(90000);
    tracker.record({90000, 94096});
    tracker.record({10000, 14096}); // the loop wrapped back to 10000
    std::vector<FileRange> spans;
    const auto collect = [&](long long first, long long end) noexcept {
        spans.push_back({first, end});
    };
    EXPECT_EQ(tracker.consumeFrames(3000, collect), 93000);
    EXPECT_EQ(tracker.consumeFrames(2000, collect), 10904);
    EXPECT_EQ(tracker.consumeFrames(0, collect), 10904);
    const std::vector<FileRange> expected = {{90000, 93000}, {93000, 94096}, {10000, 10904}};
    EXPECT_EQ(spans, expected);
}
