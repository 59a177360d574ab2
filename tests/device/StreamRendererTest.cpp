// The render end of output streams: direct calls, resampling to another device rate, the
// reported resampler delay, and real-time safety.
#include "platform/device/StreamRenderer.h"

#include "DeviceTestSignals.h"
#include "RealtimeGuard.h"

#include <gtest/gtest.h>

#include <tuple>

namespace vell::test {
namespace {

using detail::StreamRenderer;

/// Renders totalFrames device frames in requests of blockFrames; returns channel 0.
std::vector<float> renderDevice(StreamRenderer& renderer, std::uint32_t totalFrames,
                                std::uint32_t blockFrames, std::vector<float>* channel1 = nullptr)
{
    std::vector<float> left(totalFrames), right(totalFrames);
    for (std::uint32_t done = 0; done < totalFrames;) {
        const std::uint32_t n = std::min(blockFrames, totalFrames - done);
        float* channels[2] = {left.data() + done, right.data() + done};
        renderer.render(channels, n);
        done += n;
    }
    if (channel1) {
        *channel1 = std::move(right);
    }
    return left;
}

/// Stream frame k holds k; with stepAt set, 0 before frame stepAt and 1 from there on.
struct RampSource : RenderRecord {
    std::uint64_t position = 0;
    std::uint64_t stepAt = 0;
    static void render(void* context, float* const* channels, std::uint32_t channelCount,
                       std::uint32_t frameCount, const AudioTimeStamp& timeStamp) noexcept
    {
        auto* self = static_cast<RampSource*>(context);
        self->note(timeStamp, frameCount);
        for (std::uint32_t i = 0; i < frameCount; ++i, ++self->position) {
            const auto value = static_cast<float>(self->stepAt > 0 ? self->position >= self->stepAt
                                                                   : self->position);
            for (std::uint32_t c = 0; c < channelCount; ++c) {
                channels[c][i] = value;
            }
        }
    }
};

TEST(StreamRendererTest, DirectPathDeliversEveryFrameInOrderWithinTheBlockLimit)
{
    RampSource ramp;
    StreamRenderer renderer;
    ASSERT_TRUE(renderer.prepare(48000, 48000, 2, 256, &RampSource::render, &ramp));
    EXPECT_FALSE(renderer.isResampling());
    EXPECT_EQ(renderer.latencyFrames(), 0u);

    // Device requests smaller and larger than the block: the larger ones take several calls.
    std::vector<float> left, right;
    for (std::uint32_t request : {256u, 100u, 700u, 1u, 256u}) {
        std::vector<float> r;
        const std::vector<float> l = renderDevice(renderer, request, request, &r);
        left.insert(left.end(), l.begin(), l.end());
        right.insert(right.end(), r.begin(), r.end());
    }
    ASSERT_EQ(left.size(), 1313u);
    for (std::size_t k = 0; k < left.size(); ++k) {
        ASSERT_EQ(left[k], static_cast<float>(k)) << "frame " << k;
        ASSERT_EQ(right[k], static_cast<float>(k)) << "frame " << k;
    }
    EXPECT_TRUE(ramp.timeStampsContiguous);
    EXPECT_EQ(ramp.largestRequest.load(), 256u);
}

class StreamRendererResamplingTest
    : public ::testing::TestWithParam<std::tuple<double, double, std::uint32_t>> {};

TEST_P(StreamRendererResamplingTest, KeepsPitchLevelAndPace)
{
    const auto [streamRate, deviceRate, deviceBlock] = GetParam();
    SineSource sine;
    sine.sampleRate = streamRate;
    StreamRenderer renderer;
    ASSERT_TRUE(renderer.prepare(streamRate, deviceRate, 2, 512, &SineSource::render, &sine));
    ASSERT_TRUE(renderer.isResampling());

    const auto deviceFrames = static_cast<std::uint32_t>(deviceRate); // one second
    std::vector<float> right;
    std::vector<float> left = renderDevice(renderer, deviceFrames, deviceBlock, &right);

    // Past the resampler's start-up, the tone is the same tone at the device's rate.
    std::vector<float> steady(left.begin() + 4096, left.end());
    EXPECT_NEAR(zeroCrossingFrequency(steady, deviceRate), 1000.0, 1.0);
    EXPECT_NEAR(peakOf(steady), 0.5f, 0.01f);
    EXPECT_EQ(std::vector<float>(right.begin() + 4096, right.end()), steady);

    // The source is pulled at its own rate, in whole blocks, with contiguous time stamps.
    const double expected = deviceFrames * streamRate / deviceRate;
    EXPECT_GE(static_cast<double>(sine.frames.load()), expected);
    EXPECT_LE(static_cast<double>(sine.frames.load()),
              expected + 512.0 * 2 + renderer.latencyFrames());
    EXPECT_EQ(sine.largestRequest.load(), 512u);
    EXPECT_TRUE(sine.timeStampsContiguous);
}

INSTANTIATE_TEST_SUITE_P(Rates, StreamRendererResamplingTest,
                         ::testing::Values(std::make_tuple(44100.0, 48000.0, 557u),
                                           std::make_tuple(48000.0, 44100.0, 512u),
                                           std::make_tuple(44100.0, 96000.0, 64u),
                                           std::make_tuple(96000.0, 44100.0, 4096u)));

TEST(StreamRendererTest, ReportedLatencyIsHowFarThePulledStreamRunsAhead)
{
    constexpr std::uint32_t kBlock = 256;
    constexpr int kRequests = 200, kSettling = 16;
    for (const auto& [streamRate, deviceRate] :
         {std::pair{44100.0, 48000.0}, std::pair{48000.0, 44100.0}, std::pair{44100.0, 96000.0}}) {
        SCOPED_TRACE(::testing::Message() << streamRate << " -> " << deviceRate);
        RampSource step;
        step.stepAt = 1000;
        StreamRenderer renderer;
        ASSERT_TRUE(
            renderer.prepare(streamRate, deviceRate, 2, kBlock, &RampSource::render, &step));
        const double ratio = deviceRate / streamRate;

        // Device requests of a block's worth: once settled, the stream has been pulled ahead of
        // what the device received by the reported latency, give or take part of a block.
        const auto request = static_cast<std::uint32_t>(std::lround(kBlock * ratio));
        std::vector<float> out;
        double aheadSum = 0, aheadMin = 1e9, aheadMax = 0;
        for (int i = 0; i < kRequests; ++i) {
            const std::vector<float> part = renderDevice(renderer, request, request);
            out.insert(out.end(), part.begin(), part.end());
            const double ahead =
                static_cast<double>(step.position) - static_cast<double>(out.size()) / ratio;
            if (i >= kSettling) { // the resampler has filled
                aheadSum += ahead;
                aheadMin = std::min(aheadMin, ahead);
                aheadMax = std::max(aheadMax, ahead);
            }
        }
        EXPECT_GT(renderer.latencyFrames(), 0u);
        EXPECT_GE(renderer.latencyFrames(), aheadMin - 1);
        EXPECT_LE(renderer.latencyFrames(), aheadMax + 1);
        EXPECT_NEAR(aheadSum / (kRequests - kSettling), renderer.latencyFrames(), kBlock / 4.0);
        EXPECT_LE(aheadMax - aheadMin, kBlock + 8.0);

        // Nothing else delays the sound: the step arrives where the rates put it.
        const auto half = std::find_if(out.begin(), out.end(), [](float s) { return s >= 0.5f; });
        ASSERT_NE(half, out.end());
        EXPECT_NEAR(static_cast<double>(half - out.begin()),
                    static_cast<double>(step.stepAt) * ratio, 3.0);
    }
}

TEST(StreamRendererTest, ResetForgetsHistoryAndTime)
{
    SineSource first, second;
    StreamRenderer fresh, reused;
    ASSERT_TRUE(fresh.prepare(44100, 48000, 2, 256, &SineSource::render, &first));
    ASSERT_TRUE(reused.prepare(44100, 48000, 2, 256, &SineSource::render, &second));
    renderDevice(reused, 3001, 333);

    reused.reset();
    second.phase = 0;
    second.nextSampleTime = 0; // time stamps restart at 0 after a reset
    EXPECT_EQ(renderDevice(fresh, 2000, 480), renderDevice(reused, 2000, 480));
    EXPECT_TRUE(second.timeStampsContiguous);
}

TEST(StreamRendererTest, RenderAllocatesAndLocksNothing)
{
    for (double deviceRate : {44100.0, 48000.0}) {
        SCOPED_TRACE(deviceRate);
        SineSource sine;
        StreamRenderer renderer;
        ASSERT_TRUE(renderer.prepare(44100, deviceRate, 2, 512, &SineSource::render, &sine));
        std::vector<float> left(2048), right(2048);
        float* channels[2] = {left.data(), right.data()};
        const RealtimeCounts counts = countRealtimeViolations([&] {
            for (std::uint32_t request : {512u, 557u, 2048u, 1u}) {
                renderer.render(channels, request);
            }
        });
        EXPECT_EQ(counts.total(), 0u);
        EXPECT_GT(sine.frames.load(), 0u);
    }
}

TEST(StreamRendererTest, PrepareRefusesWhatItCannotServe)
{
    // The hardware checks a stream's arguments before it opens one; these limits are the
    // renderer's own: the resampler's range and the channels it can serve.
    SineSource sine;
    StreamRenderer renderer;
    EXPECT_FALSE(renderer.prepare(1000, 400000, 2, 256, &SineSource::render, &sine))
        << "beyond what the resampler converts";
    EXPECT_FALSE(renderer.prepare(44100, 44100, 9, 256, &SineSource::render, &sine));
    EXPECT_TRUE(renderer.prepare(44100, 44100, 8, 256, &SineSource::render, &sine));
}

} // namespace
} // namespace vell::test
