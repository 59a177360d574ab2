// The MIDI output unit, its graph rendered offline: strum timing, which notes a new note or
// chord stops, the limiter, pitch, the delayed note-off on the main queue, the level, and a
// render path that allocates nothing.
#include "VellAudio/MIDIOutputUnit.h"

#include "../graph/GraphTestSupport.h"
#include "RealtimeGuard.h"
#include "countin_midi/PitchPlaybackQueue.h"
#include "platform/ManualTime.h"
#include "platform/device/BRIXAudioHardware.h"

#include <gtest/gtest.h>

#include <future>
#include <string>
#include <thread>

namespace vell::test {
namespace {

using namespace std::chrono_literals;

constexpr double kRate = 44100;

std::size_t frameAt(double seconds)
{
    return std::size_t(seconds * kRate);
}

/// Every unit renders to the null device, never to a sound card.
class MIDIOutputUnitTest : public testing::Test {
protected:
    void SetUp() override
    {
        BRIXAudioHardware::shared().setDefaultOutputDeviceOverride(kNullAudioDeviceID);
    }
    void TearDown() override
    {
        BRIXAudioHardware::shared().setDefaultOutputDeviceOverride(kAudioDeviceUnknown);
    }

    /// Renders seconds more of the unit's output into audio.
    static void render(MIDIOutputUnit& unit, MIDIRenderedAudio& audio, double seconds)
    {
        ASSERT_TRUE(unit.renderOffline(std::uint32_t(frameAt(seconds)), audio));
    }

    static std::vector<float> strummed(const std::vector<KPitch>& pitches)
    {
        MIDIOutputUnit unit;
        unit.strumNotes(pitches);
        MIDIRenderedAudio audio;
        render(unit, audio, 0.1);
        return audio.channels.at(0);
    }

    /// The audio's peak in [from, to) seconds.
    static float peakIn(const MIDIRenderedAudio& audio, double from, double to)
    {
        return audio.peak(frameAt(from), frameAt(to));
    }

    static double magnitudeIn(const MIDIRenderedAudio& audio, double from, double to, double hz)
    {
        return magnitudeAt(audio.channels[0], frameAt(from), frameAt(to), kRate, hz);
    }
};

TEST_F(MIDIOutputUnitTest, StrumSpreadsTheStrings441FramesApartInTheOrderGiven)
{
    // Each string's note-on shows where the strum first differs from the one without it.
    const std::vector<float> one = strummed({KPitch(60)});
    const std::vector<float> two = strummed({KPitch(60), KPitch(64)});
    const std::vector<float> three = strummed({KPitch(60), KPitch(64), KPitch(67)});
    auto firstDifference = [](const std::vector<float>& a, const std::vector<float>& b) {
        for (std::size_t i = 0; i < a.size(); ++i) {
            if (a[i] != b[i]) {
                return long(i);
            }
        }
        return -1L;
    };
    const long first = firstAbove(one, 0.0f);
    ASSERT_GE(first, 0);
    // The first note's attack starts from zero: its first audible frame may lag by one.
    EXPECT_NEAR(firstDifference(two, one) - first, 441, 1);
    EXPECT_NEAR(firstDifference(three, two) - first, 882, 1);
}

TEST_F(MIDIOutputUnitTest, NewPitchStopsTheLastOneBeforeItStarts)
{
    MIDIOutputUnit control;
    control.playNote(KPitch(69));
    MIDIRenderedAudio held;
    render(control, held, 1.3);

    // The same pitch again: its note-off must come first, or it would stop the new note.
    MIDIOutputUnit unit;
    unit.playNote(KPitch(69));
    MIDIRenderedAudio again;
    render(unit, again, 0.3);
    unit.playNote(KPitch(69));
    render(unit, again, 1.0);
    EXPECT_GT(peakIn(again, 0.8, 1.3), 0.5f * peakIn(held, 0.5, 1.0));

    // Another pitch: the old one is stopped.
    MIDIOutputUnit other;
    other.playNote(KPitch(69));
    MIDIRenderedAudio changed;
    render(other, changed, 0.3);
    other.playNote(KPitch(76));
    render(other, changed, 1.0);
    EXPECT_LT(magnitudeIn(changed, 0.8, 1.3, 440.0), 0.02 * magnitudeIn(held, 0.8, 1.3, 440.0));
    EXPECT_EQ(other.lastPlayed(), KPitch(76));
}

TEST_F(MIDIOutputUnitTest, StrumStopsTheLastChordBeforeItStarts)
{
    const std::vector<KPitch> cMajor{KPitch(60), KPitch(64), KPitch(67)};
    const std::vector<KPitch> dMajor{KPitch(62), KPitch(66), KPitch(69)};
    MIDIOutputUnit control;
    control.strumNotes(cMajor);
    MIDIRenderedAudio held;
    render(control, held, 1.3);

    MIDIOutputUnit unit;
    unit.strumNotes(cMajor);
    MIDIRenderedAudio again;
    render(unit, again, 0.3);
    unit.strumNotes(cMajor);
    render(unit, again, 1.0);
    // The first string's new note-on shares offset 0 with the old chord's note-offs.
    EXPECT_GT(magnitudeIn(again, 0.8, 1.3, 261.63), 0.5 * magnitudeIn(held, 0.5, 1.0, 261.63));

    MIDIOutputUnit other;
    other.strumNotes(cMajor);
    MIDIRenderedAudio changed;
    render(other, changed, 0.3);
    other.strumNotes(dMajor);
    render(other, changed, 1.0);
    EXPECT_LT(magnitudeIn(changed, 0.8, 1.3, 261.63), 0.02 * magnitudeIn(held, 0.8, 1.3, 261.63));
    EXPECT_EQ(other.lastStrummed(), dMajor);
}

TEST_F(MIDIOutputUnitTest, StrumWithANonPitchSendsNothingAndKeepsTheLastChord)
{
    MIDIOutputUnit unit;
    const std::vector<std::any> mixed{KPitch(64), std::string("G4")};
    unit.strumNotes(mixed);
    MIDIRenderedAudio audio;
    render(unit, audio, 0.3);
    EXPECT_EQ(audio.peak(), 0.0f);
    EXPECT_TRUE(unit.lastStrummed().empty());

    const std::vector<std::any> pitches{KPitch(60)};
    unit.strumNotes(pitches);
    unit.strumNotes(mixed);
    EXPECT_EQ(unit.lastStrummed(), std::vector<KPitch>{KPitch(60)});
}

TEST_F(MIDIOutputUnitTest, LimiterKeepsAFullVelocitySixStringStrumBelowFullScale)
{
    // F#maj7 as 243322: the sampler alone peaks about 1.2 (+1.7 dBFS) here.
    MIDIOutputUnit unit;
    unit.strumNotes({KPitch(42), KPitch(49), KPitch(53), KPitch(58), KPitch(61), KPitch(66)});
    MIDIRenderedAudio audio;
    render(unit, audio, 1.0);
    EXPECT_LE(audio.peak(), kPeakLimiterCeiling);
    EXPECT_GT(audio.peak(), 0.95f);
}

TEST_F(MIDIOutputUnitTest, A4SoundsAt440Hz)
{
    MIDIOutputUnit unit;
    unit.playNote(KPitch(69));
    MIDIRenderedAudio audio;
    render(unit, audio, 0.6);
    EXPECT_NEAR(
        strongestPitch(audio.channels[0], frameAt(0.1), frameAt(0.1) + 16384, kRate, 45, 93), 69.0,
        0.05);
}

TEST_F(MIDIOutputUnitTest, DelayedNoteOffComesOnTimeEvenAfterAnotherNoteStarted)
{
    ManualTimeScope time;
    MIDIOutputUnit unit;
    unit.playNote(KPitch(69), 0.5);
    unit.playNote(KPitch(69));
    MIDIRenderedAudio audio;
    render(unit, audio, 0.2);
    time.advance(490ms);
    render(unit, audio, 0.3);
    EXPECT_GT(peakIn(audio, 0.4, 0.5), 0.05f);
    time.advance(20ms);
    render(unit, audio, 0.5);
    EXPECT_LT(peakIn(audio, 0.8, 1.0), 0.001f);

    // A unit gone before its note-off's time leaves nothing behind to call.
    {
        MIDIOutputUnit shortLived;
        shortLived.playNote(KPitch(60), 0.1);
    }
    time.advance(200ms);
}

TEST_F(MIDIOutputUnitTest, PlaybackLevelScalesTheOutputAndAnnouncesChanges)
{
    MIDIOutputUnit full;
    MIDIOutputUnit half;
    int announced = 0;
    const auto token =
        half.addObserver(MIDIOutputUnit::kPlaybackLevelKey, [&](const KeyChange&) { ++announced; });
    half.setPlaybackLevel(0.5);
    half.setPlaybackLevel(0.5);
    EXPECT_EQ(announced, 1);
    EXPECT_EQ(half.playbackLevel(), 0.5);

    MIDIRenderedAudio fullAudio;
    MIDIRenderedAudio halfAudio;
    for (auto [unit, audio] : {std::pair{&full, &fullAudio}, std::pair{&half, &halfAudio}}) {
        unit->playNote(KPitch(57));
        render(*unit, *audio, 0.5);
    }
    // Past the first slice, where the level ramps in.
    EXPECT_NEAR(peakIn(halfAudio, 0.1, 0.5) / peakIn(fullAudio, 0.1, 0.5), 0.5, 0.01);

    testing::internal::CaptureStdout();
    half.setPlaybackLevel(20.0);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "audioCallFailed: status = -50\n");
    EXPECT_EQ(half.playbackLevel(), 0.5);
}

TEST_F(MIDIOutputUnitTest, StopAllNotesSilencesThePitchAndTheChordAndTheMeterFollows)
{
    MIDIOutputUnit unit;
    unit.playNote(KPitch(69));
    unit.strumNotes({KPitch(48), KPitch(55)});
    MIDIRenderedAudio audio;
    render(unit, audio, 0.3);
    EXPECT_GT(unit.outputLevel(), 0.05f);
    unit.stopAllNotes();
    render(unit, audio, 0.5);
    EXPECT_LT(peakIn(audio, 0.6, 0.8), 0.001f);
    EXPECT_LT(unit.outputLevel(), 0.001f);
}

TEST_F(MIDIOutputUnitTest, OfflineRenderingAllocatesNothingAndRefusesWhileRunning)
{
    MIDIOutputUnit unit;
    MIDIRenderedAudio audio;
    render(unit, audio, 0.01);
    for (std::vector<float>& channel : audio.channels) {
        channel.reserve(frameAt(1.0));
    }
    unit.strumNotes({KPitch(40), KPitch(45), KPitch(50), KPitch(55), KPitch(59), KPitch(64)});
    const RealtimeCounts counts =
        countRealtimeViolations([&] { EXPECT_TRUE(unit.renderOffline(8192, audio)); });
    EXPECT_EQ(counts.total(), 0u);
    EXPECT_GT(audio.peak(), 0.1f);

    unit.start();
    ASSERT_TRUE(unit.isRunning());
    EXPECT_FALSE(unit.renderOffline(512, audio));
    unit.stop();
    EXPECT_FALSE(unit.isRunning());
}

TEST_F(MIDIOutputUnitTest, PitchPlaybackQueueRunsTasksInOrderOnItsOwnThread)
{
    PitchPlaybackQueue holder;
    EXPECT_TRUE(holder.label().ends_with(".pitchPlaybackQueue"));
    std::vector<int> order;
    std::promise<std::thread::id> done;
    for (int i = 0; i < 3; ++i) {
        holder.queue.async([&order, i] { order.push_back(i); });
    }
    holder.queue.async([&] { done.set_value(std::this_thread::get_id()); });
    EXPECT_NE(done.get_future().get(), std::this_thread::get_id());
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2}));
}

using MIDIOutputUnitDeathTest = MIDIOutputUnitTest;

TEST_F(MIDIOutputUnitDeathTest, DurationThatIsNotFiniteStopsTheProcess)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            MIDIOutputUnit unit;
            unit.playNote(KPitch(69), std::numeric_limits<double>::infinity());
        },
        "isfinite");
}

} // namespace
} // namespace vell::test
