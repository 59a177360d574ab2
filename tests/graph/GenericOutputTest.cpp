// The generic output: pulled on the caller's thread, it renders exactly the frames asked for,
// converts from its input rate to its output rate without drift or delay, and scales by its
// volume.
#include "GraphTestSupport.h"

#include <numbers>

namespace vell::test {
namespace {

/// An input that counts the frames pulled and plays a sine, or an impulse at one frame.
struct CountingSource {
    double rate = 48000;
    double hz = 1000;
    long impulseAt = -1;
    std::uint64_t pulled = 0;

    static OSStatus render(void* refCon, AudioUnitRenderActionFlags*, const AudioTimeStamp*,
                           std::uint32_t, std::uint32_t frames, AudioBufferList* io)
    {
        auto* self = static_cast<CountingSource*>(refCon);
        for (std::uint32_t i = 0; i < frames; ++i) {
            const std::uint64_t frame = self->pulled + i;
            float value = 0;
            if (self->impulseAt >= 0) {
                value = long(frame) == self->impulseAt ? 1.0f : 0.0f;
            } else {
                value = 0.5f * float(std::sin(2 * std::numbers::pi * self->hz * double(frame) /
                                              self->rate));
            }
            for (std::uint32_t c = 0; c < io->mNumberBuffers; ++c) {
                static_cast<float*>(io->mBuffers[c].mData)[i] = value;
            }
        }
        self->pulled += frames;
        return noErr;
    }
};

/// A generic output at outputRate fed by a callback at inputRate.
struct ConvertingGraph {
    ConvertingGraph(double inputRate, double outputRate, CountingSource& source)
    {
        source.rate = inputRate;
        const AUNode outputNode = graph.add(kGenericOutputDescription);
        EXPECT_EQ(AUGraphOpen(graph), noErr);
        output = graph.unit(outputNode);
        setFormat(output, kAudioUnitScope_Input, 0, inputRate, 2);
        EXPECT_EQ(AudioUnitSetProperty(output, kAudioUnitProperty_SampleRate,
                                       kAudioUnitScope_Output, 0, &outputRate,
                                       sizeof(outputRate)),
                  noErr);
        const AURenderCallbackStruct callback{CountingSource::render, &source};
        EXPECT_EQ(AUGraphSetNodeInputCallback(graph, outputNode, 0, &callback), noErr);
        EXPECT_EQ(AUGraphInitialize(graph), noErr);
    }

    GraphHolder graph;
    AudioUnit output = nullptr;
};

struct Conversion {
    double from;
    double to;
};

class GenericOutputTest
    : public ::testing::TestWithParam<std::tuple<Conversion, std::uint32_t>> {};

TEST_P(GenericOutputTest, PullsInputInProportionToTheRates)
{
    const auto [conversion, slice] = GetParam();
    CountingSource source;
    ConvertingGraph graph(conversion.from, conversion.to, source);
    const double inputPerOutput = conversion.from / conversion.to;
    // After each slice the input pulled runs ahead of the output's share by a constant
    // (the converter's look-ahead), give or take a frame or two of rounding.
    double lowest = 1e9;
    double highest = -1e9;
    std::uint64_t produced = 0;
    pull(graph.output, 2, 40 * slice, slice, [&](std::uint32_t index, std::uint32_t first) {
        produced = first;
        if (index >= 2) {
            const double lead = double(source.pulled) - double(produced) * inputPerOutput;
            lowest = std::min(lowest, lead);
            highest = std::max(highest, lead);
        }
    });
    EXPECT_LE(highest - lowest, 2.0 + inputPerOutput);
    EXPECT_GE(lowest, 0.0);
    EXPECT_LT(highest, 128.0);
}

TEST_P(GenericOutputTest, KeepsTimingAndFrequency)
{
    const auto [conversion, slice] = GetParam();
    {
        CountingSource source;
        source.impulseAt = 3000;
        ConvertingGraph graph(conversion.from, conversion.to, source);
        const Channels out = pull(graph.output, 2, 8192, slice);
        std::size_t loudest = 0;
        for (std::size_t i = 0; i < out[0].size(); ++i) {
            if (std::fabs(out[0][i]) > std::fabs(out[0][loudest])) {
                loudest = i;
            }
        }
        // No delay: input frame p lands at output frame p × (output rate / input rate).
        EXPECT_NEAR(double(loudest), 3000.0 * conversion.to / conversion.from, 1.0);
    }
    {
        CountingSource source;
        ConvertingGraph graph(conversion.from, conversion.to, source);
        const auto total = std::uint32_t(conversion.to / 2);
        const Channels out = pull(graph.output, 2, total, slice);
        const double pitch1k = 69.0 + 12.0 * std::log2(1000.0 / 440.0);
        EXPECT_NEAR(strongestPitch(out[1], total / 4, total, conversion.to, pitch1k - 0.5,
                                   pitch1k + 0.5),
                    pitch1k, 0.02);
        EXPECT_NEAR(peak(out[0]), 0.5f, 0.01f);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Conversions, GenericOutputTest,
    ::testing::Combine(::testing::Values(Conversion{48000, 44100}, Conversion{44100, 48000},
                                         Conversion{96000, 44100}, Conversion{44100, 96000}),
                       ::testing::Values(64u, 512u, 4096u)));

TEST(GenericOutputUnitTest, SameRatePassesInputThroughWithVolume)
{
    CountingSource source;
    ConvertingGraph graph(44100, 44100, source);
    const Channels direct = pull(graph.output, 2, 1000, 100);
    EXPECT_EQ(source.pulled, 1000u);
    for (std::size_t i = 0; i < 1000; ++i) {
        ASSERT_EQ(direct[0][i],
                  0.5f * float(std::sin(2 * std::numbers::pi * 1000.0 * double(i) / 44100.0)));
    }
    ASSERT_EQ(AudioUnitSetParameter(graph.output, kHALOutputParam_Volume, kAudioUnitScope_Output,
                                    0, 0.5f, 0),
              noErr);
    const Channels quieter = pull(graph.output, 2, 200, 100);
    // The first slice ramps to the new volume; the second is at it.
    const float expected =
        0.25f * float(std::sin(2 * std::numbers::pi * 1000.0 * 1150.0 / 44100.0));
    EXPECT_NEAR(quieter[0][150], expected, 1e-6f);
    EXPECT_EQ(AudioUnitSetParameter(graph.output, kHALOutputParam_Volume, kAudioUnitScope_Output,
                                    0, 1.5f, 0),
              paramErr);
}

TEST(GenericOutputUnitTest, OutputFormatFollowsTheInput)
{
    GraphHolder graph;
    const AUNode outputNode = graph.add(kGenericOutputDescription);
    ASSERT_EQ(AUGraphOpen(graph), noErr);
    AudioUnit output = graph.unit(outputNode);
    setFormat(output, kAudioUnitScope_Input, 0, 22050, 1);
    AudioStreamBasicDescription format;
    UInt32 size = sizeof(format);
    ASSERT_EQ(AudioUnitGetProperty(output, kAudioUnitProperty_StreamFormat,
                                   kAudioUnitScope_Output, 0, &format, &size),
              noErr);
    EXPECT_EQ(format, makeFloatNonInterleavedFormat(22050, 1));
    const double rate = 44100;
    ASSERT_EQ(AudioUnitSetProperty(output, kAudioUnitProperty_SampleRate, kAudioUnitScope_Output, 0,
                                   &rate, sizeof(rate)),
              noErr);
    // The output rate stays when the input changes; the channel count follows it.
    setFormat(output, kAudioUnitScope_Input, 0, 48000, 2);
    ASSERT_EQ(AudioUnitGetProperty(output, kAudioUnitProperty_StreamFormat,
                                   kAudioUnitScope_Output, 0, &format, &size),
              noErr);
    EXPECT_EQ(format, makeFloatNonInterleavedFormat(44100, 2));
    const AudioStreamBasicDescription mono = makeFloatNonInterleavedFormat(44100, 1);
    EXPECT_EQ(AudioUnitSetProperty(output, kAudioUnitProperty_StreamFormat, kAudioUnitScope_Output,
                                   0, &mono, sizeof(mono)),
              kAudioUnitErr_FormatNotSupported);
}

} // namespace
} // namespace vell::test
