// The growable sample buffer: growth keeps what was written, shrinking keeps the prefix.
#include "audio/file/SampleBuffer.h"

#include <gtest/gtest.h>

#include <numeric>

namespace vell::detail {
namespace {

TEST(SampleBufferTest, GrowingKeepsSamplesAndShrinkingKeepsThePrefix)
{
    SampleBuffer buffer;
    EXPECT_EQ(buffer.capacity(), 0u);
    ASSERT_TRUE(buffer.reserve(1000));
    ASSERT_GE(buffer.capacity(), 1000u);
    std::iota(buffer.data(), buffer.data() + 1000, 0.0f);

    // Far beyond the first mapping, so the pages must move or extend.
    ASSERT_TRUE(buffer.reserve(3'000'000));
    ASSERT_GE(buffer.capacity(), 3'000'000u);
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(buffer.data()[i], float(i));
    }
    buffer.data()[2'999'999] = 7.0f;

    buffer.shrinkTo(1000);
    EXPECT_GE(buffer.capacity(), 1000u);
    EXPECT_LT(buffer.capacity(), 3'000'000u);
    EXPECT_EQ(buffer.data()[999], 999.0f);

    SampleBuffer moved = std::move(buffer);
    EXPECT_EQ(buffer.data(), nullptr);
    EXPECT_EQ(moved.data()[500], 500.0f);

    moved.shrinkTo(0);
    EXPECT_EQ(moved.data(), nullptr);
    EXPECT_EQ(moved.capacity(), 0u);
}

TEST(SampleBufferTest, ImpossibleReservationFailsAndKeepsTheBuffer)
{
    SampleBuffer buffer;
    ASSERT_TRUE(buffer.reserve(16));
    buffer.data()[3] = 3.0f;
    EXPECT_FALSE(buffer.reserve(std::size_t(-1) / 2));
    EXPECT_EQ(buffer.data()[3], 3.0f);
}

} // namespace
} // namespace vell::detail
