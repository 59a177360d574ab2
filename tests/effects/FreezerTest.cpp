// The freezer: sustained level and pitch, no repetition, cross-fades between windows, accurate
// transposition, and a window handed over from another thread while synthesis runs.
#include "audio/effects/Freezer.h"

#include "../isolation/TestSignals.h"
#include "RealtimeGuard.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

using namespace vell;
using namespace vell::test;
using vell::BRIXEffect::Freezer;

namespace {

constexpr int kRate = 44100;

/// Synthesises frames frames of every channel in blocks of block.
Channels synthesise(Freezer& freezer, std::size_t frames, int block = 512)
{
    Channels out = makeChannels(freezer.channelCount(), frames);
    std::vector<float*> pointers(out.size());
    for (std::size_t done = 0; done < frames; done += std::size_t(block)) {
        const int n = int(std::min<std::size_t>(std::size_t(block), frames - done));
        for (std::size_t c = 0; c < out.size(); ++c)
            pointers[c] = out[c].data() + done;
        freezer.process(nullptr, 0, pointers.data(), n);
    }
    return out;
}

void freeze(Freezer& freezer, const Channels& window)
{
    std::vector<const float*> pointers;
    for (const auto& channel : window)
        pointers.push_back(channel.data());
    freezer.setFrozenWindow(pointers.data(), int(window[0].size()));
}

Channels sineWindow(double hz, double amplitude, double rightGain = 1.0, unsigned seed = 3)
{
    const auto s = sines({hz}, amplitude, kRate, 4096, seed);
    Channels w = makeChannels(2, 4096);
    for (std::size_t n = 0; n < 4096; ++n) {
        w[0][n] = s[n];
        w[1][n] = float(rightGain * s[n]);
    }
    return w;
}

Channels noiseWindow(float sigma, bool sameInBoth, unsigned seed = 5)
{
    std::mt19937 random(seed);
    std::normal_distribution<float> noise(0.0f, sigma);
    Channels w = makeChannels(2, 4096);
    for (std::size_t n = 0; n < 4096; ++n) {
        w[0][n] = noise(random);
        w[1][n] = sameInBoth ? w[0][n] : noise(random);
    }
    return w;
}

double rms(const std::vector<float>& x, std::size_t from, std::size_t to)
{
    double sum = 0.0;
    for (std::size_t n = from; n < to; ++n)
        sum += double(x[n]) * x[n];
    return std::sqrt(sum / double(to - from));
}

/// The root-mean-square level a Hann-weighted look at the window sees (what the freezer holds).
double windowLevel(const std::vector<float>& x)
{
    double sum = 0.0, weight = 0.0;
    for (std::size_t n = 0; n < x.size(); ++n) {
        const double w = 0.5 - 0.5 * std::cos(2.0 * std::numbers::pi * n / x.size());
        sum += w * w * double(x[n]) * x[n];
        weight += w * w;
    }
    return std::sqrt(sum / weight);
}

/// The level of x[from, to) in dB relative to a sine of the given amplitude.
double sineLevel(const std::vector<float>& x, std::size_t from, std::size_t to, double amplitude)
{
    return decibels(rms(x, from, to) / (amplitude / std::sqrt(2.0)));
}

/// The frequency of the strongest sine near guess, found to a hundredth of a hertz.
double peakFrequency(const std::vector<float>& x, std::size_t start, std::size_t length,
                     double guess, double rate = kRate)
{
    double best = guess, bestAmplitude = -1.0;
    for (double step : {0.5, 0.05, 0.01}) {
        const double centre = best;
        for (double f = centre - 20 * step; f <= centre + 20 * step; f += step) {
            const double a = toneAmplitude(x, start, length, f, rate);
            if (a > bestAmplitude) {
                bestAmplitude = a;
                best = f;
            }
        }
    }
    return best;
}

double cents(double f, double reference)
{
    return 1200.0 * std::log2(f / reference);
}

} // namespace

TEST(FreezerTest, IsSilentUntilAWindowIsSetThenHoldsASineAtItsPitchAndLevelForAMinute)
{
    Freezer freezer(kRate, 2, 4096);
    EXPECT_EQ(rms(synthesise(freezer, 10000)[0], 0, 10000), 0.0);
    freeze(freezer, sineWindow(440, 0.5, 0.5));
    freezer.reset(); // keeps the window
    const Channels out = synthesise(freezer, 60 * kRate, 1024);
    // Starting from silence it fades in, it does not jump in.
    EXPECT_LT(std::abs(out[0][0]), 1e-3);
    EXPECT_LT(largestStep(out[0], 0, kRate), 2.0 * std::numbers::pi * 440 / kRate * 0.5 * 1.05);
    for (std::size_t second = 1; second < 60; second += 6) {
        SCOPED_TRACE(second);
        const std::size_t at = second * kRate;
        EXPECT_NEAR(sineLevel(out[0], at, at + kRate, 0.5), 0.0, 0.05);
        // The stereo image stays: the right channel at half the left's level.
        EXPECT_NEAR(decibels(rms(out[1], at, at + kRate) / rms(out[0], at, at + kRate)),
                    decibels(0.5), 0.05);
    }
    EXPECT_NEAR(cents(peakFrequency(out[0], 59 * kRate - 32768, 32768, 440.0), 440.0), 0.0, 1.0);
}

TEST(FreezerTest, HoldsNoiseAtItsLevelWithoutDriftOrRepetition)
{
    Freezer freezer(kRate, 2, 4096);
    const Channels window = noiseWindow(0.2f, false);
    freeze(freezer, window);
    const Channels out = synthesise(freezer, 60 * kRate, 1024);
    for (int c = 0; c < 2; ++c) {
        SCOPED_TRACE(c);
        const double target = windowLevel(window[c]);
        double lowest = 1e9, highest = 0.0;
        for (std::size_t second = 1; second < 60; ++second) {
            const double level = rms(out[c], second * kRate, (second + 1) * kRate);
            lowest = std::min(lowest, level);
            highest = std::max(highest, level);
        }
        EXPECT_NEAR(decibels(lowest / target), 0.0, 0.5);
        EXPECT_NEAR(decibels(highest / target), 0.0, 0.5);
    }

    // Never the same stretch twice: compare a stretch with later stretches at every multiple of
    // the hop (where a looping freezer would repeat) out to two seconds.
    const std::size_t start = 5 * kRate, length = 8192;
    auto correlation = [&](std::size_t lag) {
        double xy = 0.0, xx = 0.0, yy = 0.0;
        for (std::size_t n = 0; n < length; ++n) {
            const double x = out[0][start + n], y = out[0][start + lag + n];
            xy += x * y;
            xx += x * x;
            yy += y * y;
        }
        return xy / std::sqrt(xx * yy);
    };
    double worst = 0.0;
    for (std::size_t lag = 1024; lag <= 2 * std::size_t(kRate); lag += 1024)
        worst = std::max(worst, std::abs(correlation(lag)));
    EXPECT_LT(worst, 0.2);

    // Noise the same in both channels stays centred once the new window has faded in.
    freeze(freezer, noiseWindow(0.1f, true));
    const Channels centred = synthesise(freezer, 2 * kRate);
    for (std::size_t n = kRate; n < 2 * std::size_t(kRate); ++n)
        ASSERT_NEAR(centred[0][n], centred[1][n], 1e-5) << n;
}

TEST(FreezerTest, PitchShiftIsAccurateInBothDirectionsAndChangesWithoutAClick)
{
    Freezer freezer(kRate, 2, 4096);
    freeze(freezer, sineWindow(440, 0.5));
    std::vector<float> out;
    for (float semitones : {2.0f, -12.0f, 7.0f, 0.5f}) {
        SCOPED_TRACE(semitones);
        freezer.pitchShift(semitones); // while running: measured once it has settled
        const Channels part = synthesise(freezer, 2 * kRate, 128);
        out.insert(out.end(), part[0].begin(), part[0].end());
        const double expected = 440.0 * std::exp2(semitones / 12.0);
        EXPECT_NEAR(cents(peakFrequency(part[0], kRate, 32768, expected), expected), 0.0, 5.0);
        EXPECT_NEAR(sineLevel(part[0], kRate, 2 * kRate, 0.5), 0.0, 0.1);
    }
    // Never faster than the highest of the sines moves.
    EXPECT_LE(largestStep(out, 5000, out.size()), 2.0 * std::numbers::pi * 660 / kRate * 0.5 * 1.1);
    freezer.pitchShift(100.0f);
    EXPECT_FLOAT_EQ(freezer.pitchShiftSemitones(), Freezer::kMaxPitchShift);
}

TEST(FreezerTest, ShiftingUpRemovesWhatWouldPassNyquistInsteadOfFoldingIt)
{
    Freezer freezer(kRate, 2, 4096);
    freeze(freezer, sineWindow(18000, 0.5));
    freezer.pitchShift(7.0f); // 18 kHz would land on 27 kHz, above Nyquist, and fold to 17 kHz
    const Channels out = synthesise(freezer, kRate);
    EXPECT_LT(rms(out[0], kRate / 2, kRate), 0.01 * 0.5);
}

TEST(FreezerTest, ANewWindowCrossFadesIn)
{
    Freezer freezer(kRate, 2, 4096);
    freeze(freezer, sineWindow(440, 0.4));
    Channels first = synthesise(freezer, 20000);
    freeze(freezer, sineWindow(660, 0.4));
    Channels second = synthesise(freezer, 20000);
    std::vector<float> joined = first[0];
    joined.insert(joined.end(), second[0].begin(), second[0].end());

    // No click at the change: never faster than the faster sine moves.
    EXPECT_LE(largestStep(joined, 10000, 40000), 2.0 * std::numbers::pi * 660 / kRate * 0.4 * 1.1);
    // A fade, not a cut: just after the change both are sounding; a frame later only the new.
    EXPECT_GT(toneAmplitude(joined, 20000 + 1024, 2048, 440, kRate), 0.05);
    EXPECT_GT(toneAmplitude(joined, 20000 + 1024, 2048, 660, kRate), 0.05);
    EXPECT_LT(toneAmplitude(joined, 20000 + 6000, 8192, 440, kRate), 0.004);
    EXPECT_NEAR(toneAmplitude(joined, 20000 + 6000, 8192, 660, kRate), 0.4, 0.01);
}

TEST(FreezerTest, MovingTheWindowAlongAHeldNoteKeepsItSteady)
{
    // Windows cut at different places of one long sine: the tone must not dip at each change.
    const auto tone = sines({523.25}, 0.4, kRate, 20 * 4096, 4);
    Freezer freezer(kRate, 2, 4096);
    std::vector<float> out;
    for (int change = 0; change < 12; ++change) {
        const float* w[2] = {tone.data() + change * 3001, tone.data() + change * 3001};
        freezer.setFrozenWindow(w, 4096);
        const Channels part = synthesise(freezer, 5000, 250);
        out.insert(out.end(), part[0].begin(), part[0].end());
    }
    for (std::size_t at = 8192; at + 512 <= out.size(); at += 512)
        ASSERT_NEAR(sineLevel(out, at, at + 512, 0.4), 0.0, 0.5) << at;
}

TEST(FreezerTest, ShortWindowsAndMonoWork)
{
    Freezer mono(48000, 1, 4096);
    const auto s = sines({1000.0}, 0.3, 48000, 2000, 2);
    const float* w[1] = {s.data()};
    mono.setFrozenWindow(w, 2000);
    const Channels out = synthesise(mono, 48000);
    EXPECT_NEAR(sineLevel(out[0], 12000, 48000, 0.3), 0.0, 1.0);
    EXPECT_NEAR(cents(peakFrequency(out[0], 12000, 32768, 1000.0, 48000), 1000.0), 0.0, 5.0);
}

TEST(FreezerTest, SynthesisAndWindowChangesAllocateNothing)
{
    Freezer freezer(kRate, 2, 4096);
    const Channels a = sineWindow(440, 0.3);
    const Channels b = noiseWindow(0.1f, false);
    Channels out = makeChannels(2, 4096);
    const auto counts = countRealtimeViolations([&] {
        for (int i = 0; i < 20; ++i) {
            const Channels& window = i % 2 ? a : b;
            const float* w[2] = {window[0].data(), window[1].data()};
            freezer.setFrozenWindow(w, 4096);
            freezer.pitchShift(float(i % 5) - 2.0f);
            float* o[2] = {out[0].data(), out[1].data()};
            freezer.process(nullptr, 0, o, 4096);
        }
        freezer.reset();
    });
    EXPECT_EQ(counts.total(), 0u);
}

TEST(FreezerTest, WindowsMayArriveFromAnotherThreadDuringSynthesis)
{
    Freezer freezer(kRate, 2, 4096);
    const Channels a = sineWindow(440, 0.3);
    const Channels b = sineWindow(880, 0.3);
    std::atomic<bool> done{false};
    std::thread control([&] {
        for (int i = 0; !done; ++i) {
            const Channels& window = i % 2 ? a : b;
            const float* w[2] = {window[0].data(), window[1].data()};
            freezer.setFrozenWindow(w, 4096);
            freezer.pitchShift(float(i % 3));
        }
    });
    Channels out = makeChannels(2, 256);
    double peak = 0.0;
    for (int block = 0; block < 2000; ++block) {
        float* o[2] = {out[0].data(), out[1].data()};
        freezer.process(nullptr, 0, o, 256);
        for (float v : out[0]) {
            ASSERT_TRUE(std::isfinite(v));
            peak = std::max(peak, double(std::abs(v)));
        }
    }
    done = true;
    control.join();
    // Whole windows only: a half-written analysis would show up as level far off the sines'.
    EXPECT_LT(peak, 0.6);
    EXPECT_GT(peak, 0.1);
}
