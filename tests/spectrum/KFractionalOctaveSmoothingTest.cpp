// Band counts, the frequency table and one-bin-per-band reduction.
#include "VellAudio/KFractionalOctaveSmoothing.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numeric>
#include <vector>

namespace {

constexpr float kTwelfth = 1.0f / 12.0f;

struct RateCounts {
    float rate;
    std::uint32_t upper;
    std::uint32_t lower;
};

} // namespace

TEST(KFractionalOctaveSmoothingTest, BandCountsFollowTheSampleRate)
{
    const RateCounts rows[] = {
        {44100, 54, 80}, {48000, 56, 80}, {22050, 42, 80}, {96000, 68, 80}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.rate);
        std::uint32_t upper = 0;
        std::uint32_t lower = 0;
        EXPECT_EQ(KFractionalOctaveSmoothingDataLength(row.rate, &upper, &lower, kTwelfth),
                  row.upper + row.lower);
        EXPECT_EQ(upper, row.upper);
        EXPECT_EQ(lower, row.lower);
    }
    EXPECT_EQ(KFractionalOctaveSmoothingDataLength(44100, nullptr, nullptr, kTwelfth), 134u);
    // Nonsense fractions end at once instead of looping forever.
    EXPECT_EQ(KFractionalOctaveSmoothingDataLength(44100, nullptr, nullptr, 0.0f), 0u);
    EXPECT_EQ(KFractionalOctaveSmoothingDataLength(44100, nullptr, nullptr, NAN), 0u);
}

TEST(KFractionalOctaveSmoothingTest, FrequencyTableRunsFromTenHertzPastNyquist)
{
    std::vector<float> table(134, -1.0f);
    ASSERT_EQ(KFractionalOctaveSmoothingGetFrequencyTable(44100, table.data(), 134, kTwelfth), 134u);
    EXPECT_NEAR(table.front(), 10.43f, 0.01f);
    EXPECT_EQ(table[79], 1000.0f);
    EXPECT_NEAR(table.back(), 22627.4f, 0.5f);
    EXPECT_GT(table.back(), 22050.0f);
    for (std::size_t i = 1; i < table.size(); ++i) {
        EXPECT_NEAR(table[i] / table[i - 1], std::exp2(1.0 / 12.0), 1e-4);
    }

    std::vector<float> untouched(133, -1.0f);
    EXPECT_EQ(KFractionalOctaveSmoothingGetFrequencyTable(44100, untouched.data(), 133, kTwelfth),
              0u);
    EXPECT_EQ(untouched, std::vector<float>(133, -1.0f));
    EXPECT_EQ(KFractionalOctaveSmoothingGetFrequencyTable(44100, nullptr, 134, kTwelfth), 0u);
}

TEST(KFractionalOctaveSmoothingTest, EachBandTakesTheBinNearestItsCentre)
{
    // Bin i holds i, so the output names the bin each band picked.
    const std::uint32_t inputLength = 2048;
    std::vector<float> input(inputLength);
    std::iota(input.begin(), input.end(), 0.0f);
    std::vector<float> output(134, -1.0f);
    ASSERT_EQ(KFractionalOctaveSmoothingGetSmoothedData(44100, input.data(), inputLength,
                                                        output.data(), 134, kTwelfth),
              134u);

    const float binsPerHertz = inputLength / 22050.0f;
    EXPECT_EQ(output[79], std::rint(1000.0f * binsPerHertz)); // 1000 Hz: bin 92.88 → 93
    EXPECT_EQ(output[0], 1.0f); // 10.43 Hz lies at bin 0.97: nearest, not truncated
    EXPECT_EQ(output.back(), float(inputLength - 1));          // above Nyquist: clamped
    // Low bands repeat bins; the picks never go backwards.
    for (std::size_t i = 1; i < output.size(); ++i) {
        EXPECT_GE(output[i], output[i - 1]);
    }

    std::vector<float> wrongSize(135, -1.0f);
    EXPECT_EQ(KFractionalOctaveSmoothingGetSmoothedData(44100, input.data(), inputLength,
                                                        wrongSize.data(), 135, kTwelfth),
              0u);
    EXPECT_EQ(wrongSize, std::vector<float>(135, -1.0f));
    EXPECT_EQ(KFractionalOctaveSmoothingGetSmoothedData(44100, input.data(), 0, output.data(), 134,
                                                        kTwelfth),
              0u);
    EXPECT_EQ(KFractionalOctaveSmoothingGetSmoothedData(44100, nullptr, inputLength, output.data(),
                                                        134, kTwelfth),
              0u);
}
