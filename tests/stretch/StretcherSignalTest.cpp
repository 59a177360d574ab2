// What the stretcher does to signals: transposed sines land on the right frequency and time
// factors leave pitch alone, the output lasts input x time factor, resets clear or fade the old
// sound, changes are smooth, formants can stay in place, and input is pulled in a way the
// engine's three-slot range tracker can follow.
#include "StretchTestSupport.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>

using namespace vell;
using namespace vell::test;
using detail::Stretcher;
using detail::StretchParameters;

namespace {

Stretcher::Config configFor(StretchLevel level, double rate = 44100.0, int channels = 1,
                            long slice = 512)
{
    Stretcher::Config config;
    config.level = level;
    config.channels = channels;
    config.sampleRate = rate;
    config.maxFramesPerCall = slice;
    return config;
}

// ---- Pitch --------------------------------------------------------------------------------

struct PitchCase {
    StretchLevel level;
    double rate;
    double timeFactor;
    double pitchFactor;
};

class StretcherPitchTest : public ::testing::TestWithParam<PitchCase> {};

// A 440 Hz sine comes out at 440 x pitch factor whatever the time factor. The best level is
// exact to a tenth of a percent; R2's phase vocoder without peak locking wanders by up to a
// couple of percent on a pure tone at extreme factors (Rubber Band's own behaviour).
TEST_P(StretcherPitchTest, SineLandsOnTheTransposedFrequency)
{
    const PitchCase& c = GetParam();
    constexpr double kHz = 440.0;
    StretchRig rig(configFor(c.level, c.rate), sineSignal(1, (long long)(c.rate * 3), kHz, c.rate));
    rig.stretcher->setParameters({c.timeFactor, c.pitchFactor, false});
    Channels out;
    // 400 ms of output from half a second of input on (past the start-up).
    const std::size_t from = std::size_t(c.rate * 0.5 * c.timeFactor);
    const std::size_t length = std::size_t(c.rate * 0.4);
    rig.render(out, long(from + length), 512);
    const double expected = kHz * Stretcher::roundedPitchFactor(c.pitchFactor);
    const double measured = sineFrequency(out[0], from, length, c.rate);
    const double tolerance = c.level == StretchLevel::best ? 0.001 : 0.025;
    EXPECT_NEAR(measured, expected, expected * tolerance);
    // And the level of a steady tone is kept (R2 loses up to 4 dB at 4x speed).
    const double level = rms(out[0], from, length) / (0.5 / std::sqrt(2.0));
    EXPECT_GT(level, c.level == StretchLevel::best ? 0.9 : 0.6);
    EXPECT_LT(level, 1.12);
}

std::vector<PitchCase> pitchCases()
{
    std::vector<PitchCase> cases;
    for (StretchLevel level : {StretchLevel::best, StretchLevel::good, StretchLevel::lowCPU}) {
        for (double pf : {0.5, std::exp2(-5.0 / 12.0), std::exp2(7.0 / 12.0 + 0.1 / 12.0), 2.0}) {
            cases.push_back({level, 44100.0, 1.5, pf});
        }
        for (double tf : {0.25, 0.5, 2.0, 4.0}) {
            cases.push_back({level, 44100.0, tf, 1.0});
        }
    }
    cases.push_back({StretchLevel::best, 48000.0, 0.8, std::exp2(3.0 / 12.0)});
    cases.push_back({StretchLevel::best, 96000.0, 1.25, std::exp2(-2.0 / 12.0)});
    return cases;
}

INSTANTIATE_TEST_SUITE_P(Cases, StretcherPitchTest, ::testing::ValuesIn(pitchCases()),
                         [](const ::testing::TestParamInfo<PitchCase>& param) {
                             const PitchCase& c = param.param;
                             return levelName(c.level) + "_" + std::to_string(int(c.rate)) +
                                    "Hz_tf" + std::to_string(int(std::lround(c.timeFactor * 100))) +
                                    "_pf" + std::to_string(int(std::lround(c.pitchFactor * 1000)));
                         });

TEST(StretcherPitchRoundingTest, RoundedPitchIsWithinHalfACent)
{
    for (double pf = 0.25; pf <= 4.0; pf *= 1.0137) {
        SCOPED_TRACE(pf);
        const double rounded = Stretcher::roundedPitchFactor(pf);
        // Steps of 1 / 8192 in the resampling ratio: 0.21 cent at factor 2, 0.42 at 4.
        EXPECT_LE(std::fabs(1200.0 * std::log2(rounded / pf)),
                  1200.0 * std::log2(1.0 + pf / 16384.0) + 1e-9);
        const double n = double(Stretcher::kPitchDenominator) / rounded;
        EXPECT_NEAR(n, std::round(n), 1e-9);
    }
    EXPECT_EQ(Stretcher::roundedPitchFactor(1.0), 1.0);
    EXPECT_EQ(Stretcher::roundedPitchFactor(2.0), 2.0);
}

// ---- Length -------------------------------------------------------------------------------

class StretcherLengthTest
    : public ::testing::TestWithParam<std::tuple<StretchLevel, double>> {};

// A one-second tone, then silence: the output tone starts at once and ends at one second x
// time factor, and the input the stretcher has pulled keeps pace with the output.
TEST_P(StretcherLengthTest, OutputLastsInputTimesTimeFactor)
{
    const auto [level, tf] = GetParam();
    constexpr double kRate = 44100.0;
    Channels input = sineSignal(1, (long long)(kRate * 3), 330.0, kRate);
    std::fill(input[0].begin() + long(kRate), input[0].end(), 0.0f);
    StretchRig rig(configFor(level, kRate), input);
    rig.stretcher->setParameters({tf, 1.0, false});
    Channels out;
    const long frames = long(kRate * 2.0 * tf);
    rig.render(out, frames, 512);

    long first = -1, last = -1;
    for (long i = 0; i < frames; ++i) {
        if (std::fabs(out[0][std::size_t(i)]) > 0.05f) {
            last = i;
            if (first < 0) {
                first = i;
            }
        }
    }
    // Windows smear the edges of the tone by about half a window (at the output's speed).
    const double smear = 2048.0 * std::max(1.0, tf);
    EXPECT_NEAR(double(first), 0.0, smear);
    EXPECT_NEAR(double(last), kRate * tf, smear);
    // Input pulled = output / time factor + a bounded look-ahead (at most one pull block plus
    // the stretcher's own look-ahead).
    const double pulled = double(rig.source->position());
    EXPECT_GE(pulled, double(frames) / tf);
    EXPECT_LE(pulled, double(frames) / tf + 2.0 * Stretcher::kMaxPullFrames);
}

INSTANTIATE_TEST_SUITE_P(Levels, StretcherLengthTest,
                         ::testing::Combine(::testing::Values(StretchLevel::best,
                                                              StretchLevel::good,
                                                              StretchLevel::lowCPU),
                                            ::testing::Values(0.25, 0.6, 1.0, 2.5, 4.0)),
                         [](const auto& param) {
                             return levelName(std::get<0>(param.param)) + "_tf" +
                                    std::to_string(int(std::get<1>(param.param) * 100));
                         });

// ---- Reset --------------------------------------------------------------------------------

/// After a loud stretch, a clearing reset leaves nothing of it: with silent input from then on
/// the very first output frame is silent. The input restarts at the source's new position.
void expectClearingResetLeavesNoTrace(StretchLevel level, double rate)
{
    Channels input = sineSignal(1, (long long)(rate * 2), 500.0, rate);
    std::fill(input[0].begin() + long(rate), input[0].end(), 0.0f);
    StretchRig rig(configFor(level, rate), input);
    rig.stretcher->setParameters({2.0, 1.25, false});
    Channels out;
    rig.render(out, long(rate * 0.8), 512);
    ASSERT_GT(rms(out[0], out[0].size() - 4096, 4096), 0.2);

    rig.stretcher->reset(true);
    // The engine seeks into the silent second half.
    rig.source->seek((long long)rate + 1000);
    const long long before = rig.source->position();
    Channels after;
    rig.render(after, long(rate * 0.5), 512);
    float loudest = 0.0f;
    for (float s : after[0]) {
        loudest = std::max(loudest, std::fabs(s));
    }
    EXPECT_LT(loudest, 1e-4f);
    EXPECT_GT(rig.source->position(), before) << "a reset pulls fresh input";
    EXPECT_EQ(rig.stretcher->statistics().restarts, 2u); // the first start and this one
}

/// Without clearing, the old sound fades out over about 20 ms and is gone after it.
void expectFadingResetFadesTheOldSoundOut(StretchLevel level, double rate)
{
    Channels input = sineSignal(1, (long long)(rate * 2), 500.0, rate);
    std::fill(input[0].begin() + long(rate), input[0].end(), 0.0f);
    StretchRig rig(configFor(level, rate), input);
    Channels out;
    rig.render(out, long(rate * 0.5), 512);

    rig.stretcher->reset(false);
    rig.source->seek((long long)rate + 1000);
    Channels after;
    rig.render(after, long(8192 * rate / 44100.0), 512);
    const auto ms = [rate](double milliseconds) { return std::size_t(milliseconds * rate / 1000.0); };
    EXPECT_GT(rms(after[0], 0, ms(5.8)), 0.15) << "no gap: the old sound is still there";
    EXPECT_LT(rms(after[0], ms(5.8), ms(5.8)), rms(after[0], 0, ms(5.8))) << "and fading";
    float loudest = 0.0f;
    for (std::size_t i = ms(20.0 + 23.2); i < after[0].size(); ++i) {
        loudest = std::max(loudest, std::fabs(after[0][i]));
    }
    EXPECT_LT(loudest, 1e-3f);
    // The old sound's amplitude never jumps up at the start of the fade (no click).
    const float steepest = float(2.0 * std::numbers::pi * 500.0 * 1.25 * 0.5 / rate);
    for (std::size_t i = 1; i < ms(23.2); ++i) {
        EXPECT_LT(std::fabs(after[0][i] - after[0][i - 1]), 2.0f * steepest) << "frame " << i;
    }
}

class StretcherResetTest : public ::testing::TestWithParam<StretchLevel> {};

TEST_P(StretcherResetTest, ClearingResetLeavesNoTrace)
{
    expectClearingResetLeavesNoTrace(GetParam(), 44100.0);
}

TEST_P(StretcherResetTest, ResetWithoutClearingFadesTheOldSoundOut)
{
    expectFadingResetFadesTheOldSoundOut(GetParam(), 44100.0);
}

INSTANTIATE_TEST_SUITE_P(Levels, StretcherResetTest,
                         ::testing::Values(StretchLevel::best, StretchLevel::good,
                                           StretchLevel::lowCPU),
                         levelParamName);

// ---- Smooth changes -----------------------------------------------------------------------

/// A steady sine while pitch and time change several times: no gap (every 10 ms keeps most of
/// the level; shorter windows would see the beating of two pitches inside a fade) and no click
/// (no step larger than the steepest sine involved allows). R2's transient detector resets
/// phases now and then on a shifted pure tone, with dips to a third of the level in steady
/// state, so its levels are only held to "no gap".
void expectChangesNeitherGapNorClick(StretchLevel level, double rate)
{
    constexpr double kHz = 300.0;
    StretchRig rig(configFor(level, rate), sineSignal(1, (long long)(rate * 20), kHz, rate));
    const StretchParameters steps[] = {
        {1.0, 1.0, false}, {1.0, 1.5, false}, {2.0, 1.5, false}, {2.0, 0.8, false},
        {0.5, 0.8, false}, {0.5, 1.0, true},  {1.3, 1.0, false},
    };
    Channels out;
    const long stepFrames = long(16384 * rate / 44100.0);
    for (const StretchParameters& step : steps) {
        rig.stretcher->setParameters(step);
        rig.render(out, stepFrames, 512);
    }
    const std::vector<float>& x = out[0];
    const double steepest = 2.0 * std::numbers::pi * kHz * 1.5 * 0.5 / rate;
    const std::size_t window = std::size_t(0.010 * rate);
    const double floor = level == StretchLevel::best ? 0.6 : 0.25;
    const auto settled = std::size_t(stepFrames / 2);
    for (std::size_t i = settled; i + window < x.size(); i += window) {
        SCOPED_TRACE("output frame " + std::to_string(i));
        EXPECT_GT(rms(x, i, window), floor * 0.5 / std::sqrt(2.0));
    }
    for (std::size_t i = settled + 1; i < x.size(); ++i) {
        ASSERT_LT(std::fabs(x[i] - x[i - 1]), 2.0 * steepest) << "output frame " << i;
    }
    EXPECT_EQ(rig.stretcher->statistics().crossfades, 6u);
}

class StretcherSmoothnessTest : public ::testing::TestWithParam<StretchLevel> {};

TEST_P(StretcherSmoothnessTest, ChangesNeitherGapNorClick)
{
    expectChangesNeitherGapNorClick(GetParam(), 44100.0);
}

INSTANTIATE_TEST_SUITE_P(Levels, StretcherSmoothnessTest,
                         ::testing::Values(StretchLevel::best, StretchLevel::good,
                                           StretchLevel::lowCPU),
                         levelParamName);

// At 88.2 kHz and above the best level runs Rubber Band at a lower rate between the rate
// divider's filters: resets and changes behave as they do at 44.1 kHz.
TEST(StretcherDividedRateTest, ResetsAndChangesAsAtTheLowRate)
{
    for (const double rate : {96000.0, 192000.0}) {
        SCOPED_TRACE(rate);
        expectClearingResetLeavesNoTrace(StretchLevel::best, rate);
        expectFadingResetFadesTheOldSoundOut(StretchLevel::best, rate);
        expectChangesNeitherGapNorClick(StretchLevel::best, rate);
    }
}

// ---- Formants -----------------------------------------------------------------------------

/// A 150 Hz buzz whose harmonics follow one resonance at 1 kHz, like a vowel.
Channels vowel(long long frames, double rate)
{
    Channels signal(1, std::vector<float>(static_cast<std::size_t>(frames)));
    for (long long i = 0; i < frames; ++i) {
        double s = 0.0;
        for (int h = 1; h * 150.0 < 5000.0; ++h) {
            const double f = h * 150.0;
            const double resonance = 1.0 / (1.0 + std::pow((f - 1000.0) / 150.0, 2.0));
            s += resonance * std::sin(2.0 * std::numbers::pi * f * double(i) / rate);
        }
        signal[0][std::size_t(i)] = float(0.3 * s);
    }
    return signal;
}

/// Energy of signal[from, from + length) within [lowHz, highHz), by a direct DFT over bins.
double bandEnergy(const std::vector<float>& x, std::size_t from, std::size_t length, double rate,
                  double lowHz, double highHz)
{
    double energy = 0.0;
    for (double hz = lowHz; hz < highHz; hz += rate / double(length)) {
        double re = 0.0, im = 0.0;
        for (std::size_t i = 0; i < length; ++i) {
            const double w = 0.5 - 0.5 * std::cos(2.0 * std::numbers::pi * double(i) / double(length));
            const double phase = 2.0 * std::numbers::pi * hz * double(i) / rate;
            re += w * x[from + i] * std::cos(phase);
            im += w * x[from + i] * std::sin(phase);
        }
        energy += re * re + im * im;
    }
    return energy;
}

class StretcherFormantTest : public ::testing::TestWithParam<StretchLevel> {};

// Transposed up a fifth, the vowel's resonance moves up with it unless formants are preserved,
// in which case it stays near 1 kHz.
TEST_P(StretcherFormantTest, PreservedFormantsStayInPlace)
{
    constexpr double kRate = 44100.0;
    const auto ratio = [&](bool preserve) {
        StretchRig rig(configFor(GetParam(), kRate), vowel((long long)(kRate * 2), kRate));
        rig.stretcher->setParameters({1.0, 1.5, preserve});
        Channels out;
        rig.render(out, long(kRate * 1.5), 512);
        const std::size_t from = std::size_t(kRate * 0.8), length = 4096;
        return bandEnergy(out[0], from, length, kRate, 800.0, 1250.0) /
               bandEnergy(out[0], from, length, kRate, 1300.0, 1750.0);
    };
    const double shifted = ratio(false);
    const double preserved = ratio(true);
    EXPECT_LT(shifted, 1.0) << "the resonance moved up to 1.5 kHz";
    EXPECT_GT(preserved, 1.2) << "the resonance stayed at 1 kHz";
    EXPECT_GT(preserved, 3.0 * shifted);
}

INSTANTIATE_TEST_SUITE_P(Levels, StretcherFormantTest,
                         ::testing::Values(StretchLevel::best, StretchLevel::good),
                         levelParamName);

// ---- Input --------------------------------------------------------------------------------

long nothing(float**, long, void*) noexcept
{
    return 0;
}

// A callback that supplies nothing (the end of the file) gives silence, not noise.
TEST(StretcherInputTest, MissingInputIsSilence)
{
    auto stretcher = Stretcher::create(configFor(StretchLevel::best), nothing, nullptr);
    ASSERT_NE(stretcher, nullptr);
    stretcher->setParameters({1.7, 1.3, false});
    std::vector<float> out(512, 1.0f);
    float* pointers[1] = {out.data()};
    for (int slice = 0; slice < 40; ++slice) {
        ASSERT_EQ(stretcher->process(pointers, 512), 512);
        for (float s : out) {
            ASSERT_EQ(s, 0.0f);
        }
    }
}

class StretcherPullTest
    : public ::testing::TestWithParam<std::tuple<StretchLevel, double>> {};

// The engine's range tracker has three slots: one per pulled block, freed as the output heard
// passes the block's end. At every slice boundary at most three pulled blocks may still be
// (partly) unheard, heard input being output frames / time factor.
TEST_P(StretcherPullTest, AtMostThreeBlocksAwaitHearing)
{
    const auto [level, tf] = GetParam();
    StretchRig rig(configFor(level), sineSignal(1, 44100 * 30, 220.0, 44100.0));
    rig.stretcher->setParameters({tf, 1.0, false});
    Channels out;
    std::size_t worst = 0;
    for (int slice = 0; slice < 250; ++slice) {
        rig.render(out, 512, 512);
        const double heard = double(out[0].size()) / tf;
        std::size_t waiting = 0;
        for (const auto& pull : rig.source->pulls()) {
            if (double(pull.start + pull.frames) > heard) {
                ++waiting;
            }
        }
        worst = std::max(worst, waiting);
    }
    EXPECT_LE(worst, 3u);
    for (const auto& pull : rig.source->pulls()) {
        EXPECT_GE(pull.frames, Stretcher::kMinPullFrames);
        EXPECT_LE(pull.frames, Stretcher::kMaxPullFrames);
    }
}

INSTANTIATE_TEST_SUITE_P(Factors, StretcherPullTest,
                         ::testing::Combine(::testing::Values(StretchLevel::best,
                                                              StretchLevel::good,
                                                              StretchLevel::lowCPU),
                                            ::testing::Values(0.25, 0.5, 1.0, 2.0, 4.0)),
                         [](const auto& param) {
                             return levelName(std::get<0>(param.param)) + "_tf" +
                                    std::to_string(int(std::get<1>(param.param) * 100));
                         });

} // namespace
