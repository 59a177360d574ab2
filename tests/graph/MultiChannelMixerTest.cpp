// The mixer: sums its buses with their volumes, ramps volume changes over one slice without
// clicks, maps mono to every channel, and keeps pulling muted buses.
#include "GraphTestSupport.h"

#include <atomic>

namespace vell::test {
namespace {

/// An input callback producing a constant per channel (channel c gives value × (c + 1)) and
/// counting its calls.
struct ConstantSource {
    float value = 0;
    int calls = 0;

    static OSStatus render(void* refCon, AudioUnitRenderActionFlags*, const AudioTimeStamp*,
                           std::uint32_t, std::uint32_t frames, AudioBufferList* io)
    {
        auto* self = static_cast<ConstantSource*>(refCon);
        ++self->calls;
        for (std::uint32_t c = 0; c < io->mNumberBuffers; ++c) {
            auto* data = static_cast<float*>(io->mBuffers[c].mData);
            std::fill(data, data + frames, self->value * float(c + 1));
        }
        return noErr;
    }
};

using RateAndSlice = std::tuple<double, std::uint32_t>;

class MixerTest : public ::testing::TestWithParam<RateAndSlice> {
protected:
    void build(std::uint32_t busChannels = 2)
    {
        const auto [rate, slice] = GetParam();
        mixerNode = graph.add(kMixerDescription);
        outputNode = graph.add(kGenericOutputDescription);
        ASSERT_EQ(AUGraphOpen(graph), noErr);
        mixer = graph.unit(mixerNode);
        output = graph.unit(outputNode);
        for (const std::uint32_t bus : {0u, 2u, 3u}) {
            setFormat(mixer, kAudioUnitScope_Input, bus, rate, bus == 3 ? busChannels : 2);
        }
        setFormat(mixer, kAudioUnitScope_Output, 0, rate, 2);
        setFormat(output, kAudioUnitScope_Input, 0, rate, 2);
        const AURenderCallbackStruct music{ConstantSource::render, &sources[0]};
        const AURenderCallbackStruct metronome{ConstantSource::render, &sources[1]};
        const AURenderCallbackStruct notes{ConstantSource::render, &sources[2]};
        ASSERT_EQ(AUGraphSetNodeInputCallback(graph, mixerNode, 0, &music), noErr);
        ASSERT_EQ(AUGraphSetNodeInputCallback(graph, mixerNode, 2, &metronome), noErr);
        ASSERT_EQ(AUGraphSetNodeInputCallback(graph, mixerNode, 3, &notes), noErr);
        ASSERT_EQ(AUGraphConnectNodeInput(graph, mixerNode, 0, outputNode, 0), noErr);
    }

    void setVolume(AudioUnitScope scope, std::uint32_t bus, float volume)
    {
        ASSERT_EQ(AudioUnitSetParameter(mixer, kMultiChannelMixerParam_Volume, scope, bus, volume,
                                        0),
                  noErr);
    }

    GraphHolder graph;
    AUNode mixerNode = 0;
    AUNode outputNode = 0;
    AudioUnit mixer = nullptr;
    AudioUnit output = nullptr;
    ConstantSource sources[3];
};

TEST_P(MixerTest, SumsBusesWithTheirVolumes)
{
    build();
    const auto slice = std::get<1>(GetParam());
    sources[0].value = 0.1f;
    sources[1].value = 0.2f;
    sources[2].value = 0.4f;
    setVolume(kAudioUnitScope_Input, 2, 0.5f);
    setVolume(kAudioUnitScope_Input, 3, 0.25f);
    setVolume(kAudioUnitScope_Output, 0, 2.0f);
    ASSERT_EQ(AUGraphInitialize(graph), noErr);
    const Channels out = pull(output, 2, 3 * slice, slice);
    // (0.1 + 0.5 × 0.2 + 0.25 × 0.4) × 2 = 0.6 on the left, twice that on the right.
    for (std::size_t i = 0; i < out[0].size(); i += 7) {
        ASSERT_NEAR(out[0][i], 0.6f, 1e-6f) << i;
        ASSERT_NEAR(out[1][i], 1.2f, 1e-6f) << i;
    }
}

TEST_P(MixerTest, VolumeChangesRampOverOneSlice)
{
    build();
    const auto slice = std::get<1>(GetParam());
    sources[0].value = 0.5f;
    ASSERT_EQ(AUGraphInitialize(graph), noErr);
    const Channels out = pull(output, 2, 3 * slice, slice, [&](std::uint32_t index,
                                                              std::uint32_t) {
        if (index == 1) {
            setVolume(kAudioUnitScope_Input, 0, 0.0f);
        }
    });
    const std::vector<float>& left = out[0];
    float previous = 0.5f;
    // Slice 0 at full level; slice 1 falls linearly to 0, one equal step per frame; slice 2 is
    // silent.
    const float step = 0.5f / float(slice);
    for (std::uint32_t i = 0; i < slice; ++i) {
        ASSERT_NEAR(left[i], 0.5f, 1e-6f);
    }
    for (std::uint32_t i = slice; i < 2 * slice; ++i) {
        const float expected = 0.5f - step * float(i - slice + 1);
        ASSERT_NEAR(left[i], expected, 1e-5f) << i;
        ASSERT_LE(std::fabs(left[i] - previous), step * 1.001f + 1e-6f) << i;
        previous = left[i];
    }
    for (std::uint32_t i = 2 * slice; i < 3 * slice; ++i) {
        ASSERT_EQ(left[i], 0.0f) << i;
    }
    // The muted bus was still pulled every slice.
    EXPECT_EQ(sources[0].calls, 3);
}

TEST_P(MixerTest, MonoBusReachesBothChannels)
{
    build(1);
    const auto slice = std::get<1>(GetParam());
    sources[2].value = 0.3f;
    ASSERT_EQ(AUGraphInitialize(graph), noErr);
    const Channels out = pull(output, 2, slice, slice);
    EXPECT_NEAR(out[0][slice / 2], 0.3f, 1e-6f);
    EXPECT_NEAR(out[1][slice / 2], 0.3f, 1e-6f);
}

TEST_P(MixerTest, DisabledBusIsSilentButPulled)
{
    build();
    const auto slice = std::get<1>(GetParam());
    sources[0].value = 0.25f;
    sources[1].value = 0.5f;
    ASSERT_EQ(AudioUnitSetParameter(mixer, kMultiChannelMixerParam_Enable, kAudioUnitScope_Input,
                                    2, 0.0f, 0),
              noErr);
    ASSERT_EQ(AUGraphInitialize(graph), noErr);
    const Channels out = pull(output, 2, 2 * slice, slice);
    EXPECT_NEAR(out[0][slice + 3], 0.25f, 1e-6f);
    EXPECT_EQ(sources[1].calls, 2);
}

INSTANTIATE_TEST_SUITE_P(RatesAndSlices, MixerTest,
                         ::testing::Combine(::testing::Values(44100.0, 48000.0, 96000.0),
                                            ::testing::Values(64u, 512u, 4096u)));

TEST(MixerUnitTest, BusCountAndRatesAreChecked)
{
    GraphHolder graph;
    const AUNode mixerNode = graph.add(kMixerDescription);
    const AUNode outputNode = graph.add(kGenericOutputDescription);
    ASSERT_EQ(AUGraphOpen(graph), noErr);
    AudioUnit mixer = graph.unit(mixerNode);
    UInt32 count = 0;
    UInt32 size = sizeof(count);
    ASSERT_EQ(AudioUnitGetProperty(mixer, kAudioUnitProperty_ElementCount, kAudioUnitScope_Input,
                                   0, &count, &size),
              noErr);
    EXPECT_EQ(count, 8u);
    count = 2;
    ASSERT_EQ(AudioUnitSetProperty(mixer, kAudioUnitProperty_ElementCount, kAudioUnitScope_Input,
                                   0, &count, sizeof(count)),
              noErr);
    float volume = 0;
    EXPECT_EQ(AudioUnitGetParameter(mixer, kMultiChannelMixerParam_Volume, kAudioUnitScope_Input,
                                    2, &volume),
              kAudioUnitErr_InvalidElement);
    // A used bus at another rate than the output cannot be mixed.
    setFormat(mixer, kAudioUnitScope_Input, 1, 22050, 2);
    ConstantSource source;
    const AURenderCallbackStruct callback{ConstantSource::render, &source};
    ASSERT_EQ(AUGraphSetNodeInputCallback(graph, mixerNode, 1, &callback), noErr);
    ASSERT_EQ(AUGraphConnectNodeInput(graph, mixerNode, 0, outputNode, 0), noErr);
    EXPECT_EQ(AUGraphInitialize(graph), kAudioUnitErr_FormatNotSupported);
}

} // namespace
} // namespace vell::test
