// The rate divider: exact whole-frame delays (the stretcher's timing relies on them), a flat
// pass band, no aliasing, and the same output whatever the block sizes.
#include "audio/stretch/RateDivider.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numbers>
#include <vector>

using namespace vell::detail;

namespace {

constexpr long kDelay = RateDividerFilter::delayFrames();

std::vector<float> sine(long frames, double hz, double rate)
{
    std::vector<float> s(static_cast<std::size_t>(frames));
    for (long i = 0; i < frames; ++i) {
        s[std::size_t(i)] = float(0.5 * std::sin(2.0 * std::numbers::pi * hz * double(i) / rate));
    }
    return s;
}

std::vector<float> decimate(Decimator& d, const std::vector<float>& in)
{
    std::vector<float> out(in.size() / std::size_t(d.factor()));
    const float* i[] = {in.data()};
    float* o[] = {out.data()};
    d.process(i, o, long(out.size()));
    return out;
}

std::vector<float> interpolate(Interpolator& p, const std::vector<float>& in)
{
    std::vector<float> out(in.size() * std::size_t(p.factor()));
    const float* i[] = {in.data()};
    float* o[] = {out.data()};
    p.process(i, o, long(in.size()));
    return out;
}

double rmsOf(const std::vector<float>& s, std::size_t from, std::size_t to)
{
    double sum = 0.0;
    for (std::size_t i = from; i < to; ++i) {
        sum += double(s[i]) * s[i];
    }
    return std::sqrt(sum / double(to - from));
}

long peakAt(const std::vector<float>& s)
{
    return long(std::max_element(s.begin(), s.end(),
                                 [](float a, float b) { return std::fabs(a) < std::fabs(b); }) -
                s.begin());
}

class RateDividerTest : public ::testing::TestWithParam<int> {};

TEST_P(RateDividerTest, DelaysAreWholeLowRateFrames)
{
    const int k = GetParam();
    Decimator decimator(k, 1, 4096);
    std::vector<float> click(std::size_t(4096 * k), 0.0f);
    click[std::size_t(1000 * k)] = 1.0f;
    EXPECT_EQ(peakAt(decimate(decimator, click)), 1000 + kDelay);

    Interpolator interpolator(k, 1, 4096);
    std::vector<float> low(4096, 0.0f);
    low[1000] = 1.0f;
    EXPECT_EQ(peakAt(interpolate(interpolator, low)), k * (1000 + kDelay));
}

TEST_P(RateDividerTest, RoundTripKeepsTheAudibleBandAndDropsWhatWouldAlias)
{
    const int k = GetParam();
    const double high = 48000.0 * k;
    constexpr long kLow = 24000;
    for (const double hz : {50.0, 1000.0, 12000.0, 19500.0}) {
        SCOPED_TRACE(hz);
        Decimator decimator(k, 1, kLow);
        Interpolator interpolator(k, 1, kLow);
        const auto in = sine(kLow * k, hz, high);
        const auto out = interpolate(interpolator, decimate(decimator, in));
        // Decimator and interpolator delays add up; compare past both filters' start-up.
        const long shift = 2 * kDelay * k;
        double error = 0.0;
        for (long i = 4 * shift; i < long(out.size()); ++i) {
            error = std::max(error, std::fabs(double(out[std::size_t(i)]) -
                                              in[std::size_t(i - shift)]));
        }
        EXPECT_LT(20.0 * std::log10(error / 0.5), hz < 19000.0 ? -60.0 : -30.0);
    }
    // A tone above the low rate's Nyquist frequency would fold back into the audible band.
    for (const double hz : {26000.0, 30000.0, 40000.0}) {
        SCOPED_TRACE(hz);
        Decimator decimator(k, 1, kLow);
        const auto low = decimate(decimator, sine(kLow * k, hz, high));
        EXPECT_LT(20.0 * std::log10(rmsOf(low, 1000, low.size()) / (0.5 / std::sqrt(2.0))),
                  -85.0);
    }
}

TEST_P(RateDividerTest, BlockSizesDoNotChangeTheOutput)
{
    const int k = GetParam();
    const auto in = sine(6000 * k, 3000.0, 48000.0 * k);
    Decimator whole(k, 1, 6000), pieces(k, 1, 6000);
    const auto expected = decimate(whole, in);
    std::vector<float> got;
    long at = 0;
    for (const long size : {1L, 7L, 512L, 1000L, 3L, 4477L}) {
        const long n = std::min(size, 6000 - at);
        const float* i[] = {in.data() + at * k};
        std::vector<float> out(static_cast<std::size_t>(n));
        float* o[] = {out.data()};
        pieces.process(i, o, n);
        got.insert(got.end(), out.begin(), out.end());
        at += n;
    }
    ASSERT_EQ(got.size(), expected.size());
    for (std::size_t i = 0; i < got.size(); ++i) {
        ASSERT_EQ(got[i], expected[i]) << "frame " << i;
    }

    Interpolator wholeUp(k, 1, 6000), piecesUp(k, 1, 6000);
    const auto up = interpolate(wholeUp, expected);
    std::vector<float> upPieces;
    for (long start = 0; start < 6000; start += 1999) {
        const long n = std::min(1999L, 6000 - start);
        const float* i[] = {expected.data() + start};
        std::vector<float> out(static_cast<std::size_t>(n * k));
        float* o[] = {out.data()};
        piecesUp.process(i, o, n);
        upPieces.insert(upPieces.end(), out.begin(), out.end());
    }
    EXPECT_EQ(upPieces, up);

    // After a reset the filters start again from silence.
    whole.reset();
    EXPECT_EQ(decimate(whole, in), expected);
}

INSTANTIATE_TEST_SUITE_P(Factors, RateDividerTest, ::testing::Values(2, 4));

} // namespace
