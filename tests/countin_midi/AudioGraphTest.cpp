// The checked graph wrapper: a failing call prints its exact status line and reports failure,
// a working graph prints nothing; MIDI messages and their raw bytes; fatal MIDI data.
#include "VellAudio/DictionaryRepresentable.h"
#include "countin_midi/AudioGraph.h"

#include <gtest/gtest.h>

#include <unordered_set>

namespace vell::test {
namespace {

TEST(AudioGraphTest, FailingCallsPrintTheirStatusLineAndReportFailure)
{
    AudioGraph graph;
    ASSERT_TRUE(graph.open());

    // No output node: the graph cannot start.
    testing::internal::CaptureStdout();
    EXPECT_FALSE(graph.start());
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "audioCallFailed: status = -10862\n");

    const AudioComponentDescription unknown{fourCharCode("aumu"), fourCharCode("none"), 0, 0, 0};
    testing::internal::CaptureStdout();
    EXPECT_EQ(graph.addNode(unknown), std::nullopt);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "audioCallFailed failed with status -3000\n");

    testing::internal::CaptureStdout();
    EXPECT_FALSE(graph.connect(41, 0, 42, 0));
    EXPECT_EQ(graph.audioUnit(41), std::nullopt);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "audioCallFailed: status = -10860\naudioCallFailed: status = -10860\n");
}

TEST(AudioGraphTest, WorkingGraphIsSilentAndHandsOutItsUnits)
{
    testing::internal::CaptureStdout();
    {
        AudioGraph graph;
        ASSERT_TRUE(graph.open());
        const auto mixer = graph.addNode(MultiChannelMixer::componentDescription);
        const auto sampler = graph.addNode(AUSampler::componentDescription);
        ASSERT_TRUE(mixer && sampler);
        EXPECT_TRUE(graph.connect(*sampler, 0, *mixer, 0));
        EXPECT_TRUE(graph.initialize());
        const auto unit = graph.audioUnit(*mixer);
        ASSERT_TRUE(unit.has_value());
        const MultiChannelMixer role{*unit};
        EXPECT_TRUE(role.setVolume(0.25f));
        EXPECT_EQ(role.volume(), 0.25f);
        EXPECT_FALSE(graph.isRunning());
    }
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
}

TEST(AudioGraphTest, MIDIMessagesComeFromTheirRawBytesOnly)
{
    EXPECT_EQ(midiMessageFromRawValue(144), MIDIMessage::noteOn);
    EXPECT_EQ(midiMessageFromRawValue(128), MIDIMessage::noteOff);
    for (int other : {0, 127, 129, 143, 145, 255}) {
        SCOPED_TRACE(other);
        EXPECT_EQ(midiMessageFromRawValue(std::uint8_t(other)), std::nullopt);
    }
    EXPECT_EQ(rawValue(MIDIMessage::noteOn), 0x90);
    EXPECT_EQ(rawValue(MIDIMessage::noteOff), 0x80);
    const std::unordered_set<MIDIMessage> both{MIDIMessage::noteOn, MIDIMessage::noteOff,
                                               MIDIMessage::noteOn};
    EXPECT_EQ(both.size(), 2u);
}

struct Settings {
    Dictionary dictionaryRepresentation() const { return {{"bypass", true}, {"pan", 0.5}}; }
};
static_assert(DictionaryRepresentable<Settings> && !DictionaryRepresentable<AudioEffect>);

using AudioGraphDeathTest = testing::Test;

TEST_F(AudioGraphDeathTest, OutOfRangeMIDIDataStopsTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    AudioGraph graph;
    graph.open();
    const AUSampler sampler{*graph.audioUnit(*graph.addNode(AUSampler::componentDescription))};
    ASSERT_TRUE(graph.initialize());
    EXPECT_TRUE(sampler.sendMIDIEvent(MIDIMessage::noteOn, KPitch(69), 127, 0xFFFFFFFFll));
    // The sampler itself takes 7-bit data only: a byte value is refused, not fatal.
    testing::internal::CaptureStdout();
    EXPECT_FALSE(sampler.sendMIDIEvent(MIDIMessage::noteOn, KPitch(69), 255, 0));
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "audioCallFailed: status = -50\n");
    EXPECT_DEATH(sampler.sendMIDIEvent(MIDIMessage::noteOn, KPitch(69), 256, 0), "velocity");
    EXPECT_DEATH(sampler.sendMIDIEvent(MIDIMessage::noteOff, KPitch(69), -1, 0), "velocity");
    EXPECT_DEATH(sampler.sendMIDIEvent(MIDIMessage::noteOn, KPitch(69), 127, 0x100000000ll),
                 "offset");
    EXPECT_DEATH(sampler.sendMIDIEvent(MIDIMessage::noteOn, KPitch(69), 127, -1), "offset");
}

} // namespace
} // namespace vell::test
