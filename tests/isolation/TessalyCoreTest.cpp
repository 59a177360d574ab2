// The isolation engine through its C interface: transparency, selection by position and band,
// bypass switching, the published spectrum and power spread, and the real-time contract.
#include <VellAudio/TessalyCore.h>

#include "RealtimeGuard.h"
#include "TestSignals.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <functional>
#include <limits>
#include <memory>
#include <numeric>
#include <thread>

using namespace vell;
using namespace vell::test;

namespace {

constexpr uint32_t kMaxFrames = 8192;

using Instance = std::unique_ptr<TessalyInstance, decltype(&TessalyDestroy)>;

Instance makeInstance(uint32_t sampleRate, uint32_t channels = 2)
{
    Instance instance(TessalyCreate(sampleRate, channels, kMaxFrames), &TessalyDestroy);
    EXPECT_NE(instance, nullptr);
    return instance;
}

/// Settings of a live (not bypassed) engine.
void select(TessalyInstance* t, float pan, float width, float startHz, float endHz,
            bool mute = false)
{
    TessalySetBypass(t, false);
    TessalySetMute(t, mute);
    TessalySetPan(t, pan);
    TessalySetPanWidth(t, width);
    TessalySetStartFrequencyHz(t, startHz);
    TessalySetEndFrequencyHz(t, endHz);
}

std::size_t latencyOf(const Instance& t)
{
    return std::size_t(TessalyGetLatency(t.get()));
}

/// Streams input (one or two channels) through the engine into output, in place when they are
/// the same, in blocks of blockSize (0: random sizes), calling beforeBlock(frames done) before
/// each. Allocates nothing.
void process(TessalyInstance* t, const Channels& input, Channels& output, int blockSize,
             const std::function<void(std::size_t)>& beforeBlock = {})
{
    BlockSizes sizes(blockSize);
    const float* in[2];
    float* out[2];
    for (std::size_t done = 0, frames = input[0].size(); done < frames;) {
        const std::size_t n = std::min<std::size_t>(std::size_t(sizes.next()), frames - done);
        for (std::size_t c = 0; c < input.size(); ++c) {
            in[c] = input[c].data() + done;
            out[c] = output[c].data() + done;
        }
        if (beforeBlock)
            beforeBlock(done);
        EXPECT_EQ(TessalyProcess(t, in, uint32_t(n), out, uint32_t(n)), 0);
        done += n;
    }
}

/// The output of streaming input through the engine, out of place or in place.
Channels run(TessalyInstance* t, const Channels& input, int blockSize = 512, bool inPlace = false)
{
    Channels output = inPlace ? input : makeChannels(int(input.size()), input[0].size());
    process(t, inPlace ? output : input, output, blockSize);
    return output;
}

/// On every channel: kept partials stay within keptWithin dB, removed ones fall below
/// removedBelow dB.
void expectKept(const LevelChange& change, const std::vector<double>& partials, bool kept,
                double removedBelow = -25.0, double keptWithin = 1.0)
{
    for (std::size_t c = 0; c < change.in.size(); ++c) {
        const double db = change.partials(c, partials);
        if (kept)
            EXPECT_NEAR(db, 0.0, keptWithin) << "channel " << c << " at " << partials[0] << " Hz";
        else
            EXPECT_LT(db, removedBelow) << "channel " << c << " at " << partials[0] << " Hz";
    }
}

/// A stereo mix of broadband noise: a fair test of reconstruction at every frequency.
Channels noiseMix(std::size_t frames)
{
    Channels mix = makeChannels(2, frames);
    std::mt19937 random(3);
    std::normal_distribution<float> noise(0.0f, 0.2f);
    for (std::size_t n = 0; n < frames; ++n) {
        const float common = noise(random);
        mix[0][n] = common + 0.5f * noise(random);
        mix[1][n] = 0.7f * common + 0.5f * noise(random);
    }
    return mix;
}

struct Sources {
    std::vector<double> partials[3]; // of the sources at 0.1, 0.5 and 0.9 that no other shares
    Channels mix;
};

/// Three harmonic tones at pan 0.1, 0.5 and 0.9 on 200, 300 and 500 Hz: their partials overlap
/// (600, 1000, 1200, 1500 Hz ... are shared), so the spectra interleave and touch.
Sources threeSources(double sampleRate, std::size_t frames)
{
    Sources s;
    s.mix = makeChannels(2, frames);
    const double f0[3] = {200, 300, 500}, pan[3] = {0.1, 0.5, 0.9};
    const int count[3] = {20, 14, 8};
    for (int i = 0; i < 3; ++i) {
        const auto partials = harmonics(f0[i], count[i]);
        addPanned(s.mix, sines(partials, 0.05, sampleRate, frames, 11 + unsigned(i)), pan[i]);
        for (double f : partials) {
            bool shared = false;
            for (int j = 0; j < 3; ++j)
                shared = shared || (j != i && std::fmod(f, f0[j]) == 0.0);
            if (!shared)
                s.partials[i].push_back(f);
        }
    }
    return s;
}

} // namespace

TEST(TessalyCoreTest, CreationChecksItsArgumentsAndStartsWithTheDefaults)
{
    EXPECT_EQ(TessalyCreate(0, 2, kMaxFrames), nullptr);
    EXPECT_EQ(TessalyCreate(44100, 0, kMaxFrames), nullptr);
    EXPECT_EQ(TessalyCreate(44100, 2, 0), nullptr);
    EXPECT_EQ(TessalyCreate(44100, 1000, kMaxFrames), nullptr);

    Instance t = makeInstance(48000);
    EXPECT_TRUE(TessalyGetBypass(t.get()));
    EXPECT_FALSE(TessalyGetMute(t.get()));
    EXPECT_FLOAT_EQ(TessalyPan(t.get()), 0.5f);
    EXPECT_FLOAT_EQ(TessalyPanWidth(t.get()), 1.0f);
    EXPECT_FLOAT_EQ(TessalyGetStartFrequencyHz(t.get()), 20.0f);
    EXPECT_FLOAT_EQ(TessalyGetEndFrequencyHz(t.get()), 24000.0f);
    EXPECT_EQ(TessalyGetSpectrumLength(t.get()), 2048u);
    EXPECT_GT(latencyOf(t), 0u);
    EXPECT_LE(latencyOf(t), 4096u);
}

TEST(TessalyCoreTest, SettersClampOutOfRangeValuesIgnoreNaNAndProcessRejectsBadArguments)
{
    Instance t = makeInstance(44100);
    TessalySetPan(t.get(), 1.5f);
    EXPECT_FLOAT_EQ(TessalyPan(t.get()), 1.0f);
    TessalySetPan(t.get(), 0.25f);
    TessalySetPan(t.get(), std::numeric_limits<float>::quiet_NaN());
    EXPECT_FLOAT_EQ(TessalyPan(t.get()), 0.25f);
    TessalySetPanWidth(t.get(), -0.5f);
    EXPECT_FLOAT_EQ(TessalyPanWidth(t.get()), 0.0f);
    TessalySetStartFrequencyHz(t.get(), -100.0f);
    EXPECT_FLOAT_EQ(TessalyGetStartFrequencyHz(t.get()), 0.0f);
    TessalySetEndFrequencyHz(t.get(), 1234.5f);
    EXPECT_FLOAT_EQ(TessalyGetEndFrequencyHz(t.get()), 1234.5f);

    // Bad process calls fail without touching the output.
    std::vector<float> a(16, 1.0f), b(16, 7.0f);
    const float* in[2] = {a.data(), a.data()};
    const float* missing[2] = {a.data(), nullptr};
    float* out[2] = {b.data(), b.data()};
    EXPECT_EQ(TessalyProcess(t.get(), in, 16, out, 8), -1);
    EXPECT_EQ(TessalyProcess(t.get(), in, kMaxFrames + 1, out, kMaxFrames + 1), -1);
    EXPECT_EQ(TessalyProcess(t.get(), missing, 16, out, 16), -1);
    EXPECT_EQ(b[0], 7.0f);
}

// Every setting that lets everything through, and bypass, reproduce the input delayed by the
// latency, however the stream is cut into blocks and at every common rate.
class TransparencyTest : public ::testing::TestWithParam<std::tuple<uint32_t, int>> {};

TEST_P(TransparencyTest, FullFieldAndBandOrBypassReproduceTheDelayedInput)
{
    const auto [sampleRate, blockSize] = GetParam();
    const std::size_t frames = 5 * 4096 + 1234;
    const Channels input = noiseMix(frames);
    for (bool bypass : {false, true}) {
        SCOPED_TRACE(bypass ? "bypassed" : "full field and band");
        Instance t = makeInstance(sampleRate);
        // Bypassed, settings that would remove everything must be ignored.
        if (bypass)
            select(t.get(), 0.5f, 0.0f, 1000.0f, 1100.0f);
        else
            select(t.get(), 0.5f, 1.0f, 20.0f, float(sampleRate) / 2);
        TessalySetBypass(t.get(), bypass);
        const Channels output = run(t.get(), input, blockSize);
        const std::size_t latency = latencyOf(t);
        for (int c = 0; c < 2; ++c) {
            if (bypass) {
                for (std::size_t n = 0; n < frames; ++n)
                    ASSERT_EQ(output[c][n], n < latency ? 0.0f : input[c][n - latency]) << n;
            } else {
                EXPECT_LT(residualDecibels(output[c], input[c], latency, latency, frames), -80.0);
                // Nothing comes out before the latency has passed.
                EXPECT_LT(largestStep(output[c], 0, latency), 1e-6);
            }
        }
    }
}

INSTANTIATE_TEST_SUITE_P(RatesAndBlocks, TransparencyTest,
                         ::testing::Combine(::testing::Values(44100u, 48000u, 96000u),
                                            ::testing::Values(64, 512, 4096, 8192, 0)));

TEST(TessalyCoreTest, InPlaceRandomBlocksAndResetGiveTheSameOutput)
{
    const Channels input = threeSources(44100, 20000).mix;
    Instance t = makeInstance(44100);
    select(t.get(), 0.3f, 0.4f, 100.0f, 5000.0f);
    const Channels expected = run(t.get(), input, 4096);
    TessalyReset(t.get()); // forgets the past completely
    EXPECT_EQ(run(t.get(), input, 0, /*inPlace*/ true), expected);
}

TEST(TessalyCoreTest, SelectingByPositionKeepsTheChosenSourcesAndRemovesTheOthers)
{
    // Keep the left source (at 44.1 kHz), or mute the centre one (at 48 kHz, random blocks).
    struct Case {
        double rate;
        float pan;
        bool mute;
        int block;
        bool kept[3];
    };
    for (const Case& k : {Case{44100, 0.1f, false, 512, {true, false, false}},
                          Case{48000, 0.5f, true, 0, {true, false, true}}}) {
        SCOPED_TRACE(k.mute ? "mute centre" : "keep left");
        const Sources s = threeSources(k.rate, 3 * std::size_t(k.rate));
        Instance t = makeInstance(uint32_t(k.rate));
        select(t.get(), k.pan, 0.2f, 20.0f, float(k.rate / 2), k.mute);
        const Channels out = run(t.get(), s.mix, k.block);
        const LevelChange change{s.mix, out, latencyOf(t), std::size_t(k.rate), 65536, k.rate};
        for (int i = 0; i < 3; ++i)
            expectKept(change, s.partials[i], k.kept[i]);
    }
}

TEST(TessalyCoreTest, OverlappingNoiseBandsSeparateWhereOneSourceDominates)
{
    // Noise sources whose bands overlap pairwise: 200-3000 Hz left, 1500-6000 Hz centre,
    // 4500-9000 Hz right. Measured in the stretches where one source is alone.
    const double rate = 44100;
    const std::size_t frames = 2 * 44100;
    Channels mix = makeChannels(2, frames);
    addPanned(mix, noiseBand(200, 3000, 0.3, rate, frames, 21), 0.1);
    addPanned(mix, noiseBand(1500, 6000, 0.3, rate, frames, 22), 0.5);
    addPanned(mix, noiseBand(4500, 9000, 0.3, rate, frames, 23), 0.9);

    Instance t = makeInstance(44100);
    select(t.get(), 0.1f, 0.2f, 20.0f, 22050.0f);
    const Channels out = run(t.get(), mix);
    const LevelChange change{mix, out, latencyOf(t), 22050, 32768, rate};
    for (std::size_t c = 0; c < 2; ++c) {
        SCOPED_TRACE(c);
        EXPECT_NEAR(change.band(c, 300, 1400), 0.0, 1.0);
        EXPECT_LT(change.band(c, 3200, 4300), -25.0); // the centre source alone
        EXPECT_LT(change.band(c, 6200, 8800), -25.0); // the right source alone
    }
}

TEST(TessalyCoreTest, ABandKeepsItsInsideAndRemovesTonesFarOutside)
{
    const double rate = 44100;
    const std::size_t frames = 2 * 44100;
    const double tones[3] = {100, 1000, 8000};
    Channels mix = makeChannels(2, frames);
    addPanned(mix, sines({tones[0]}, 0.3, rate, frames, 1), 0.5);
    addPanned(mix, sines({tones[1]}, 0.3, rate, frames, 2), 0.3);
    addPanned(mix, sines({tones[2]}, 0.3, rate, frames, 3), 0.8);

    // The band, muted or not; a start above the end selects nothing.
    struct Case {
        float start, end;
        bool mute;
        bool kept[3];
    };
    for (const Case& k :
         {Case{500, 2000, false, {false, true, false}}, Case{500, 2000, true, {true, false, true}},
          Case{4000, 300, false, {false, false, false}}}) {
        SCOPED_TRACE(::testing::Message() << k.start << "-" << k.end << (k.mute ? " muted" : ""));
        Instance t = makeInstance(44100);
        select(t.get(), 0.5f, 1.0f, k.start, k.end, k.mute);
        const Channels out = run(t.get(), mix, 0);
        const LevelChange change{mix, out, latencyOf(t), 30000, 32768, rate};
        for (int i = 0; i < 3; ++i)
            expectKept(change, {tones[i]}, k.kept[i], -40.0, 0.5);
    }
}

TEST(TessalyCoreTest, ACentreSelectionDropsOutOfPhaseContent)
{
    const double rate = 44100;
    const std::size_t frames = 2 * 44100;
    Channels mix = makeChannels(2, frames);
    const auto inPhase = sines(harmonics(220, 10), 0.05, rate, frames, 5);
    const auto antiPhase = sines(harmonics(370, 6), 0.05, rate, frames, 6);
    for (std::size_t n = 0; n < frames; ++n) {
        mix[0][n] = inPhase[n] + antiPhase[n];
        mix[1][n] = inPhase[n] - antiPhase[n];
    }
    Instance t = makeInstance(44100);
    select(t.get(), 0.5f, 0.2f, 20.0f, 22050.0f);
    const Channels out = run(t.get(), mix);
    const LevelChange change{mix, out, latencyOf(t), 22050, 32768, rate};
    expectKept(change, {220, 440, 660, 880, 1100, 1320}, true);
    expectKept(change, harmonics(370, 6), false);
}

TEST(TessalyCoreTest, MonoEnginesFilterByBandAndTreatEverythingAsCentre)
{
    const std::size_t frames = 50000;
    const Channels mono{sines({150.0, 1200.0}, 0.3, 44100, frames)};
    Instance t = makeInstance(44100, 1);
    select(t.get(), 0.5f, 0.3f, 800.0f, 3000.0f);
    const Channels out = run(t.get(), mono);
    const LevelChange change{mono, out, latencyOf(t), 20000, 16384, 44100};
    expectKept(change, {150.0}, false, -40.0);
    expectKept(change, {1200.0}, true, 0.0, 0.5);
}

TEST(TessalyCoreTest, SwitchingBypassWhileRunningNeitherClicksNorJumps)
{
    const double rate = 44100;
    const std::size_t frames = 4 * 44100;
    Channels mix = makeChannels(2, frames);
    addPanned(mix, sines({110.0, 990.0}, 0.4, rate, frames, 8), 0.5);
    addPanned(mix, sines({2500.0}, 0.4, rate, frames, 9), 0.0);
    const double inputStep =
        std::max(largestStep(mix[0], 0, frames), largestStep(mix[1], 0, frames));

    Instance t = makeInstance(44100);
    // A setting that changes the sound a lot: keep 500-2000 Hz at the centre.
    select(t.get(), 0.5f, 0.2f, 500.0f, 2000.0f);
    TessalySetBypass(t.get(), true);
    Channels out = makeChannels(2, frames);
    const std::size_t switches[] = {30000, 60011, 90500, 120007};
    std::size_t next = 0;
    process(t.get(), mix, out, 300, [&](std::size_t done) {
        if (next < std::size(switches) && done >= switches[next]) {
            TessalySetBypass(t.get(), !TessalyGetBypass(t.get()));
            ++next;
        }
    });
    const std::size_t latency = latencyOf(t);
    for (int c = 0; c < 2; ++c) {
        SCOPED_TRACE(c);
        // No click: the output never moves faster than the input does (after the input's own
        // onset, which comes out at the latency).
        EXPECT_LE(largestStep(out[c], latency + 1, frames), inputStep * 1.05);
        // No jump in time: the kept 990 Hz partial stays in phase with the delayed input across
        // every switch.
        for (std::size_t at : {20000, 50000, 80000, 110000, 150000}) {
            std::vector<float> diff(4096);
            for (std::size_t n = 0; n < 4096; ++n)
                diff[n] = out[c][at + n] - mix[c][at + n - latency];
            EXPECT_LT(toneAmplitude(diff, 0, 4096, 990.0, rate),
                      0.1 * toneAmplitude(out[c], at, 4096, 990.0, rate))
                << at;
        }
        // Bypassed from 60011 on: the exact delayed input once the last processed frame is out.
        for (std::size_t n = 60011 + 6 * 1024; n < 90500; ++n)
            ASSERT_EQ(out[c][n], mix[c][n - latency]) << n;
    }
}

TEST(TessalyCoreTest, TheSpectrumShowsTheIsolatedOutput)
{
    const double rate = 44100;
    const std::size_t frames = 20000;
    // A full-scale 1 kHz sine on the left and a 5 kHz sine on the right.
    Channels mix = makeChannels(2, frames);
    mix[0] = sines({1000.0}, 1.0, rate, frames, 1);
    mix[1] = sines({5000.0}, 0.5, rate, frames, 2);
    Instance t = makeInstance(44100);
    const uint32_t length = TessalyGetSpectrumLength(t.get());
    std::vector<float> left(length + 10, -1.0f), right(length + 10, -1.0f);
    float* spectra[2] = {left.data(), right.data()};
    auto binOf = [&](double hz) { return std::size_t(std::lround(hz * 2 * length / rate)); };

    // Bypassed: the input's spectrum. A full-scale sine reads about +60 dB.
    run(t.get(), mix);
    TessalyGetIsolatedSpectrum(t.get(), spectra, int32_t(length + 10));
    EXPECT_NEAR(decibels(left[binOf(1000)]), 62.0, 2.0);
    EXPECT_NEAR(decibels(right[binOf(5000)]), 56.0, 2.0);
    EXPECT_LT(left[binOf(5000)], left[binOf(1000)] * 1e-4);
    EXPECT_EQ(left[length + 5], 0.0f); // beyond the spectrum length: zeroed

    // A band that holds 5 kHz only: the 1 kHz peak leaves the spectrum.
    TessalyReset(t.get());
    select(t.get(), 0.5f, 1.0f, 3000.0f, 8000.0f);
    run(t.get(), mix);
    TessalyGetIsolatedSpectrum(t.get(), spectra, int32_t(length));
    EXPECT_LT(decibels(left[binOf(1000)]), 62.0 - 60.0);
    EXPECT_NEAR(decibels(right[binOf(5000)]), 56.0, 2.0);

    // A negative length writes nothing.
    left.assign(left.size(), -1.0f);
    TessalyGetIsolatedSpectrum(t.get(), spectra, -5);
    EXPECT_EQ(left[0], -1.0f);
}

TEST(TessalyCoreTest, WithoutAnalysisABypassedEngineSoundsTheSameAndHoldsItsSpectrum)
{
    const double rate = 44100;
    const std::size_t frames = 3 * 44100;
    const Sources sources = threeSources(rate, frames);
    Instance analysing = makeInstance(44100);
    Instance quiet = makeInstance(44100);
    EXPECT_TRUE(TessalyGetAnalysisWhileBypassed(quiet.get()));
    TessalySetAnalysisWhileBypassed(quiet.get(), false);
    EXPECT_FALSE(TessalyGetAnalysisWhileBypassed(quiet.get()));

    // Bypassed for the first second, then both keep the source at 0.1. The engine that skipped
    // its analysis starts its statistics afresh and settles on the same output.
    const std::size_t switchAt = 44100;
    Channels out[2] = {makeChannels(2, frames), makeChannels(2, frames)};
    int i = 0;
    for (TessalyInstance* t : {analysing.get(), quiet.get()}) {
        process(t, sources.mix, out[i++], 512, [&](std::size_t done) {
            if (done >= switchAt && TessalyGetBypass(t))
                select(t, 0.1f, 0.2f, 0.0f, 30000.0f);
        });
    }
    const std::size_t settled = switchAt + 44100 / 2;
    for (int c = 0; c < 2; ++c) {
        for (std::size_t n = 0; n < switchAt; ++n)
            ASSERT_EQ(out[0][c][n], out[1][c][n]) << n;
        float worst = 0.0f;
        for (std::size_t n = settled; n < frames; ++n)
            worst = std::max(worst, std::abs(out[0][c][n] - out[1][c][n]));
        EXPECT_LT(worst, 1e-3f) << "channel " << c;
    }

    // The spectrum holds what was last analysed while the engine is bypassed without analysis.
    const uint32_t length = TessalyGetSpectrumLength(quiet.get());
    std::vector<float> left(length), right(length);
    float* spectra[2] = {left.data(), right.data()};
    auto peakHz = [&] {
        TessalyGetIsolatedSpectrum(quiet.get(), spectra, int32_t(length));
        return double(std::max_element(left.begin(), left.end()) - left.begin()) * rate /
               (2.0 * length);
    };
    Channels low = makeChannels(2, 20000), high = makeChannels(2, 20000);
    low[0] = low[1] = sines({1000.0}, 0.5, rate, 20000, 1);
    high[0] = high[1] = sines({5000.0}, 0.5, rate, 20000, 2);
    TessalySetBypass(quiet.get(), true);
    TessalySetAnalysisWhileBypassed(quiet.get(), true);
    run(quiet.get(), low);
    EXPECT_NEAR(peakHz(), 1000.0, 11.0);
    TessalySetAnalysisWhileBypassed(quiet.get(), false);
    run(quiet.get(), high);
    EXPECT_NEAR(peakHz(), 1000.0, 11.0);
    TessalySetAnalysisWhileBypassed(quiet.get(), true);
    run(quiet.get(), high);
    EXPECT_NEAR(peakHz(), 5000.0, 11.0);
}

TEST(TessalyCoreTest, ThePowerSpreadFindsSourcesWhereTheyArePanned)
{
    const double rate = 44100;
    const std::size_t frames = 30000;
    for (double position : {0.0, 0.25, 0.5, 1.0}) {
        SCOPED_TRACE(position);
        Channels mix = makeChannels(2, frames);
        addPanned(mix, noiseBand(300, 3000, 0.3, rate, frames, 4), position);
        Instance t = makeInstance(44100);
        run(t.get(), mix);

        TessalyPannedPowerSpread spread(128);
        spread.readFromTessalyInstance(t.get());
        const auto& power = spread.power();
        const auto peak = std::max_element(power.begin(), power.end()) - power.begin();
        EXPECT_NEAR(spread.positionOfSlot(int(peak)), position, 0.02);
        const double total = std::accumulate(power.begin(), power.end(), 0.0);
        EXPECT_GT(std::accumulate(power.begin() + std::max<std::ptrdiff_t>(peak - 2, 0),
                                  power.begin() + std::min<std::ptrdiff_t>(peak + 3, 128), 0.0),
                  0.95 * total);

        // A coarser spread holds the same power.
        TessalyPannedPowerSpread coarse(5);
        coarse.readFromTessalyInstance(t.get());
        EXPECT_NEAR(std::accumulate(coarse.power().begin(), coarse.power().end(), 0.0), total,
                    total * 1e-5);
    }
}

TEST(TessalyCoreTest, ProcessingAllocatesAndLocksNothing)
{
    const Sources s = threeSources(44100, 40000);
    Channels out = makeChannels(2, 40000);
    for (bool bypass : {false, true}) {
        Instance t = makeInstance(44100);
        select(t.get(), 0.2f, 0.3f, 100.0f, 5000.0f, true);
        TessalySetBypass(t.get(), bypass);
        // Settings change between blocks, as they do from the control thread.
        const std::function<void(std::size_t)> change = [&](std::size_t done) {
            TessalySetPan(t.get(), float(done % 7) / 7.0f);
            TessalySetBypass(t.get(), !TessalyGetBypass(t.get()));
        };
        const auto counts = countRealtimeViolations([&] {
            process(t.get(), s.mix, out, 0, change);
            TessalyReset(t.get());
        });
        EXPECT_EQ(counts.total(), 0u)
            << counts.allocations << " allocations, " << counts.locks << " locks";
    }
}

TEST(TessalyCoreTest, SettingsAndReadersRunBesideTheRenderThread)
{
    Instance t = makeInstance(44100);
    TessalySetBypass(t.get(), false);
    std::atomic<bool> done{false};
    std::thread render([&] {
        const Channels input = noiseMix(512);
        Channels output = makeChannels(2, 512);
        const float* in[2] = {input[0].data(), input[1].data()};
        float* out[2] = {output[0].data(), output[1].data()};
        for (int i = 0; i < 400; ++i)
            TessalyProcess(t.get(), in, 512, out, 512);
        done = true;
    });
    std::vector<float> left(2048), right(2048);
    float* spectra[2] = {left.data(), right.data()};
    TessalyPannedPowerSpread spread(128);
    int round = 0;
    while (!done) {
        TessalySetPan(t.get(), float(round % 10) / 10.0f);
        TessalySetPanWidth(t.get(), float(round % 3) / 3.0f);
        TessalySetMute(t.get(), round % 2 == 0);
        TessalySetStartFrequencyHz(t.get(), float(round % 500));
        TessalyGetIsolatedSpectrum(t.get(), spectra, 2048);
        spread.readFromTessalyInstance(t.get());
        ++round;
    }
    render.join();
    for (float v : left)
        ASSERT_TRUE(std::isfinite(v));
}
