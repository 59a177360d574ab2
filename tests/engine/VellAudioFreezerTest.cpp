// The audio freezer: window rules, isolation and transposition of the held sound, cross-fades
// while playing, the worker's ring across start and stop, and a real-time render path.
#include "engine/VellAudioFreezer.h"

#include "audio/bufferplayer/BRIXAudioEngine.h"
#include "audio/bufferplayer/BRIXAudioPCMBuffer.h"

#include "../isolation/TestSignals.h"
#include "RealtimeGuard.h"

#include <VellAudio/VellAudioDevices.h>

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>

using namespace vell;
using namespace vell::test;

namespace {

constexpr double kRate = 44100;

/// A stereo file: left and right of equal length.
std::shared_ptr<BRIXExtendedAudioFile> makeFile(std::vector<float> left, std::vector<float> right)
{
    return BRIXExtendedAudioFile::createWithSamples({std::move(left), std::move(right)}, kRate);
}

/// One tone in both channels, switching from hz to nextHz at frame switchAt.
std::shared_ptr<BRIXExtendedAudioFile> makeToneFile(std::size_t frames, double hz,
                                                    double nextHz = 0, std::size_t switchAt = 0)
{
    std::vector<float> tone = sines({hz}, 0.4, kRate, frames);
    if (nextHz > 0) {
        const std::vector<float> next = sines({nextHz}, 0.4, kRate, frames);
        std::copy(next.begin() + long(switchAt), next.end(), tone.begin() + long(switchAt));
    }
    return makeFile(tone, tone);
}

std::unique_ptr<VellAudioFreezer> makeFreezer(std::shared_ptr<BRIXExtendedAudioFile> file)
{
    Error error;
    auto freezer = VellAudioFreezer::create(std::move(file), &error);
    EXPECT_TRUE(freezer) << error.description();
    return freezer;
}

/// frames of frozen sound through the public offline path, from a fresh start.
Channels renderFrozen(VellAudioFreezer& freezer, std::size_t frames)
{
    Channels out = makeChannels(int(freezer.channelCount()), frames);
    float* channels[2] = {out[0].data(), out[1].data()};
    EXPECT_TRUE(freezer.beginOfflineRendering());
    EXPECT_TRUE(freezer.renderOffline(channels, std::uint32_t(frames)));
    freezer.endOfflineRendering();
    return out;
}

/// The tone's amplitude well after the fade-in.
double heldAmplitude(const std::vector<float>& x, double hz)
{
    return toneAmplitude(x, 16384, 16384, hz, kRate);
}

/// Worker threads of freezers alive in this process (they name themselves).
int freezerWorkerCount()
{
    int count = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream comm(task.path() / "comm");
        std::string name;
        count += std::getline(comm, name) && name == "vell-freezer";
    }
    return count;
}

} // namespace

TEST(VellAudioFreezerTest, WindowRulesAtTheEndsOfTheFile)
{
    constexpr Frame kLength = 60000;
    // 440 Hz up to frame 30000, 660 Hz after.
    auto freezer = makeFreezer(makeToneFile(kLength, 440, 660, 30000));
    ASSERT_TRUE(freezer);

    EXPECT_FALSE(freezer->setFrozenAudioFrame(kLength - 8193));
    const std::vector<float> silence = renderFrozen(*freezer, 8192)[0];
    EXPECT_EQ(largestStep(silence, 1, silence.size()), 0.0) << "refused, yet a window";
    EXPECT_TRUE(freezer->setFrozenAudioFrame(kLength - 8194));
    // The held sound is the window's (the isolated half, not the isolator's settling half).
    Channels out = renderFrozen(*freezer, 32768);
    EXPECT_NEAR(heldAmplitude(out[0], 660), 0.4, 0.04);
    EXPECT_LT(heldAmplitude(out[0], 440), 0.004);

    // A refused frame leaves the window; a negative one reads from the start.
    EXPECT_FALSE(freezer->setFrozenAudioFrame(kLength));
    EXPECT_NEAR(heldAmplitude(renderFrozen(*freezer, 32768)[1], 660), 0.4, 0.04);
    EXPECT_TRUE(freezer->setFrozenAudioFrame(-100000));
    out = renderFrozen(*freezer, 32768);
    EXPECT_NEAR(heldAmplitude(out[1], 440), 0.4, 0.04);
    EXPECT_LT(heldAmplitude(out[1], 660), 0.004);

    // A file must be longer than the window and its one-frame margin.
    EXPECT_FALSE(makeFreezer(makeToneFile(8193, 440))->setFrozenAudioFrame(0));
    EXPECT_TRUE(makeFreezer(makeToneFile(8194, 440))->setFrozenAudioFrame(0));
}

TEST(VellAudioFreezerTest, LeftOnlyIsolationKeepsTheLeftChordAndDropsTheRightOne)
{
    // A major hard left, F# hard right; no two tones share the freezer's peak regions.
    const std::vector<double> leftChord = {220.00, 554.37, 880.00};
    const std::vector<double> rightChord = {369.99, 739.99, 1108.73};
    const std::size_t frames = 40000;
    auto file = makeFile(sines(leftChord, 0.15, kRate, frames, 7),
                         sines(rightChord, 0.15, kRate, frames, 8));

    auto open = makeFreezer(file);
    auto isolated = makeFreezer(file);
    ASSERT_TRUE(open && isolated);
    TessalyInstance* playback = TessalyCreate(44100, 2, 1024);
    TessalySetBypass(playback, false);
    TessalySetPan(playback, 0.0f);
    TessalySetPanWidth(playback, 0.2f);
    isolated->takeSettingsFromTessalyInstance(playback);
    TessalyDestroy(playback);

    ASSERT_TRUE(open->setFrozenAudioFrame(20000));
    ASSERT_TRUE(isolated->setFrozenAudioFrame(20000));
    const Channels reference = renderFrozen(*open, 32768);
    const Channels out = renderFrozen(*isolated, 32768);
    for (double hz : leftChord) {
        SCOPED_TRACE(hz);
        EXPECT_NEAR(decibels(heldAmplitude(out[0], hz) / heldAmplitude(reference[0], hz)), 0, 3);
    }
    for (double hz : rightChord) {
        SCOPED_TRACE(hz);
        EXPECT_GT(heldAmplitude(reference[1], hz), 0.1);
        EXPECT_LT(decibels(heldAmplitude(out[1], hz) / heldAmplitude(reference[1], hz)), -30);
    }
}

TEST(VellAudioFreezerTest, ShiftingUpTwoSemitonesMovesTheHeldToneTwoSemitones)
{
    auto freezer = makeFreezer(makeToneFile(30000, 440));
    ASSERT_TRUE(freezer);
    ASSERT_TRUE(freezer->setFrozenAudioFrame(10000));
    freezer->setPitchShift(2.0f);
    const std::vector<float> x = renderFrozen(*freezer, 2 * 44100)[0];

    // Frequency from the rising zero crossings, interpolated, after the fade-in.
    double first = -1, last = -1;
    int crossings = 0;
    for (std::size_t n = 16384; n < x.size(); ++n) {
        if (x[n - 1] < 0 && x[n] >= 0) {
            last = double(n - 1) + x[n - 1] / (x[n - 1] - x[n]);
            first = first < 0 ? last : first;
            ++crossings;
        }
    }
    ASSERT_GT(crossings, 100);
    const double hz = (crossings - 1) * kRate / (last - first);
    EXPECT_NEAR(1200 * std::log2(hz / 440), 200, 5);
}

TEST(VellAudioFreezerTest, MovingTheFrameWhilePlayingCrossFadesOnARealtimeRenderPath)
{
    auto freezer = makeFreezer(makeToneFile(80000, 440, 660, 40000));
    ASSERT_TRUE(freezer);
    ASSERT_TRUE(freezer->setFrozenAudioFrame(5000));

    // The engine pulled here as a device would pull it, checked for allocations and locks.
    BRIXAudioEngine& engine = freezer->audioEngine();
    VellAudioFreezer::WorkerState& worker = freezer->workerState();
    const std::uint64_t start = worker.framesScheduled();
    constexpr std::uint32_t kBlock = 512;
    std::vector<float> joined, left(kBlock), right(kBlock);
    float* channels[2] = {left.data(), right.data()};
    ASSERT_TRUE(freezer->beginOfflineRendering());
    for (std::uint32_t block = 0; block < 120; ++block) {
        if (block == 40) {
            ASSERT_TRUE(freezer->setFrozenAudioFrame(50000));
        }
        worker.waitForFramesScheduled(start + std::uint64_t(block + 1) * kBlock);
        const RealtimeCounts counts =
            countRealtimeViolations([&] { engine.render(channels, 2, kBlock); });
        ASSERT_EQ(counts.total(), 0u) << "block " << block;
        joined.insert(joined.end(), left.begin(), left.end());
    }
    freezer->endOfflineRendering();

    // The steady tones set the bound: nothing around the change (heard up to three buffers
    // later, then faded over 4096 frames) steps further than they do, give or take the
    // fluctuation of the freeze's random-phase bins.
    const std::size_t change = 40 * kBlock, settled = change + 12000;
    const double ownStep =
        std::max(largestStep(joined, 8192, change), largestStep(joined, settled, joined.size()));
    EXPECT_LE(largestStep(joined, change, settled), 1.02 * ownStep);
    EXPECT_NEAR(toneAmplitude(joined, joined.size() - 16384, 16384, 660, kRate), 0.4, 0.04);
    EXPECT_LT(toneAmplitude(joined, joined.size() - 16384, 16384, 440, kRate), 0.004);
}

TEST(VellAudioFreezerTest, TheBufferRingRunsOnAcrossStartAndStop)
{
    auto freezer = makeFreezer(makeToneFile(30000, 440));
    ASSERT_TRUE(freezer);
    ASSERT_TRUE(freezer->setFrozenAudioFrame(1000));
    VellAudioFreezer::WorkerState& worker = freezer->workerState();
    const auto& buffers = worker.buffers();
    ASSERT_EQ(buffers.size(), 3u);

    std::vector<float> left(1024), right(1024);
    float* channels[2] = {left.data(), right.data()};
    bool resumedMidRing = false;
    for (int session = 0; session < 30 && !(session >= 2 && resumedMidRing); ++session) {
        SCOPED_TRACE(session);
        const std::int32_t counter = worker.bufferCounter();
        resumedMidRing |= counter % 3 != 0;
        const std::uint64_t start = worker.framesScheduled();
        ASSERT_TRUE(freezer->beginOfflineRendering());
        for (std::size_t played = 0; played < 4; ++played) {
            // With three buffers queued and none played, the worker waits and none changes.
            worker.waitForFramesScheduled(start + (played + 3) * 1024);
            std::vector<std::vector<float>> queued;
            for (const auto& buffer : buffers) {
                queued.emplace_back(buffer->floatChannelData()[0],
                                    buffer->floatChannelData()[0] + 1024);
            }
            freezer->audioEngine().render(channels, 2, 1024);
            const std::size_t expected = std::size_t(counter + std::int32_t(played)) % 3;
            EXPECT_EQ(left, queued[expected]) << "buffer " << played << " of the session";
        }
        freezer->endOfflineRendering();
        EXPECT_GE(worker.bufferCounter(), counter + 6);
    }
    EXPECT_TRUE(resumedMidRing) << "no session began inside the ring";
}

TEST(VellAudioFreezerTest, StartingAndStoppingAHundredTimesNeitherHangsNorLeaksAThread)
{
    ASSERT_TRUE(VellSelectOutputDevice("null"));
    auto freezer = makeFreezer(makeToneFile(30000, 440));
    ASSERT_TRUE(freezer);
    ASSERT_TRUE(freezer->setFrozenAudioFrame(1000));
    int announcements = 0;
    const auto token = freezer->addObserver(VellAudioFreezer::kPlayingKey,
                                            [&](const KeyChange&) { ++announcements; });
    for (int i = 0; i < 100; ++i) {
        ASSERT_TRUE(freezer->startPlayback());
        EXPECT_TRUE(freezer->isPlaying());
        freezer->stopPlayback();
        ASSERT_FALSE(freezer->isPlaying());
    }
    EXPECT_EQ(announcements, 200);
    // A worker signals its end as it ends: the system may still be reaping the last ones.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (freezerWorkerCount() > 0 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::yield();
    EXPECT_EQ(freezerWorkerCount(), 0);
}

TEST(VellAudioFreezerTest, OnlyAggregateDevicesOnTheAffectedSystemAreRefused)
{
    int queries = 0;
    auto aggregate = [&] { return ++queries, detail::kAudioDeviceTransportTypeAggregate; };
    Error error;
    EXPECT_TRUE(detail::checkFreezerOutputConfiguration(std::nullopt, aggregate, &error));
    EXPECT_TRUE(detail::checkFreezerOutputConfiguration(detail::OperatingSystemVersion{10, 14},
                                                        aggregate, &error));
    EXPECT_EQ(queries, 0) << "other systems pass without a query";
    EXPECT_TRUE(detail::checkFreezerOutputConfiguration(
        detail::OperatingSystemVersion{10, 13}, [] { return kAudioDeviceTransportTypeUSB; },
        &error));
    EXPECT_FALSE(detail::checkFreezerOutputConfiguration(detail::OperatingSystemVersion{10, 13},
                                                         aggregate, &error));
    EXPECT_EQ(error.domain(), kVellErrorDomain);
    EXPECT_EQ(error.localizedDescription(), "Unsupported Configuration");
    EXPECT_TRUE(error.stringForKey(VellAudioFreezer::kRecoverySuggestionErrorKey));
}
