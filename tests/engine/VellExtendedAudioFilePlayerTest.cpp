// The player and its output unit, rendered offline: the heard frame, the frame bookkeeping over
// long renders, the count-in, degenerate settings, real-time safety of the render path, and
// export.
#include "EngineTestSupport.h"
#include "RealtimeGuard.h"
#include "TestSupport.h"

#include "engine/VellOutputAudioUnit.h"

#include <VellAudio/VellAudioDevices.h>
#include <VellAudio/VellMainQueue.h>
#include <VellAudio/VellNoteEntryStorage.h>
#include <VellAudio/VellPracticeDocument.h>

#include <gtest/gtest.h>

#include <cmath>
#include <random>

namespace vell::test {
namespace {

constexpr double kRate = 44100;

std::unique_ptr<VellExtendedAudioFilePlayer> makePlayer(std::shared_ptr<BRIXExtendedAudioFile> file)
{
    Error error;
    auto player = VellExtendedAudioFilePlayer::create(std::move(file), &error);
    EXPECT_TRUE(player) << error.description();
    return player;
}

/// For each onset of the rendered output, how far the frame the player reported as heard was
/// from the click that sounded there, in milliseconds of output (onsets within skip output
/// frames after a change are left out).
std::vector<double> heardFrameErrors(const OfflineRender& render, const std::vector<Frame>& clicks,
                                     double rate, std::size_t fromOutput, std::size_t toOutput)
{
    std::vector<double> errors;
    for (double onset : onsets(render.left)) {
        const auto o = std::size_t(onset);
        if (o < fromOutput || o >= toOutput) {
            continue;
        }
        // The first block ending at or after the onset, and what the player reported there.
        const auto it = std::lower_bound(
            render.tracked.begin(), render.tracked.end(), o,
            [](const std::pair<std::size_t, Frame>& t, std::size_t v) { return t.first < v; });
        if (it == render.tracked.end()) {
            continue;
        }
        const double heard = double(it->second) - double(it->first - o) * rate;
        const auto nearest = std::min_element(clicks.begin(), clicks.end(), [&](Frame a, Frame b) {
            return std::abs(double(a) - heard) < std::abs(double(b) - heard);
        });
        errors.push_back((heard - double(*nearest)) / rate / kRate * 1000.0);
    }
    return errors;
}

TEST(VellExtendedAudioFilePlayer, ReportsTheHeardFrameAfterSeeksLoopWrapsAndSpeedChanges)
{
    ScopedDefaults defaults;
    const Frame length = Frame(30 * kRate);
    const std::vector<Frame> clicks = gridFrames(Frame(0.1 * kRate), 0.25 * kRate, length);
    auto player = makePlayer(makeClickFile(kRate, length, clicks));
    ASSERT_TRUE(player);
    player->setCurrentFrame(Frame(2 * kRate));
    ASSERT_TRUE(player->beginOfflineRendering(512));
    OfflineRender render;
    const auto second = std::size_t(kRate);
    const auto settle = std::size_t(0.3 * kRate);

    ASSERT_TRUE(render.run(*player, 3 * second, 512));
    const std::size_t seekAt = render.left.size();
    player->setCurrentFrame(Frame(10 * kRate));
    ASSERT_TRUE(render.run(*player, 3 * second, 500));
    const std::size_t loopAt = render.left.size();
    // The loop holds the frame being heard, so playback runs on into it and wraps.
    player->enableLoopingInRange(Frame(12 * kRate), Frame(2.3 * kRate));
    ASSERT_TRUE(render.run(*player, 5 * second, 512));
    const std::size_t speedAt = render.left.size();
    player->setPlaybackSpeed(0.75);
    ASSERT_TRUE(render.run(*player, 5 * second, 512));
    player->endOfflineRendering();

    // At unity speed the stretcher passes clicks through unmoved, so the report is exact; at
    // other speeds single clicks scatter by a millisecond or two in the stretcher itself.
    const struct {
        const char* phase;
        double rate;
        std::size_t from;
        std::size_t to;
        double meanWithin;
        double eachWithin;
    } phases[] = {{"start", 1.0, settle, seekAt, 0.05, 0.05},
                  {"after a seek", 1.0, seekAt + settle, loopAt, 0.05, 0.05},
                  {"across loop wraps", 1.0, loopAt + settle, speedAt, 0.05, 0.05},
                  {"after a speed change", 0.75, speedAt + settle, render.left.size(), 1.5, 5.0}};
    for (const auto& phase : phases) {
        SCOPED_TRACE(phase.phase);
        const auto errors = heardFrameErrors(render, clicks, phase.rate, phase.from, phase.to);
        ASSERT_GE(errors.size(), 8u);
        double sum = 0;
        for (double e : errors) {
            sum += e;
            EXPECT_LT(std::abs(e), phase.eachWithin);
        }
        EXPECT_LT(std::abs(sum / double(errors.size())), phase.meanWithin);
    }
}

TEST(VellExtendedAudioFilePlayer, FrameBookkeepingDoesNotDriftOverFiveMinutes)
{
    // Low-CPU level: the bookkeeping is the same at every level and this one renders fastest.
    ScopedDefaults defaults(200, 300);
    const Frame length = Frame(240 * kRate);
    auto player = makePlayer(makeClickFile(kRate, length, {}));
    ASSERT_TRUE(player);
    player->setPlaybackSpeed(0.73);
    player->setCurrentFrame(1000);
    ASSERT_TRUE(player->beginOfflineRendering(512));
    const double latency = double(player->processingLatency());
    std::vector<float> l(512), r(512);
    float* channels[2] = {l.data(), r.data()};
    const auto cycles = std::size_t(300 * kRate / 512);
    for (std::size_t n = 1; n <= cycles; ++n) {
        ASSERT_TRUE(player->renderOffline(channels, 512));
        if (n % 2000 == 0 || n == cycles) {
            // The heard frame is the one the last output frame carried.
            const double expected = 1000 + double(n * 512) * 0.73 - latency * 0.73;
            ASSERT_NEAR(double(player->currentFrame()), expected, 1.5) << "cycle " << n;
        }
    }
    player->endOfflineRendering();
}

TEST(VellExtendedAudioFilePlayer, CountInKeepsTheMusicSilentUntilItsFrame)
{
    ScopedDefaults defaults;
    const double speed = 0.5;
    struct Case {
        const char* name;
        Frame start;
        Frame click; // after the start
        bool looping;
    };
    // Into playback; into a loop, on whose first frame the click lies, with no music before it
    // inside the loop; and near the file's start, with less music before it than a lead-in.
    for (const Case& c : {Case{"into playback", Frame(5 * kRate), Frame(kRate / 4), false},
                          Case{"into a loop", Frame(5 * kRate), 0, true},
                          Case{"near the file's start", Frame(0.05 * kRate), 0, false}}) {
        SCOPED_TRACE(c.name);
        auto player = makePlayer(makeClickFile(kRate, Frame(10 * kRate), {c.start + c.click}));
        ASSERT_TRUE(player);
        player->setPlaybackSpeed(speed);
        if (c.looping) {
            player->enableLoopingInRange(c.start, Frame(2 * kRate));
        }
        player->setCurrentFrame(c.start);
        player->setPreroll(true);
        player->setPrerollSampleStart(c.start - Frame(kRate)); // one second of the file's time
        player->setPrerollLoopStart(c.start);
        ASSERT_TRUE(player->beginOfflineRendering(512));
        OfflineRender render;
        ASSERT_TRUE(render.run(*player, std::size_t(kRate), 512));
        EXPECT_TRUE(player->preroll());
        EXPECT_EQ(player->outputAudioUnit().currentTrackedReadFrame(), c.start);
        ASSERT_TRUE(render.run(*player, std::size_t(2 * kRate), 500)); // blocks straddle the end
        player->endOfflineRendering();
        EXPECT_FALSE(player->preroll());
        const auto found = onsets(render.left);
        ASSERT_EQ(found.size(), 1u);
        // One second of file at half speed is two seconds of output, then the isolation latency.
        const double fileSeconds = 1.0 + double(c.click) / kRate;
        const double expected = fileSeconds * kRate / speed + double(player->processingLatency());
        EXPECT_NEAR(found[0], expected, 0.0015 * kRate);
    }
}

TEST(VellExtendedAudioFilePlayer, DegenerateSettingsNeitherSilenceNorBreakTheSound)
{
    ScopedDefaults defaults(206, 300);
    const Frame length = Frame(20 * kRate);
    std::vector<float> tone(static_cast<std::size_t>(length));
    for (std::size_t i = 0; i < tone.size(); ++i) {
        tone[i] = 0.5f * float(std::sin(2 * M_PI * 440.0 * double(i) / kRate));
    }
    auto player = makePlayer(BRIXExtendedAudioFile::createWithSamples({tone, tone}, kRate));
    ASSERT_TRUE(player);
    player->setCurrentFrame(Frame(kRate));
    ASSERT_TRUE(player->beginOfflineRendering(4096));
    const std::vector<std::pair<double, double>> settings = {
        {0.0, 0.0}, {-0.0, 0.0}, {NAN, 0.0}, {1e308, 0.0},         {-1e308, 0.0},
        {1.0, 1e9}, {1.0, -1e9}, {1.0, NAN}, {INFINITY, INFINITY}, {0.5, 0.0}};
    for (const auto& [speed, cents] : settings) {
        SCOPED_TRACE(testing::Message() << "speed " << speed << ", cents " << cents);
        player->setPlaybackSpeed(speed);
        player->setPitchAdjustment(cents);
        player->setTranspositionInterval(speed > 0 ? 1000000 : -1000000);
        EXPECT_GE(player->playbackSpeed(), VellExtendedAudioFilePlayer::kMinimumPlaybackRate);
        EXPECT_LE(player->playbackSpeed(), VellExtendedAudioFilePlayer::kMaximumPlaybackRate);
        OfflineRender render;
        ASSERT_TRUE(render.run(*player, std::size_t(0.4 * kRate), 4096));
        float peak = 0;
        for (float x : render.left) {
            ASSERT_TRUE(std::isfinite(x));
            peak = std::max(peak, std::abs(x));
        }
        EXPECT_GT(peak, 0.1f);
        EXPECT_GE(player->currentFrame(), 0);
    }
    player->endOfflineRendering();
}

TEST(VellExtendedAudioFilePlayer, RenderPathNeitherAllocatesNorLocks)
{
    ScopedDefaults defaults(206, 300);
    const Frame length = Frame(600 * kRate);
    std::vector<float> noise(static_cast<std::size_t>(length));
    std::mt19937 random(7);
    std::uniform_real_distribution<float> uniform(-0.3f, 0.3f);
    for (float& x : noise) {
        x = uniform(random);
    }
    auto player = makePlayer(BRIXExtendedAudioFile::createWithSamples({noise, noise}, kRate));
    ASSERT_TRUE(player);
    auto storage = std::make_shared<VellNoteEntryStorage>();
    VellEntryArray<VellNoteEntry> notes;
    VellEntryArray<VellBeatEntry> beats;
    for (int i = 0; i < 10000; ++i) {
        auto note = storage->newNoteEntry();
        note->setLocation(Frame(i) * 2205);
        note->setLength(4000);
        note->setPitch(KPitch(60 + i % 24));
        notes.push_back(note);
        auto beat = storage->newBeatEntry();
        beat->setLocation(Frame(i) * 2205);
        beat->setDownbeat(i % 8 == 0);
        beats.push_back(beat);
    }
    storage->addNoteEntriesFromArray(notes);
    storage->addBeatEntriesFromArray(beats);
    player->setNoteEntryStorage(storage);
    player->setMetronomeEnabled(true);
    // As on a device: the reader never waits for its prefetch thread.
    ASSERT_TRUE(player->beginOfflineRendering(8192, nullptr, /*readerWaits=*/false));

    std::vector<float> l(8192), r(8192);
    float* channels[2] = {l.data(), r.data()};
    const std::uint32_t sizes[] = {64, 512, 64, 512, 4096, 64, 512, 8192};
    const double rates[] = {0.5, 0.73, 1.0, 1.5, 2.0};
    const long long pitches[] = {0, 5, -7, 12};
    RealtimeCounts counts;
    for (int cycle = 0; cycle < 10000; ++cycle) {
        if (cycle % 500 == 0) { // settings change on the control side, between cycles
            player->setPlaybackSpeed(rates[(cycle / 500) % 5]);
            player->setTranspositionInterval(pitches[(cycle / 500) % 4]);
            TessalySetBypass(player->tessalyInstance(), (cycle / 1000) % 2 == 0);
        }
        const std::uint32_t frames = cycle % 20 == 19 ? sizes[(cycle / 20) % 8] : sizes[cycle % 2];
        resetRealtimeCounts();
        {
            RealtimeSection section;
            ASSERT_TRUE(player->renderOffline(channels, frames));
        }
        const RealtimeCounts c = realtimeCounts();
        counts.allocations += c.allocations;
        counts.deallocations += c.deallocations;
        counts.locks += c.locks;
    }
    player->endOfflineRendering();
    EXPECT_EQ(counts.allocations, 0u);
    EXPECT_EQ(counts.deallocations, 0u);
    EXPECT_EQ(counts.locks, 0u);
}

class CancelOnFirstProgress : public VellOutputAudioUnitDelegate {
public:
    void outputAudioUnitDidUpdateProgress(VellOutputAudioUnit& unit, double progress) override
    {
        lastProgress = progress;
        unit.cancelWriteToFile();
    }
    double lastProgress = 0;
};

float musicLevel(VellExtendedAudioFilePlayer& player)
{
    float level = -1;
    AudioUnitGetParameter(player.outputAudioUnit().mixerUnit(), kMultiChannelMixerParam_Volume,
                          kAudioUnitScope_Input, kMusicPlaybackMixerChannel, &level);
    return level;
}

TEST(VellExtendedAudioFilePlayer, ExportWritesWhatIsHeardAndAlwaysRestoresTheGraph)
{
    ScopedDefaults defaults(206, 300);
    TemporaryDirectory dir;
    const Frame length = Frame(6 * kRate);
    const std::vector<Frame> clicks = gridFrames(Frame(0.2 * kRate), 0.5 * kRate, length);
    auto player = makePlayer(makeClickFile(48000, length, clicks));
    ASSERT_TRUE(player);
    player->setPlaybackLevel(0.25f);
    player->setPlaybackSpeed(0.5);

    // A 48 kHz song exports at 44.1 kHz, twice as long at half speed, at full level.
    Error error;
    ASSERT_TRUE(player->writeSamplesInRange(0, Frame(2 * 48000), dir / "a.wav", &error))
        << error.description();
    auto exported = BRIXExtendedAudioFile::create(dir / "a.wav", &error);
    ASSERT_TRUE(exported) << error.description();
    EXPECT_EQ(exported->sampleRate(), 44100);
    EXPECT_EQ(exported->sourceFormat().codec, "pcm_s16le");
    EXPECT_NEAR(double(exported->frameCount()), 4 * 44100.0, 4096);
    EXPECT_FLOAT_EQ(musicLevel(*player), 0.25f);
    float peak = 0;
    for (float x : exported->channelData(0)) {
        peak = std::max(peak, std::abs(x));
    }
    EXPECT_GT(peak, 0.3f); // a quarter level would stay below 0.2

    // The same input and settings give the same samples.
    ASSERT_TRUE(player->writeSamplesInRange(0, Frame(2 * 48000), dir / "b.wav", &error));
    auto again = BRIXExtendedAudioFile::create(dir / "b.wav");
    ASSERT_TRUE(again);
    ASSERT_EQ(again->frameCount(), exported->frameCount());
    EXPECT_TRUE(std::equal(again->channelData(0).begin(), again->channelData(0).end(),
                           exported->channelData(0).begin()));

    // Refusals write nothing and leave the graph able to export again.
    EXPECT_FALSE(player->writeSamplesInRange(0, 1000, dir / "x.mp3", &error));
    EXPECT_FALSE(std::filesystem::exists(dir / "x.mp3"));
    EXPECT_FALSE(player->writeSamplesInRange(0, 1000, dir / "missing" / "x.aif", &error));
    EXPECT_FALSE(player->isPlaying());
    EXPECT_FLOAT_EQ(musicLevel(*player), 0.25f);
    EXPECT_FALSE(player->outputAudioUnit().isExportingAudio());
    auto source = makePlayer(BRIXExtendedAudioFile::create(dir / "a.wav"));
    ASSERT_TRUE(source);
    EXPECT_FALSE(source->writeSamplesInRange(0, 1000, dir / "a.wav", &error));

    // A cancelled export keeps a valid, shorter file.
    CancelOnFirstProgress canceller;
    player->outputAudioUnit().setDelegate(&canceller);
    ASSERT_TRUE(player->writeSamplesInRange(0, Frame(5 * 48000), dir / "c.aif", &error));
    EXPECT_GT(canceller.lastProgress, 0.0);
    auto cancelled = BRIXExtendedAudioFile::create(dir / "c.aif", &error);
    ASSERT_TRUE(cancelled) << error.description();
    EXPECT_EQ(cancelled->sourceFormat().codec, "pcm_s16be");
    EXPECT_LT(cancelled->frameCount(), Frame(2 * 44100));
}

TEST(VellExtendedAudioFilePlayer, PlaysBackwardsWithTheHeardFrameGoingDown)
{
    ScopedDefaults defaults;
    const Frame length = Frame(10 * kRate);
    const std::vector<Frame> clicks = gridFrames(Frame(0.3 * kRate), 0.4 * kRate, length);
    auto player = makePlayer(makeClickFile(kRate, length, clicks));
    ASSERT_TRUE(player);
    player->setPlaybackSpeed(-1.0);
    EXPECT_TRUE(player->isReverse());
    EXPECT_EQ(player->playbackSpeed(), 1.0);
    const Frame start = Frame(8 * kRate);
    player->setCurrentFrame(start);
    ASSERT_TRUE(player->beginOfflineRendering(512));
    OfflineRender render;
    ASSERT_TRUE(render.run(*player, std::size_t(4 * kRate), 512));
    player->endOfflineRendering();

    // Every click between the start and where playback got to sounds at (start - click) plus
    // the isolation latency, and the heard frame runs down with the output.
    const auto latency = double(player->processingLatency());
    std::vector<double> expected;
    for (Frame c : clicks) {
        const double at = double(start - c) + latency;
        if (c <= start && at < double(render.left.size())) {
            expected.push_back(at);
        }
    }
    std::sort(expected.begin(), expected.end());
    const auto found = onsets(render.left);
    ASSERT_EQ(found.size(), expected.size());
    for (std::size_t i = 0; i < found.size(); ++i) {
        EXPECT_NEAR(found[i], expected[i], 1.0);
    }
    const auto [rendered, heard] = render.tracked.back();
    EXPECT_NEAR(double(heard), double(start) - (double(rendered) - latency), 1.0);
}

TEST(VellExtendedAudioFilePlayer, StartsEveryNoteAndBeatOnceWhateverTheCycleBoundaries)
{
    ScopedDefaults defaults(206, 300);
    const Frame length = Frame(20 * kRate);
    auto player = makePlayer(makeClickFile(kRate, length, {}));
    ASSERT_TRUE(player);
    // Three-note chords and beats on frames that fall on cycle boundaries at unity speed (the
    // output trails by the isolation latency, a multiple of the cycle) and between them.
    auto storage = std::make_shared<VellNoteEntryStorage>();
    VellEntryArray<VellNoteEntry> notes;
    VellEntryArray<VellBeatEntry> beats;
    int chords = 0;
    for (Frame at = 512 * 20; at < length - Frame(2 * kRate); at += 512 * 37 + (chords % 3)) {
        for (int voice = 0; voice < 3; ++voice) {
            auto note = storage->newNoteEntry();
            note->setLocation(at);
            note->setLength(512 * 5);
            note->setPitch(KPitch(60 + 4 * voice));
            notes.push_back(note);
        }
        auto beat = storage->newBeatEntry();
        beat->setLocation(at);
        beat->setDownbeat(true);
        beats.push_back(beat);
        ++chords;
    }
    storage->addNoteEntriesFromArray(notes);
    storage->addBeatEntriesFromArray(beats);
    player->setNoteEntryStorage(storage);
    player->setMetronomeEnabled(true);
    const double rates[] = {1.0, 0.5, 0.73};
    for (double rate : rates) {
        SCOPED_TRACE(rate);
        player->setPlaybackSpeed(rate);
        player->setCurrentFrame(0);
        const auto before = player->outputAudioUnit().statistics();
        ASSERT_TRUE(player->beginOfflineRendering(512));
        OfflineRender render;
        ASSERT_TRUE(render.run(*player, std::size_t(double(length) / rate), 512));
        player->endOfflineRendering();
        const auto after = player->outputAudioUnit().statistics();
        EXPECT_EQ(after.notesStarted - before.notesStarted, std::uint64_t(3 * chords));
        EXPECT_EQ(after.beatsStarted - before.beatsStarted,
                  std::uint64_t(storage->beatEntriesFilteredByTimeSignature().size()));
    }
}

class EndOfFileRecorder : public VellExtendedAudioFilePlayerDelegate {
public:
    void audioFilePlayerDidReachEndOfFile(VellExtendedAudioFilePlayer&) override { ++ends; }
    int ends = 0;
};

TEST(VellExtendedAudioFilePlayer, PlaysToTheEndOnTheNullDeviceAndTellsItsDelegateOnce)
{
    ScopedDefaults defaults(206, 300);
    ASSERT_TRUE(VellSelectOutputDevice("null"));
    auto player = makePlayer(makeClickFile(kRate, Frame(0.4 * kRate), {Frame(0.1 * kRate)}));
    ASSERT_TRUE(player);
    auto recorder = std::make_shared<EndOfFileRecorder>();
    player->setDelegate(recorder);
    Error error;
    ASSERT_TRUE(player->startFilePlaying(&error)) << error.description();
    EXPECT_TRUE(player->isPlaying());
    // The end is reported once it is heard, and the player stops its output there.
    EXPECT_TRUE(
        VellRunMainQueueUntil([&] { return recorder->ends > 0; }, std::chrono::seconds(10)));
    EXPECT_FALSE(player->isPlaying());
    EXPECT_EQ(player->currentFrame(), player->totalFrames());
    VellDrainMainQueue();
    EXPECT_EQ(recorder->ends, 1);
    player->stopFilePlaying();
}

TEST(VellExtendedAudioFilePlayer, SeeksWhilePlayingOnTheDeviceThread)
{
    ScopedDefaults defaults(206, 300);
    ASSERT_TRUE(VellSelectOutputDevice("null"));
    auto player = makePlayer(makeClickFile(kRate, Frame(20 * kRate), {}));
    ASSERT_TRUE(player);
    player->setPlaybackSpeed(1.5);
    ASSERT_TRUE(player->startFilePlaying());
    std::mt19937 random(3);
    std::uniform_int_distribution<Frame> frames(0, Frame(15 * kRate));
    for (int i = 0; i < 12; ++i) {
        const Frame target = frames(random);
        player->setCurrentFrame(target);
        // The display holds the sought frame until it is heard, then moves on from it.
        EXPECT_EQ(player->currentFrame(), target);
        if (i % 3 == 2) {
            player->setPlaybackSpeed(i % 2 ? 0.5 : 1.5);
        }
        const Frame ahead = target + Frame(0.05 * kRate);
        EXPECT_TRUE(VellRunMainQueueUntil([&] { return player->currentFrame() >= ahead; },
                                          std::chrono::seconds(5)))
            << "seek " << i << " to " << target;
        EXPECT_LT(player->currentFrame(), target + Frame(2 * kRate));
    }
    player->stopFilePlaying();
}

} // namespace
} // namespace vell::test
