// The isolator effect: the same engine as the C interface, the bypass member, block limits and
// the freezer's way of settling it over a window.
#include "audio/effects/Isolator.h"

#include <VellAudio/TessalyCore.h>

#include "../isolation/TestSignals.h"
#include "RealtimeGuard.h"

#include <gtest/gtest.h>

using namespace vell;
using namespace vell::test;

namespace {

Channels stereoMix(std::size_t frames)
{
    Channels mix = makeChannels(2, frames);
    addPanned(mix, sines(harmonics(220, 12), 0.05, 44100, frames, 1), 0.1);
    addPanned(mix, sines(harmonics(330, 8), 0.05, 44100, frames, 2), 0.5);
    addPanned(mix, sines({150.0, 6000.0}, 0.2, 44100, frames, 3), 0.85);
    return mix;
}

/// Runs the isolator in place over buffer, block frames at a time.
void runInPlace(BRIXEffect::Isolator& isolator, Channels& buffer, int block)
{
    for (std::size_t done = 0; done < buffer[0].size(); done += std::size_t(block)) {
        const int n = int(std::min<std::size_t>(std::size_t(block), buffer[0].size() - done));
        float* channels[2] = {buffer[0].data() + done, buffer[1].data() + done};
        isolator.process(channels, n, channels, n);
    }
}

} // namespace

TEST(IsolatorTest, TakesAnEngineInstancesSettingsAndProcessesExactlyLikeIt)
{
    const Channels input = stereoMix(30000);
    TessalyInstance* t = TessalyCreate(44100, 2, 8192);
    TessalySetBypass(t, false);
    TessalySetStartFrequencyHz(t, 100.0f);
    TessalySetEndFrequencyHz(t, 3000.0f);
    TessalySetMute(t, true);
    TessalySetPan(t, 0.1f);
    TessalySetPanWidth(t, 0.25f);
    BRIXEffect::Isolator isolator(44100, 2, 4096);
    isolator.copySettingsFrom(t);
    Channels viaEffect = input;
    runInPlace(isolator, viaEffect, 1024);

    Channels viaInterface = input;
    for (std::size_t done = 0; done < 30000; done += 1024) {
        const uint32_t n = uint32_t(std::min<std::size_t>(1024, 30000 - done));
        float* channels[2] = {viaInterface[0].data() + done, viaInterface[1].data() + done};
        TessalyProcess(t, channels, n, channels, n);
    }
    TessalyDestroy(t);

    EXPECT_EQ(viaEffect, viaInterface);
    // And the setting did something: the 150 Hz tone at 0.85 is kept, the centre's 330 Hz too,
    // the left source's 440 Hz is gone.
    const std::size_t latency = std::size_t(isolator.latency());
    EXPECT_LT(toneAmplitude(viaEffect[0], 15000 + latency, 8192, 440, 44100),
              0.01 * toneAmplitude(input[0], 15000, 8192, 440, 44100));
    EXPECT_NEAR(toneAmplitude(viaEffect[1], 15000 + latency, 8192, 150, 44100),
                toneAmplitude(input[1], 15000, 8192, 150, 44100), 0.01);
}

TEST(IsolatorTest, TheBypassMemberPassesTheDelayedInputAndIsReadEveryBlock)
{
    const Channels input = stereoMix(20000);
    BRIXEffect::Isolator isolator(44100, 2, 1024);
    EXPECT_TRUE(isolator.bypass); // the engine's default
    isolator.setPanWidth(0.0f);   // would remove everything if it were not bypassed
    isolator.setMute(false);
    Channels output = input;
    runInPlace(isolator, output, 1000);
    const std::size_t latency = std::size_t(isolator.latency());
    for (std::size_t n = latency; n < 20000; ++n)
        ASSERT_EQ(output[0][n], input[0][n - latency]) << n;

    isolator.bypass = false;
    Channels silenced = input;
    runInPlace(isolator, silenced, 1000);
    double level = 0.0;
    for (std::size_t n = 15000; n < 20000; ++n)
        level = std::max(level, double(std::abs(silenced[0][n])));
    EXPECT_LT(level, 1e-3);
}

TEST(IsolatorTest, BlocksAreCappedAndNoInputFlushesWithSilence)
{
    BRIXEffect::Isolator isolator(48000, 2, 256);
    std::vector<float> a(1000, 0.25f), b(1000, 0.25f);
    std::vector<float> outA(1000, 9.0f), outB(1000, 9.0f);
    const float* in[2] = {a.data(), b.data()};
    float* out[2] = {outA.data(), outB.data()};
    isolator.process(in, 1000, out, 1000);
    // Only 256 frames were processed (silence: the latency has not passed); the rest is zeroed.
    for (float v : outA)
        ASSERT_EQ(v, 0.0f);

    // Feed the latency's worth of input, then flush with no input: the input comes back out.
    BRIXEffect::Isolator flushing(48000, 2, 4096);
    std::vector<float> ramp(4096);
    for (std::size_t n = 0; n < ramp.size(); ++n)
        ramp[n] = float(n) / 4096.0f;
    const float* rampIn[2] = {ramp.data(), ramp.data()};
    std::vector<float> sink(4096), tailA(4096), tailB(4096);
    float* sinkOut[2] = {sink.data(), sink.data()};
    flushing.process(rampIn, 4096, sinkOut, 4096);
    float* tail[2] = {tailA.data(), tailB.data()};
    flushing.process(nullptr, 0, tail, 4096);
    EXPECT_EQ(tailA, ramp);
    EXPECT_EQ(tailB, ramp);
}

TEST(IsolatorTest, SettlingOverAWindowGivesTheIsolatedStartInTheSecondHalf)
{
    // How the freezer uses it: 8192 frames in 1024-frame blocks in place; the second half holds
    // the isolated first half of the input, since the latency is half the buffer.
    const Channels input = stereoMix(8192);
    BRIXEffect::Isolator isolator(44100, 2, 4096);
    ASSERT_EQ(isolator.latency(), 4096);
    isolator.bypass = false;
    isolator.setPan(0.85f);
    isolator.setPanWidth(0.2f);
    isolator.setStartFrequencyHz(20.0f);
    isolator.setEndFrequencyHz(1000.0f);
    Channels buffer = input;
    runInPlace(isolator, buffer, 1024);
    std::vector<float> window(buffer[1].begin() + 4096, buffer[1].end());
    std::vector<float> start(input[1].begin(), input[1].begin() + 4096);
    // 150 Hz at 0.85 kept, 6000 Hz at 0.85 (out of the band) and the 330 Hz centre source gone.
    EXPECT_NEAR(decibels(toneAmplitude(window, 0, 4096, 150, 44100) /
                         toneAmplitude(start, 0, 4096, 150, 44100)),
                0.0, 1.5);
    EXPECT_LT(toneAmplitude(window, 0, 4096, 6000, 44100), 0.01 * 0.2);
    EXPECT_LT(toneAmplitude(window, 0, 4096, 330, 44100),
              0.05 * toneAmplitude(start, 0, 4096, 330, 44100));
}

TEST(IsolatorTest, ProcessingAllocatesAndLocksNothing)
{
    Channels buffer = stereoMix(20000);
    BRIXEffect::Isolator isolator(44100, 2, 4096);
    isolator.bypass = false;
    isolator.setPanWidth(0.3f);
    const auto counts = countRealtimeViolations([&] {
        runInPlace(isolator, buffer, 700);
        float* channels[2] = {buffer[0].data(), buffer[1].data()};
        isolator.process(nullptr, 0, channels, 512);
        isolator.reset();
    });
    EXPECT_EQ(counts.total(), 0u);
}
