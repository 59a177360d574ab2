// A practice session driven through the controller as the player drives it, on the null device,
// checked on what the device played: the count-in's clicks, the music coming in on the beat,
// gapless loop seams, speed and pitch changed while playing without a seek, and a freeze.
#include "EngineTestSupport.h"

#include "VellAudio/VellAudioDevices.h"
#include "VellAudio/VellMainQueue.h"
#include "VellAudio/VellPlaybackController.h"
#include "platform/device/NullOutputStream.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

namespace vell::test {
namespace {

constexpr double kRate = 44100;
constexpr Frame kBeat = 22050; // 120 BPM
constexpr double kLevel = 0.3;

using namespace std::chrono_literals;

void runFor(std::chrono::milliseconds time)
{
    VellRunMainQueueUntil([] { return false; }, time);
}

/// RMS of signal[from, from + length).
double rms(const std::vector<float>& signal, std::size_t from, std::size_t length)
{
    double sum = 0;
    for (std::size_t i = from; i < from + length; ++i) {
        sum += double(signal[i]) * signal[i];
    }
    return std::sqrt(sum / double(length));
}

TEST(PracticeSession, CountInLoopSpeedPitchAndFreezeAsHeard)
{
    ScopedDefaults defaults;
    ASSERT_TRUE(VellSelectOutputDevice("null"));
    // Twenty seconds of a steady 220 Hz tone: any gap, repeat or seam step stands out.
    const Frame frames = Frame(20 * kRate);
    std::vector<float> tone(static_cast<std::size_t>(frames));
    for (std::size_t i = 0; i < tone.size(); ++i) {
        tone[i] = float(kLevel * std::sin(2 * std::numbers::pi * 220 * double(i) / kRate));
    }
    auto storage = std::make_shared<VellNoteEntryStorage>();
    ASSERT_TRUE(storage->makeBeatGrid(120, 0, frames, kRate));
    // The player's stream is the first the controller opens: it records.
    auto capture = std::make_shared<detail::NullDeviceCapture>(2, std::size_t(30 * kRate));
    detail::NullDeviceCapture::install(capture);
    auto c = VellPlaybackController::createWithAudioFile(
        BRIXExtendedAudioFile::createWithSamples({tone, tone}, kRate), storage);
    ASSERT_TRUE(c);

    // Loop two bars from 2 s, counted in by one bar.
    auto region = storage->newRegionEntry();
    region->setRange(VellMakeFrameRange(4 * kBeat, 8 * kBeat));
    storage->addRegionEntry(region);
    c->setActiveRegion(region);
    c->setMetronomeEnabled(true);
    c->setCountInMode(1);
    c->startFilePlaying();
    ASSERT_TRUE(c->isPlaying());
    EXPECT_EQ(c->prerollDisplayFrame(), 0);
    runFor(3500ms);
    c->setMetronomeEnabled(false);
    runFor(2500ms);
    const std::size_t metronomeOff = capture->frameCount();

    // Speed and pitch change while playing: the playhead carries on from where it is heard.
    const Frame before = c->currentFrame();
    c->setPlaybackSpeed(0.75);
    const Frame after = c->currentFrame();
    EXPECT_LE(std::llabs(after - before), Frame(0.001 * kRate) + 512) << before << " " << after;
    runFor(2000ms);
    const std::size_t speedChanged = capture->frameCount();
    c->setTranspositionInterval(2);
    runFor(1000ms);
    const std::size_t scrubbed = capture->frameCount();
    c->startFileScrubbing();
    EXPECT_TRUE(c->freezer()->isPlaying());
    runFor(500ms);
    c->stopFileScrubbing();
    EXPECT_TRUE(c->isPlaying());
    runFor(300ms);
    c->stopFilePlaying();
    const std::vector<float> out = capture->channel(0);
    ASSERT_GT(out.size(), scrubbed);

    // The music comes in where the 10 ms level first stays up for a tenth of a second.
    const std::size_t window = 441;
    std::size_t musicStart = 0;
    for (std::size_t at = 0, run = 0; at + window < out.size(); at += window) {
        run = rms(out, at, window) > kLevel * 0.5 ? run + 1 : 0;
        if (run == 10) {
            musicStart = at - 9 * window;
            break;
        }
    }
    ASSERT_GT(musicStart, 0u);
    // Before it, one bar of clicks a beat apart, the music then on the next beat.
    const std::vector<float> countIn(out.begin(), out.begin() + std::ptrdiff_t(musicStart));
    const std::vector<double> clicks = onsets(countIn);
    ASSERT_EQ(clicks.size(), 4u) << "music at " << musicStart;
    for (std::size_t i = 1; i < clicks.size(); ++i) {
        EXPECT_NEAR(clicks[i] - clicks[i - 1], kBeat, 0.002 * kRate) << i;
    }
    EXPECT_NEAR(double(musicStart), clicks.back() + kBeat, double(window) * 2);

    // From the music's start to the freeze: no gap, through seams and both changes.
    for (std::size_t at = musicStart + window; at + window < scrubbed; at += window) {
        ASSERT_GT(rms(out, at, window), kLevel * 0.5) << "a gap at " << at;
    }
    // Seams with the metronome off: no step beyond the tone's own.
    const double ownStep = kLevel * 2 * std::numbers::pi * 220 / kRate;
    double step = 0;
    for (std::size_t i = metronomeOff - std::size_t(2 * kRate) + 4410; i < speedChanged; ++i) {
        step = std::max(step, double(std::fabs(out[i] - out[i - 1])));
    }
    EXPECT_LT(step, ownStep * 1.2);
}

} // namespace
} // namespace vell::test
