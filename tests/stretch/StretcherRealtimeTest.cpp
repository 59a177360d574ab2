// The stretcher's real-time contract: processing never allocates, frees or locks, also while
// the control thread changes time and pitch factors, formants and resets the way the engine does.
#include "RealtimeGuard.h"
#include "StretchTestSupport.h"

#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <thread>

using namespace vell;
using namespace vell::test;
using detail::Stretcher;
using detail::StretchParameters;

namespace {

/// Noise with clicks: transients and tonal content for every kind of stretcher decision.
Channels busySignal(int channels, long long frames)
{
    Channels signal(static_cast<std::size_t>(channels),
                    std::vector<float>(static_cast<std::size_t>(frames)));
    std::mt19937 random(5);
    std::uniform_real_distribution<float> noise(-0.2f, 0.2f);
    for (long long i = 0; i < frames; ++i) {
        const float click = i % 9973 == 0 ? 0.9f : 0.0f;
        const float tone = 0.3f * float(std::sin(0.0627 * double(i)));
        for (auto& channel : signal) {
            channel[std::size_t(i)] = noise(random) + tone + click;
        }
    }
    return signal;
}

StretchParameters randomParameters(std::mt19937& random)
{
    std::uniform_real_distribution<double> octaves(-1.0, 1.0);
    StretchParameters parameters;
    parameters.timeFactor = std::exp2(2.0 * octaves(random));  // 0.25 .. 4
    parameters.pitchFactor = std::exp2(octaves(random));        // 0.5 .. 2
    parameters.preserveFormants = random() % 4 == 0;
    return parameters;
}

/// Changes are made between slices on the thread that also renders, the way a stopped graph or
/// an offline export drives it: every slice after a change primes and cross-fades a new lane.
void expectCleanAcrossChanges(const Stretcher::Config& config, long slice)
{
    StretchRig rig(config, busySignal(2, (long long)config.sampleRate * 40));
    ASSERT_NE(rig.stretcher, nullptr);

    std::vector<float> left(static_cast<std::size_t>(slice)), right(left.size());
    float* out[2] = {left.data(), right.data()};
    std::mt19937 random(11);
    std::size_t violations = 0;
    for (int n = 0; n < 600; ++n) {
        if (n % 10 == 5) {
            rig.stretcher->setParameters(randomParameters(random));
        }
        if (n % 200 == 199) {
            rig.stretcher->reset(n % 400 == 199);
        }
        const auto counts = countRealtimeViolations([&] { rig.stretcher->process(out, slice); });
        if (counts.total() != 0) {
            ADD_FAILURE() << "slice " << n << ": " << counts.allocations << " allocations, "
                          << counts.deallocations << " frees, " << counts.locks << " locks";
            if (++violations == 5) {
                break;
            }
        }
    }
    const auto statistics = rig.stretcher->statistics();
    EXPECT_GT(statistics.crossfades, 40u) << "the changes did reach the render side";
    EXPECT_EQ(statistics.historyOverruns, 0u);
}

class StretcherRealtimeTest : public ::testing::TestWithParam<StretchLevel> {};

TEST_P(StretcherRealtimeTest, ProcessNeverAllocatesOrLocksAcrossChanges)
{
    Stretcher::Config config;
    config.level = GetParam();
    config.channels = 2;
    config.sampleRate = 44100.0;
    config.maxFramesPerCall = 512;
    expectCleanAcrossChanges(config, 512);
}

// At 96 kHz the best level runs Rubber Band at 48 kHz between a decimator and an interpolator;
// slices of an odd size leave interpolated frames over from call to call.
TEST(StretcherDividedRateRealtimeTest, ProcessNeverAllocatesOrLocksAcrossChanges)
{
    Stretcher::Config config;
    config.level = StretchLevel::best;
    config.channels = 2;
    config.sampleRate = 96000.0;
    config.maxFramesPerCall = 512;
    expectCleanAcrossChanges(config, 333);
}

// A real render thread runs continuously while the control thread changes factors as fast as
// a user dragging sliders could, and seeks now and then: nothing on the render thread
// allocates or locks, and the output stays finite and bounded. (Also run under
// ThreadSanitizer: the lane hand-over is the only thing the two threads share.)
TEST_P(StretcherRealtimeTest, ConcurrentChangesLeaveTheRenderThreadClean)
{
    Stretcher::Config config;
    config.level = GetParam();
    config.channels = 2;
    config.sampleRate = 48000.0;
    config.maxFramesPerCall = 256;
    StretchRig rig(config, busySignal(2, 48000 * 60));
    ASSERT_NE(rig.stretcher, nullptr);

    std::atomic<bool> stop{false};
    std::atomic<std::size_t> slices{0};
    std::atomic<bool> badSample{false};
    resetRealtimeCounts();
    std::thread render([&] {
        std::vector<float> left(256), right(256);
        float* out[2] = {left.data(), right.data()};
        RealtimeSection section;
        while (!stop.load()) {
            rig.stretcher->process(out, 256);
            for (float s : left) {
                if (!(std::fabs(s) < 8.0f)) {
                    badSample = true;
                }
            }
            slices.fetch_add(1);
        }
    });
    std::mt19937 random(3);
    for (int change = 0; change < 50; ++change) {
        if (change % 10 == 9) {
            rig.stretcher->reset(change % 20 == 9); // a seek
        } else {
            rig.stretcher->setParameters(randomParameters(random));
        }
        const std::size_t until = slices.load() + 2 + random() % 6;
        while (slices.load() < until) {
            std::this_thread::yield();
        }
    }
    stop = true;
    render.join();
    const auto counts = realtimeCounts();
    EXPECT_EQ(counts.allocations, 0u);
    EXPECT_EQ(counts.deallocations, 0u);
    EXPECT_EQ(counts.locks, 0u);
    EXPECT_FALSE(badSample.load());
    EXPECT_GT(rig.stretcher->statistics().crossfades, 10u);
    EXPECT_GE(rig.stretcher->statistics().restarts, 2u);
}

INSTANTIATE_TEST_SUITE_P(Levels, StretcherRealtimeTest,
                         ::testing::Values(StretchLevel::best, StretchLevel::good,
                                           StretchLevel::lowCPU),
                         levelParamName);

} // namespace
