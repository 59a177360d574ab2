// The peak limiter: below the ceiling the signal passes unchanged (only delayed by the reported
// latency); above it no sample ever exceeds the ceiling and the gain recovers afterwards.
#include "GraphTestSupport.h"

#include <numbers>

namespace vell::test {
namespace {

/// A sine whose amplitude follows a schedule over absolute frames.
struct ScheduledSine {
    double rate = 44100;
    double hz = 440;
    std::function<float(std::uint64_t)> amplitude;
    std::uint64_t position = 0;

    float at(std::uint64_t frame) const
    {
        return amplitude(frame) *
               float(std::sin(2 * std::numbers::pi * hz * double(frame) / rate));
    }

    static OSStatus render(void* refCon, AudioUnitRenderActionFlags*, const AudioTimeStamp*,
                           std::uint32_t, std::uint32_t frames, AudioBufferList* io)
    {
        auto* self = static_cast<ScheduledSine*>(refCon);
        for (std::uint32_t i = 0; i < frames; ++i) {
            const float value = self->at(self->position + i);
            for (std::uint32_t c = 0; c < io->mNumberBuffers; ++c) {
                static_cast<float*>(io->mBuffers[c].mData)[i] = value * (c == 0 ? 1.0f : -0.5f);
            }
        }
        self->position += frames;
        return noErr;
    }
};

using RateAndSlice = std::tuple<double, std::uint32_t>;

class PeakLimiterTest : public ::testing::TestWithParam<RateAndSlice> {
protected:
    void build(ScheduledSine& source)
    {
        const auto [rate, slice] = GetParam();
        source.rate = rate;
        const AUNode limiterNode = graph.add(kLimiterDescription);
        const AUNode outputNode = graph.add(kGenericOutputDescription);
        ASSERT_EQ(AUGraphOpen(graph), noErr);
        limiter = graph.unit(limiterNode);
        output = graph.unit(outputNode);
        setFormat(limiter, kAudioUnitScope_Input, 0, rate, 2);
        setFormat(output, kAudioUnitScope_Input, 0, rate, 2);
        const AURenderCallbackStruct callback{ScheduledSine::render, &source};
        ASSERT_EQ(AUGraphSetNodeInputCallback(graph, limiterNode, 0, &callback), noErr);
        ASSERT_EQ(AUGraphConnectNodeInput(graph, limiterNode, 0, outputNode, 0), noErr);
        ASSERT_EQ(AUGraphInitialize(graph), noErr);
        double seconds = 0;
        UInt32 size = sizeof(seconds);
        ASSERT_EQ(AudioUnitGetProperty(limiter, kAudioUnitProperty_Latency,
                                       kAudioUnitScope_Global, 0, &seconds, &size),
                  noErr);
        latency = std::uint32_t(std::lround(seconds * rate));
        ASSERT_GT(latency, 0u);
    }

    GraphHolder graph;
    AudioUnit limiter = nullptr;
    AudioUnit output = nullptr;
    std::uint32_t latency = 0;
};

TEST_P(PeakLimiterTest, PassesQuietSignalUnchanged)
{
    ScheduledSine source;
    source.amplitude = [](std::uint64_t) { return 0.9f; };
    build(source);
    const auto [rate, slice] = GetParam();
    const auto total = std::uint32_t(rate / 4);
    const Channels out = pull(output, 2, total, slice);
    for (std::uint32_t i = 0; i < total; ++i) {
        const float expected = i < latency ? 0.0f : source.at(i - latency);
        ASSERT_EQ(out[0][i], expected) << i;
        ASSERT_EQ(out[1][i], expected * -0.5f) << i;
    }
}

TEST_P(PeakLimiterTest, NeverExceedsTheCeilingAndRecovers)
{
    const auto [rate, slice] = GetParam();
    const auto burstStart = std::uint64_t(rate * 0.1);
    const auto burstEnd = std::uint64_t(rate * 0.3);
    ScheduledSine source;
    source.hz = 97;
    source.amplitude = [=](std::uint64_t frame) {
        return frame >= burstStart && frame < burstEnd ? 6.0f : 0.5f;
    };
    build(source);
    const auto total = std::uint32_t(rate * 1.0);
    const Channels out = pull(output, 2, total, slice);
    EXPECT_LE(peak(out[0]), kPeakLimiterCeiling);
    EXPECT_LE(peak(out[1]), kPeakLimiterCeiling);
    // Limited, not silenced: the burst still reaches close to the ceiling.
    float burstPeak = 0;
    for (std::uint64_t i = burstStart + latency; i < burstEnd; ++i) {
        burstPeak = std::max(burstPeak, std::fabs(out[0][i]));
    }
    EXPECT_GT(burstPeak, 0.9f * kPeakLimiterCeiling);
    // Well after the burst the quiet signal passes at unity again.
    for (std::uint32_t i = total - std::uint32_t(rate * 0.1); i < total; ++i) {
        ASSERT_NEAR(out[0][i], source.at(i - latency), 1e-4f) << i;
    }
}

INSTANTIATE_TEST_SUITE_P(RatesAndSlices, PeakLimiterTest,
                         ::testing::Combine(::testing::Values(44100.0, 48000.0, 96000.0),
                                            ::testing::Values(64u, 512u, 4096u)));

TEST(PeakLimiterUnitTest, PreGainRaisesTheLevel)
{
    GraphHolder graph;
    const AUNode limiterNode = graph.add(kLimiterDescription);
    const AUNode outputNode = graph.add(kGenericOutputDescription);
    ASSERT_EQ(AUGraphOpen(graph), noErr);
    AudioUnit limiter = graph.unit(limiterNode);
    EXPECT_EQ(AudioUnitSetParameter(limiter, kLimiterParam_PreGain, kAudioUnitScope_Global, 0,
                                    100.0f, 0),
              paramErr);
    ASSERT_EQ(AudioUnitSetParameter(limiter, kLimiterParam_PreGain, kAudioUnitScope_Global, 0,
                                    6.0206f, 0),
              noErr);
    ScheduledSine source;
    source.amplitude = [](std::uint64_t) { return 0.25f; };
    const AURenderCallbackStruct callback{ScheduledSine::render, &source};
    ASSERT_EQ(AUGraphSetNodeInputCallback(graph, limiterNode, 0, &callback), noErr);
    ASSERT_EQ(AUGraphConnectNodeInput(graph, limiterNode, 0, outputNode, 0), noErr);
    ASSERT_EQ(AUGraphInitialize(graph), noErr);
    const Channels out = pull(graph.unit(outputNode), 2, 44100, 512);
    float laterPeak = 0;
    for (std::size_t i = 22050; i < out[0].size(); ++i) {
        laterPeak = std::max(laterPeak, std::fabs(out[0][i]));
    }
    EXPECT_NEAR(laterPeak, 0.5f, 1e-3f);
}

} // namespace
} // namespace vell::test
