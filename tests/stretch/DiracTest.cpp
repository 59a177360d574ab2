// The Dirac operations: which engine each (lambda, quality) pair runs, creation limits, the
// property interface, and processing through the C-style calls.
#include "StretchTestSupport.h"

#include "audio/stretch/Dirac.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <memory>

using namespace vell;
using namespace vell::test;

namespace {

struct DiracDeleter {
    void operator()(DiracInstance* instance) const { DiracDestroy(instance); }
};
using Dirac = std::unique_ptr<DiracInstance, DiracDeleter>;

long silence(float** channelData, long frames, void*) noexcept
{
    for (int c = 0; c < 2; ++c) {
        std::fill_n(channelData[c], frames, 0.0f);
    }
    return frames;
}

Dirac makeDirac(long lambda, long quality, long channels = 2, double rate = 44100.0)
{
    return Dirac(DiracCreate(lambda, quality, channels, rate, silence, nullptr));
}

struct PairCase {
    long lambda;
    long quality;
    StretchLevel level;
    int engine;       // Rubber Band engine version
    long unityPad;    // its analysis half-window at 44.1 kHz
};

class DiracLevelTest : public ::testing::TestWithParam<PairCase> {};

// The pair chooses the level, and the level really runs the intended Rubber Band engine and
// window: R3 for the best level, R2 standard for good, R2 short window for low CPU; any other
// pair is the good level.
TEST_P(DiracLevelTest, PairRunsItsEngine)
{
    const PairCase& pair = GetParam();
    EXPECT_EQ(stretchLevelFor(pair.lambda, pair.quality), pair.level);
    Dirac dirac = makeDirac(pair.lambda, pair.quality);
    ASSERT_NE(dirac, nullptr);
    const detail::Stretcher* stretcher = detail::stretcherOf(dirac.get());
    EXPECT_EQ(stretcher->level(), pair.level);
    EXPECT_EQ(stretcher->engineVersion(), pair.engine);
    EXPECT_EQ(stretcher->unityStartPad(), pair.unityPad);
}

INSTANTIATE_TEST_SUITE_P(
    Pairs, DiracLevelTest,
    ::testing::Values(PairCase{206, 303, StretchLevel::best, 3, 2048},
                      PairCase{206, 300, StretchLevel::good, 2, 1024},
                      PairCase{200, 300, StretchLevel::lowCPU, 2, 512},
                      PairCase{200, 303, StretchLevel::good, 2, 1024},
                      PairCase{206, 301, StretchLevel::good, 2, 1024},
                      PairCase{0, 0, StretchLevel::good, 2, 1024},
                      PairCase{-206, -303, StretchLevel::good, 2, 1024}),
    [](const ::testing::TestParamInfo<PairCase>& param) {
        return "Lambda" + std::to_string(std::abs(param.param.lambda)) + "Quality" +
               std::to_string(std::abs(param.param.quality)) +
               (param.param.lambda < 0 ? "Negative" : "");
    });

TEST(DiracTest, CreationRejectsWhatItCannotRun)
{
    EXPECT_EQ(DiracCreate(206, 303, 0, 44100.0, silence, nullptr), nullptr);
    EXPECT_EQ(DiracCreate(206, 303, detail::Stretcher::kMaxChannels + 1, 44100.0, silence,
                          nullptr),
              nullptr);
    EXPECT_EQ(DiracCreate(206, 303, 2, 4000.0, silence, nullptr), nullptr);
    EXPECT_EQ(DiracCreate(206, 303, 2, 400000.0, silence, nullptr), nullptr);
    EXPECT_EQ(DiracCreate(206, 303, 2, std::nan(""), silence, nullptr), nullptr);
    EXPECT_EQ(DiracCreate(206, 303, 2, 44100.0, nullptr, nullptr), nullptr);
    EXPECT_EQ(DiracCreate(206, 303, 2, 44100.0, silence, nullptr, 0), nullptr);
    Dirac mono(DiracCreate(200, 300, 1, 22050.0, silence, nullptr));
    EXPECT_NE(mono, nullptr);
}

TEST(DiracTest, PropertiesStartAtUnityAndReadBackAsSet)
{
    Dirac dirac = makeDirac(200, 300);
    ASSERT_NE(dirac, nullptr);
    EXPECT_EQ(DiracGetProperty(kDiracPropertyTimeFactor, dirac.get()), 1.0L);
    EXPECT_EQ(DiracGetProperty(kDiracPropertyPitchFactor, dirac.get()), 1.0L);
    EXPECT_EQ(DiracGetProperty(kDiracPropertyPreserveFormants, dirac.get()), 0.0L);

    EXPECT_EQ(DiracSetProperty(kDiracPropertyTimeFactor, 2.0L, dirac.get()), 0);
    EXPECT_EQ(DiracSetProperty(kDiracPropertyPitchFactor, std::pow(2.0L, -7.0L / 12.0L),
                               dirac.get()),
              0);
    EXPECT_EQ(DiracSetProperty(kDiracPropertyPreserveFormants, 1.0L, dirac.get()), 0);
    EXPECT_EQ(DiracGetProperty(kDiracPropertyTimeFactor, dirac.get()), 2.0L);
    // The engine reads the playback rate back as 1 / time factor: exact for the set value.
    EXPECT_EQ(1.0 / double(DiracGetProperty(kDiracPropertyTimeFactor, dirac.get())), 0.5);
    EXPECT_NEAR(double(DiracGetProperty(kDiracPropertyPitchFactor, dirac.get())),
                std::pow(2.0, -7.0 / 12.0), 1e-12);
    EXPECT_EQ(DiracGetProperty(kDiracPropertyPreserveFormants, dirac.get()), 1.0L);
}

TEST(DiracTest, OutOfRangeValuesAreClampedAndBadOnesRefused)
{
    Dirac dirac = makeDirac(200, 300);
    ASSERT_NE(dirac, nullptr);
    EXPECT_EQ(DiracSetProperty(kDiracPropertyTimeFactor, 100.0L, dirac.get()), 0);
    EXPECT_EQ(DiracGetProperty(kDiracPropertyTimeFactor, dirac.get()), 8.0L);
    EXPECT_EQ(DiracSetProperty(kDiracPropertyPitchFactor, 0.01L, dirac.get()), 0);
    EXPECT_EQ(DiracGetProperty(kDiracPropertyPitchFactor, dirac.get()), 0.25L);

    for (long double bad : {0.0L, -1.0L, std::numeric_limits<long double>::infinity(),
                            std::numeric_limits<long double>::quiet_NaN()}) {
        SCOPED_TRACE(double(bad));
        EXPECT_EQ(DiracSetProperty(kDiracPropertyTimeFactor, bad, dirac.get()), -1);
        EXPECT_EQ(DiracSetProperty(kDiracPropertyPitchFactor, bad, dirac.get()), -1);
    }
    EXPECT_EQ(DiracGetProperty(kDiracPropertyTimeFactor, dirac.get()), 8.0L);
    EXPECT_EQ(DiracGetProperty(kDiracPropertyPitchFactor, dirac.get()), 0.25L);

    EXPECT_EQ(DiracSetProperty(102, 1.0L, dirac.get()), -1);
    EXPECT_EQ(DiracGetProperty(102, dirac.get()), 0.0L);
    EXPECT_EQ(DiracSetProperty(kDiracPropertyTimeFactor, 1.0L, nullptr), -1);
    EXPECT_EQ(DiracGetProperty(kDiracPropertyTimeFactor, nullptr), 0.0L);
    float* none[2] = {nullptr, nullptr};
    EXPECT_EQ(DiracProcess(none, 16, nullptr), 0);
    DiracReset(true, nullptr);
}

// The C-style calls drive the same machinery: a click pulled through DiracProcess at time
// factor 2 is heard at twice its input frame.
TEST(DiracTest, ProcessPullsThroughTheCallbackAndKeepsTime)
{
    BufferSource source(clickSignal(2, 44100, {10000}));
    Dirac dirac(DiracCreate(206, 300, 2, 44100.0, &BufferSource::pull, &source, 512));
    ASSERT_NE(dirac, nullptr);
    ASSERT_EQ(DiracSetProperty(kDiracPropertyTimeFactor, 2.0L, dirac.get()), 0);
    DiracReset(true, dirac.get());

    Channels out(2, std::vector<float>(60 * 512));
    for (int slice = 0; slice < 60; ++slice) {
        float* pointers[2] = {out[0].data() + slice * 512, out[1].data() + slice * 512};
        ASSERT_EQ(DiracProcess(pointers, 512, dirac.get()), 512);
    }
    EXPECT_FALSE(source.pulls().empty());
    for (const auto& pull : source.pulls()) {
        EXPECT_GE(pull.frames, detail::Stretcher::kMinPullFrames);
        EXPECT_LE(pull.frames, detail::Stretcher::kMaxPullFrames);
    }
    for (int c = 0; c < 2; ++c) {
        const auto onset = onsetNear(out[std::size_t(c)], 20000.0, 4000.0);
        ASSERT_TRUE(onset.has_value());
        EXPECT_NEAR(*onset, 20000.0, 3.0 * 44.1) << "channel " << c;
    }
}

} // namespace
