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

TEST(AudioRangeTrackerTest, QuantisedRoundTripAndWrappingSampleOffsets)
{
    const auto half = FileRangeMapping::withRate(0.5);
    EXPECT_EQ(half.fileToSlowed(1001), 2002);
    EXPECT_EQ(half.slowedToFile(2002), 1001);

    // Deliberately lossy: 1001 lies between two slowed frames at this rate.
    const auto threeQuarters = FileRangeMapping::withRate(0.75);
    EXPECT_EQ(threeQuarters.fileToSlowed(1001), 1334);
    EXPECT_EQ(threeQuarters.slowedToFile(threeQuarters.fileToSlowed(1001)), 1000);

    // Offsets are differences of the low 32 bits, so they survive slowed frames past 2^32.
    const auto unity = FileRangeMapping::withRate(1.0);
    const long long twoTo32 = 1LL << 32;
    EXPECT_EQ(unity.sampleOffset(twoTo32 + 5, twoTo32 - 10), 15);
    EXPECT_EQ(half.sampleOffset(1100, 1000), 200);

    // The range lies behind the read frame by the latency (output frames, scaled by the rate).
    EXPECT_EQ(half.schedulingRange(10000, 512, 4096), (FileRange{7952, 8208}));
}

struct TilingCase {
    double rate;
    long long cycleFrames;
    std::int32_t latency;
};

void PrintTo(const TilingCase& c, std::ostream* os)
{
    *os << "rate " << c.rate << ", " << c.cycleFrames << " frames, latency " << c.latency;
}

class SchedulingRangeTilingTest : public testing::TestWithParam<TilingCase> {};

// The read frame advances as the render pipeline consumes: frames x rate per cycle with the
// fraction carried. Where frames x rate and latency x rate are whole, consecutive ranges share
// their boundary exactly. Elsewhere the truncations differ from cycle to cycle and the ranges
// meet within a few frames, never drifting apart; the pipeline joins them at the previous end.
TEST_P(SchedulingRangeTilingTest, ConsecutiveCyclesMeetAtTheirBoundary)
{
    const TilingCase c = GetParam();
    const auto mapping = FileRangeMapping::withRate(c.rate);
    const double advance = double(c.cycleFrames) * c.rate;
    const double latencyFrames = double(c.latency) * c.rate;
    const bool whole = advance == std::floor(advance) && latencyFrames == std::floor(latencyFrames);
    // Heuristic bound from the two truncations and the quantisation: one slowed-grid step (up to
    // ceil(rate) file frames) plus one frame.
    const long long tolerance = whole ? 0 : static_cast<long long>(std::ceil(c.rate)) + 1;

    FileRangeTracker tracker;
    tracker.reset(123457);
    const long long blockFrames = 1 << 16;
    long long fed = 123457;
    double carry = 0;
    FileRange first;
    FileRange previous;
    const int cycles = 3000;
    for (int cycle = 0; cycle < cycles; ++cycle) {
        SCOPED_TRACE(cycle);
        // Stay a block ahead of consumption, as the stretcher does.
        if (fed - tracker.readFrame() < blockFrames) {
            tracker.record({fed, fed + blockFrames});
            fed += blockFrames;
        }
        const FileRange range =
            mapping.schedulingRange(tracker.readFrame(), c.cycleFrames, c.latency);
        ASSERT_LE(range.start, range.end);
        if (cycle == 0) {
            first = range;
        } else {
            ASSERT_LE(std::llabs(range.start - previous.end), tolerance);
        }
        previous = range;
        const double wanted = advance + carry;
        const auto frames = static_cast<long long>(std::floor(wanted));
        carry = wanted - double(frames);
        tracker.consumeFrames(frames);
    }
    // No drift: the ranges span what the output consumed.
    EXPECT_NEAR(double(previous.end - first.start), advance * cycles, 2 + c.rate);
}

INSTANTIATE_TEST_SUITE_P(RatesSlicesAndLatencies, SchedulingRangeTilingTest,
                         testing::Values(TilingCase{0.5, 512, 0}, TilingCase{0.5, 512, 4096},
                                         TilingCase{1.0, 441, 4096}, TilingCase{1.5, 512, 4096},
                                         TilingCase{0.5, 441, 4096}, TilingCase{0.73, 512, 0},
                                         TilingCase{0.73, 512, 4096}, TilingCase{0.73, 441, 7},
                                         TilingCase{1.5, 441, 4096}, TilingCase{1.37, 64, 4096}));
