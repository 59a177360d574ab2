// The isolation engine through its C interface: transparency, selection by position and band,
// bypass switching, the published spectrum and power spread, and the real-time contract.
#include <VellAudio/TessalyCore.h>

#include "RealtimeGuard.h"
#include "TestSignals.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <limits>
#include <memory>
#include <thread>

using namespace vell;
using namespace vell::test;

namespace {

constexpr uint32_t kMaxFrames = 8192;

struct InstanceDeleter {
    void operator()(TessalyInstance* instance) const { TessalyDestroy(instance); }
};
using Instance = std::unique_ptr<TessalyInstance, InstanceDeleter>;

Instance makeInstance(uint32_t sampleRate, uint32_t channels = 2)
{
    Instance instance(TessalyCreate(sampleRate, channels, kMaxFrames));
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

/// Streams input through the engine in blocks (out of place), returning the output.
Channels run(TessalyInstance* t, const Channels& input, BlockSizes sizes)
{
    Channels output = makeChannels(int(input.size()), input[0].size());
    const std::size_t frames = input[0].size();
    std::vector<const float*> in(input.size());
    std::vector<float*> out(input.size());
    for (std::size_t done = 0; done < frames;) {
        const std::size_t n = std::min<std::size_t>(std::size_t(sizes.next()), frames - done);
        for (std::size_t c = 0; c < input.size(); ++c) {
            in[c] = input[c].data() + done;
            out[c] = output[c].data() + done;
        }
        EXPECT_EQ(TessalyProcess(t, in.data(), uint32_t(n), out.data(), uint32_t(n)), 0);
        done += n;
    }
    return output;
}

Channels run(TessalyInstance* t, const Channels& input, int blockSize = 512)
{
    return run(t, input, BlockSizes(blockSize));
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
    std::vector<double> left, centre, right; // partials of the sources at 0.1, 0.5 and 0.9
    Channels mix;
};

/// Three harmonic tones at pan 0.1, 0.5 and 0.9 on 200, 300 and 500 Hz: their partials overlap
/// (600, 1000, 1200, 1500 Hz ... are shared), so the spectra interleave and touch.
Sources threeSources(double sampleRate, std::size_t frames)
{
    Sources s;
    s.mix = makeChannels(2, frames);
    const auto a = harmonics(200, 20);
    const auto b = harmonics(300, 14);
    const auto c = harmonics(500, 8);
    addPanned(s.mix, sines(a, 0.05, sampleRate, frames, 11), 0.1);
    addPanned(s.mix, sines(b, 0.05, sampleRate, frames, 12), 0.5);
    addPanned(s.mix, sines(c, 0.05, sampleRate, frames, 13), 0.9);
    // Partials that belong to one source alone measure what happens to that source.
    auto only = [](const std::vector<double>& mine, std::initializer_list<double> others) {
        std::vector<double> out;
        for (double f : mine) {
            bool shared = false;
            for (double o : others)
                shared = shared || std::fmod(f, o) == 0.0;
            if (!shared)
                out.push_back(f);
        }
        return out;
    };
    s.left = only(a, {300, 500});
    s.centre = only(b, {200, 500});
    s.right = only(c, {200, 300});
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
    EXPECT_EQ(TessalyGetSampleRate(t.get()), 48000u);
    EXPECT_EQ(TessalyGetSpectrumLength(t.get()), 2048u);
    EXPECT_GT(TessalyGetLatency(t.get()), 0);
    EXPECT_LE(TessalyGetLatency(t.get()), 4096);
}

TEST(TessalyCoreTest, SettersClampOutOfRangeValuesAndIgnoreNaN)
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
}

TEST(TessalyCoreTest, ProcessRejectsBadArgumentsWithoutTouchingTheOutput)
{
    Instance t = makeInstance(44100);
    std::vector<float> a(16, 1.0f), b(16, 7.0f);
    const float* in[2] = {a.data(), a.data()};
    float* out[2] = {b.data(), b.data()};
    EXPECT_EQ(TessalyProcess(t.get(), in, 16, out, 8), -1);
    EXPECT_EQ(TessalyProcess(t.get(), in, kMaxFrames + 1, out, kMaxFrames + 1), -1);
    const float* missing[2] = {a.data(), nullptr};
    EXPECT_EQ(TessalyProcess(t.get(), missing, 16, out, 16), -1);
    EXPECT_EQ(b[0], 7.0f);
}

// Every setting that lets everything through reproduces the input, delayed by the latency,
// however the stream is cut into blocks and at every common rate.
class TransparencyTest : public ::testing::TestWithParam<std::tuple<uint32_t, int>> {};

TEST_P(TransparencyTest, FullFieldAndBandReproduceTheDelayedInput)
{
    const auto [sampleRate, blockSize] = GetParam();
    Instance t = makeInstance(sampleRate);
    select(t.get(), 0.5f, 1.0f, 20.0f, float(sampleRate) / 2);
    const std::size_t frames = 5 * 4096 + 1234;
    const Channels input = noiseMix(frames);
    const Channels output = run(t.get(), input, BlockSizes(blockSize));
    const std::size_t latency = std::size_t(TessalyGetLatency(t.get()));
    for (int c = 0; c < 2; ++c) {
        SCOPED_TRACE(c);
        EXPECT_LT(residualDecibels(output[c], input[c], latency, latency, frames), -80.0);
        // Nothing comes out before the latency has passed.
        EXPECT_LT(largestStep(output[c], 0, latency), 1e-6);
    }
}

TEST_P(TransparencyTest, BypassIsTheExactDelayedInput)
{
    const auto [sampleRate, blockSize] = GetParam();
    Instance t = makeInstance(sampleRate);
    // Settings that would remove everything: bypass must ignore them.
    select(t.get(), 0.5f, 0.0f, 1000.0f, 1100.0f);
    TessalySetBypass(t.get(), true);
    const std::size_t frames = 3 * 4096 + 77;
    const Channels input = noiseMix(frames);
    const Channels output = run(t.get(), input, BlockSizes(blockSize));
    const std::size_t latency = std::size_t(TessalyGetLatency(t.get()));
    for (int c = 0; c < 2; ++c)
        for (std::size_t n = 0; n < frames; ++n)
            ASSERT_EQ(output[c][n], n < latency ? 0.0f : input[c][n - latency]) << c << " " << n;
}

INSTANTIATE_TEST_SUITE_P(RatesAndBlocks, TransparencyTest,
                         ::testing::Combine(::testing::Values(44100u, 48000u, 96000u),
                                            ::testing::Values(64, 512, 4096, 8192, 0)));

TEST(TessalyCoreTest, WorksInPlaceAndBlockByBlockAlike)
{
    const Channels input = threeSources(44100, 20000).mix;
    Instance reference = makeInstance(44100);
    select(reference.get(), 0.3f, 0.4f, 100.0f, 5000.0f);
    const Channels expected = run(reference.get(), input, 4096);

    Instance t = makeInstance(44100);
    select(t.get(), 0.3f, 0.4f, 100.0f, 5000.0f);
    Channels buffer = input;
    BlockSizes sizes(0);
    for (std::size_t done = 0; done < buffer[0].size();) {
        const std::size_t n = std::min<std::size_t>(std::size_t(sizes.next()),
                                                    buffer[0].size() - done);
        float* channels[2] = {buffer[0].data() + done, buffer[1].data() + done};
        ASSERT_EQ(TessalyProcess(t.get(), channels, uint32_t(n), channels, uint32_t(n)), 0);
        done += n;
    }
    EXPECT_EQ(buffer, expected);
}

TEST(TessalyCoreTest, KeepingOneSideLeavesTheOtherSourcesFarDown)
{
    const double rate = 44100;
    const std::size_t frames = 3 * 44100;
    const Sources s = threeSources(rate, frames);
    Instance t = makeInstance(44100);
    select(t.get(), 0.1f, 0.2f, 20.0f, 22050.0f);
    const Channels out = run(t.get(), s.mix);
    const std::size_t latency = std::size_t(TessalyGetLatency(t.get()));
    const std::size_t start = 44100, length = 65536;

    for (int c = 0; c < 2; ++c) {
        SCOPED_TRACE(c);
        auto change = [&](const std::vector<double>& partials) {
            return decibels(partialsAmplitude(out[c], start + latency, length, partials, rate) /
                            partialsAmplitude(s.mix[c], start, length, partials, rate));
        };
        EXPECT_NEAR(change(s.left), 0.0, 1.0);
        EXPECT_LT(change(s.centre), -25.0);
        EXPECT_LT(change(s.right), -25.0);
    }
}

TEST(TessalyCoreTest, MutingTheCentreRemovesOnlyTheCentreSource)
{
    const double rate = 48000;
    const std::size_t frames = 3 * 48000;
    const Sources s = threeSources(rate, frames);
    Instance t = makeInstance(48000);
    select(t.get(), 0.5f, 0.2f, 20.0f, 24000.0f, /*mute*/ true);
    const Channels out = run(t.get(), s.mix, 0);
    const std::size_t latency = std::size_t(TessalyGetLatency(t.get()));
    const std::size_t start = 48000, length = 65536;

    for (int c = 0; c < 2; ++c) {
        SCOPED_TRACE(c);
        auto change = [&](const std::vector<double>& partials) {
            return decibels(partialsAmplitude(out[c], start + latency, length, partials, rate) /
                            partialsAmplitude(s.mix[c], start, length, partials, rate));
        };
        EXPECT_NEAR(change(s.left), 0.0, 1.0);
        EXPECT_LT(change(s.centre), -25.0);
        EXPECT_NEAR(change(s.right), 0.0, 1.0);
    }
}

TEST(TessalyCoreTest, OverlappingNoiseBandsSeparateWhereOneSourceDominates)
{
    // Noise sources whose bands overlap pairwise: 200-3000 Hz left, 1500-6000 Hz centre,
    // 4500-9000 Hz right. Measured in the stretches where one source is alone.
    const double rate = 44100;
    const std::size_t frames = 2 * 44100;
    Channels mix = makeChannels(2, frames);
    const auto left = noiseBand(200, 3000, 0.3, rate, frames, 21);
    const auto centre = noiseBand(1500, 6000, 0.3, rate, frames, 22);
    const auto right = noiseBand(4500, 9000, 0.3, rate, frames, 23);
    addPanned(mix, left, 0.1);
    addPanned(mix, centre, 0.5);
    addPanned(mix, right, 0.9);

    Instance t = makeInstance(44100);
    select(t.get(), 0.1f, 0.2f, 20.0f, 22050.0f);
    const Channels out = run(t.get(), mix);
    const std::size_t latency = std::size_t(TessalyGetLatency(t.get()));
    const std::size_t start = 22050, length = 32768;
    for (int c = 0; c < 2; ++c) {
        SCOPED_TRACE(c);
        auto change = [&](double lo, double hi) {
            return decibels(bandLevel(out[c], start + latency, length, lo, hi, rate) /
                            bandLevel(mix[c], start, length, lo, hi, rate));
        };
        const double kept = change(300, 1400);
        const double centreOnly = change(3200, 4300);
        const double rightOnly = change(6200, 8800);
        EXPECT_NEAR(kept, 0.0, 1.0);
        EXPECT_LT(centreOnly, -25.0);
        EXPECT_LT(rightOnly, -25.0);
    }
}

TEST(TessalyCoreTest, ABandKeepsItsInsideAndRemovesTonesFarOutside)
{
    const double rate = 44100;
    const std::size_t frames = 2 * 44100;
    Channels mix = makeChannels(2, frames);
    addPanned(mix, sines({100.0}, 0.3, rate, frames, 1), 0.5);
    addPanned(mix, sines({1000.0}, 0.3, rate, frames, 2), 0.3);
    addPanned(mix, sines({8000.0}, 0.3, rate, frames, 3), 0.8);

    for (bool mute : {false, true}) {
        SCOPED_TRACE(mute);
        Instance t = makeInstance(44100);
        select(t.get(), 0.5f, 1.0f, 500.0f, 2000.0f, mute);
        const Channels out = run(t.get(), mix, 0);
        const std::size_t latency = std::size_t(TessalyGetLatency(t.get()));
        const std::size_t start = 30000, length = 32768;
        for (int c = 0; c < 2; ++c) {
            auto change = [&](double f) {
                return decibels(toneAmplitude(out[c], start + latency, length, f, rate) /
                                toneAmplitude(mix[c], start, length, f, rate));
            };
            if (!mute) {
                EXPECT_LT(change(100), -40.0);
                EXPECT_NEAR(change(1000), 0.0, 0.5);
                EXPECT_LT(change(8000), -40.0);
            } else {
                EXPECT_NEAR(change(100), 0.0, 0.5);
                EXPECT_LT(change(1000), -40.0);
                EXPECT_NEAR(change(8000), 0.0, 0.5);
            }
        }
    }
}

TEST(TessalyCoreTest, AStartAboveTheEndSelectsNothing)
{
    const std::size_t frames = 30000;
    Channels mix = makeChannels(2, frames);
    addPanned(mix, sines({440.0, 3000.0}, 0.3, 44100, frames), 0.5);
    Instance t = makeInstance(44100);
    select(t.get(), 0.5f, 1.0f, 4000.0f, 300.0f);
    const Channels out = run(t.get(), mix);
    EXPECT_LT(toneAmplitude(out[0], 15000, 8192, 440.0, 44100), 1e-4);
    EXPECT_LT(toneAmplitude(out[0], 15000, 8192, 3000.0, 44100), 1e-4);
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
    const std::size_t latency = std::size_t(TessalyGetLatency(t.get()));
    const std::size_t start = 22050, length = 32768;
    const auto antiOnly = harmonics(370, 6);
    const auto inOnly = std::vector<double>{220, 440, 660, 880, 1100, 1320};
    for (int c = 0; c < 2; ++c) {
        EXPECT_NEAR(decibels(partialsAmplitude(out[c], start + latency, length, inOnly, rate) /
                             partialsAmplitude(mix[c], start, length, inOnly, rate)),
                    0.0, 1.0);
        EXPECT_LT(decibels(partialsAmplitude(out[c], start + latency, length, antiOnly, rate) /
                           partialsAmplitude(mix[c], start, length, antiOnly, rate)),
                  -25.0);
    }
}

TEST(TessalyCoreTest, MonoEnginesFilterByBandAndTreatEverythingAsCentre)
{
    const std::size_t frames = 50000;
    Channels mono = makeChannels(1, frames);
    mono[0] = sines({150.0, 1200.0}, 0.3, 44100, frames);
    Instance t = makeInstance(44100, 1);
    select(t.get(), 0.5f, 0.3f, 800.0f, 3000.0f);
    const Channels out = run(t.get(), mono);
    const std::size_t latency = 4096, start = 20000, length = 16384;
    EXPECT_LT(decibels(toneAmplitude(out[0], start + latency, length, 150.0, 44100) / 0.3), -40.0);
    EXPECT_NEAR(decibels(toneAmplitude(out[0], start + latency, length, 1200.0, 44100) / 0.3),
                0.0, 0.5);
}

TEST(TessalyCoreTest, SwitchingBypassWhileRunningNeitherClicksNorJumps)
{
    const double rate = 44100;
    const std::size_t frames = 4 * 44100;
    Channels mix = makeChannels(2, frames);
    addPanned(mix, sines({110.0, 990.0}, 0.4, rate, frames, 8), 0.5);
    addPanned(mix, sines({2500.0}, 0.4, rate, frames, 9), 0.0);
    double inputStep = 0.0;
    for (int c = 0; c < 2; ++c)
        inputStep = std::max(inputStep, largestStep(mix[c], 0, frames));

    Instance t = makeInstance(44100);
    // A setting that changes the sound a lot: keep 500-2000 Hz at the centre.
    select(t.get(), 0.5f, 0.2f, 500.0f, 2000.0f);
    TessalySetBypass(t.get(), true);
    Channels out = makeChannels(2, frames);
    const std::size_t block = 300;
    const std::size_t switches[] = {30000, 60011, 90500, 120007};
    std::size_t next = 0;
    for (std::size_t done = 0; done < frames; done += block) {
        if (next < std::size(switches) && done >= switches[next]) {
            TessalySetBypass(t.get(), !TessalyGetBypass(t.get()));
            ++next;
        }
        const std::size_t n = std::min(block, frames - done);
        const float* in[2] = {mix[0].data() + done, mix[1].data() + done};
        float* o[2] = {out[0].data() + done, out[1].data() + done};
        ASSERT_EQ(TessalyProcess(t.get(), in, uint32_t(n), o, uint32_t(n)), 0);
    }
    const std::size_t latency = std::size_t(TessalyGetLatency(t.get()));
    for (int c = 0; c < 2; ++c) {
        SCOPED_TRACE(c);
        // No click: the output never moves faster than the input does (after the input's own
        // onset, which comes out at the latency).
        EXPECT_LE(largestStep(out[c], latency + 1, frames), inputStep * 1.05);
        // No jump in time: the kept 990 Hz partial stays in phase with the delayed input across
        // every switch, and bypassed stretches are the delayed input itself.
        for (std::size_t at : {20000, 50000, 80000, 110000, 150000}) {
            std::vector<float> shifted(mix[c].begin() + (at - latency),
                                       mix[c].begin() + (at - latency + 4096));
            std::vector<float> got(out[c].begin() + at, out[c].begin() + at + 4096);
            const double both = toneAmplitude(got, 0, 4096, 990.0, rate);
            std::vector<float> diff(4096);
            for (std::size_t n = 0; n < 4096; ++n)
                diff[n] = got[n] - shifted[n];
            EXPECT_LT(toneAmplitude(diff, 0, 4096, 990.0, rate), 0.1 * both) << at;
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
        double total = 0.0, nearPeak = 0.0;
        for (int i = 0; i < 128; ++i) {
            total += power[i];
            if (std::abs(i - peak) <= 2)
                nearPeak += power[i];
        }
        EXPECT_GT(nearPeak, 0.95 * total);

        // A coarser spread holds the same power.
        TessalyPannedPowerSpread coarse(5);
        coarse.readFromTessalyInstance(t.get());
        double coarseTotal = 0.0;
        for (float p : coarse.power())
            coarseTotal += p;
        EXPECT_NEAR(coarseTotal, total, total * 1e-5);
    }
}

TEST(TessalyCoreTest, ResetForgetsThePastCompletely)
{
    const Sources s = threeSources(44100, 30000);
    Instance t = makeInstance(44100);
    select(t.get(), 0.9f, 0.3f, 100.0f, 9000.0f);
    const Channels first = run(t.get(), s.mix, 0);
    TessalyReset(t.get());
    const Channels second = run(t.get(), s.mix, 0);
    EXPECT_EQ(first, second);
}

TEST(TessalyCoreTest, ProcessingAllocatesAndLocksNothing)
{
    const Sources s = threeSources(44100, 40000);
    for (bool bypass : {false, true}) {
        Instance t = makeInstance(44100);
        select(t.get(), 0.2f, 0.3f, 100.0f, 5000.0f, true);
        TessalySetBypass(t.get(), bypass);
        Channels out = makeChannels(2, 40000);
        const auto counts = countRealtimeViolations([&] {
            BlockSizes sizes(0);
            for (std::size_t done = 0; done < 40000;) {
                const std::size_t n = std::min<std::size_t>(std::size_t(sizes.next()),
                                                            40000 - done);
                const float* in[2] = {s.mix[0].data() + done, s.mix[1].data() + done};
                float* o[2] = {out[0].data() + done, out[1].data() + done};
                TessalyProcess(t.get(), in, uint32_t(n), o, uint32_t(n));
                TessalySetPan(t.get(), float(done % 7) / 7.0f);
                TessalySetBypass(t.get(), !TessalyGetBypass(t.get()));
                done += n;
            }
            TessalyReset(t.get());
        });
        EXPECT_EQ(counts.total(), 0u) << counts.allocations << " allocations, " << counts.locks
                                      << " locks";
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
