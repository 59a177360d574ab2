// The playback controller on the null device: construction, transport and count-in decisions,
// position, levels, pitch and speed, regions, markers, chords, the musical view, settings,
// the frame update timer and safe destruction.
#include "EngineTestSupport.h"

#include "VellAudio/NotificationCenter.h"
#include "VellAudio/UserDefaults.h"
#include "VellAudio/VellAudioDevices.h"
#include "VellAudio/VellMainQueue.h"
#include "VellAudio/VellPlaybackController.h"

#include <gtest/gtest.h>

#include <cmath>

namespace vell::test {
namespace {

constexpr double kRate = 44100;
constexpr Frame kBar = 88200; // 4/4 at 120 BPM
constexpr Frame kSongFrames = 20 * 44100;

using namespace std::chrono_literals;

std::shared_ptr<VellNoteEntryStorage> gridStorage()
{
    auto storage = std::make_shared<VellNoteEntryStorage>();
    EXPECT_TRUE(storage->makeBeatGrid(120, 0, kSongFrames, kRate));
    return storage;
}

class DelegateRecorder : public VellPlaybackControllerDelegate {
public:
    void playbackControllerWillBeginPlayingAudio(VellPlaybackController&) override { ++willBegin; }
    void playbackControllerDidBeginPlayingAudio(VellPlaybackController&) override { ++didBegin; }
    void playbackControllerDidStopPlayingAudio(VellPlaybackController&) override
    {
        ++didStop;
        if (onStop) {
            onStop();
        }
    }
    void playbackControllerDidUpdateCurrentFrame(VellPlaybackController&) override { ++updates; }
    int willBegin = 0, didBegin = 0, didStop = 0, updates = 0;
    std::function<void()> onStop;
};

class PlaybackControllerTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(VellSelectOutputDevice("null")); }

    std::shared_ptr<VellPlaybackController>
    make(std::shared_ptr<VellNoteEntryStorage> storage = gridStorage(), Frame frames = kSongFrames)
    {
        Error error;
        auto controller = VellPlaybackController::createWithAudioFile(
            makeClickFile(kRate, frames, gridFrames(0, kRate / 2, frames)), std::move(storage),
            &error);
        EXPECT_TRUE(controller) << error.description();
        if (controller) {
            controller->setDelegate(recorder);
        }
        return controller;
    }

    std::shared_ptr<VellRegionEntry> addRegion(VellPlaybackController& c, Frame location,
                                               Frame length, std::string name = "")
    {
        auto region = c.noteEntryStorage()->newRegionEntry();
        region->setLocation(location);
        region->setLength(length);
        region->setName(std::move(name));
        c.noteEntryStorage()->addRegionEntry(region);
        return region;
    }

    ScopedDefaults defaults{206, 300};
    std::shared_ptr<DelegateRecorder> recorder = std::make_shared<DelegateRecorder>();
};

TEST_F(PlaybackControllerTest, RefusesABadFileAndLoadsCheckedVolumes)
{
    Error error;
    EXPECT_FALSE(VellPlaybackController::create("/no/such/song.mp3", nullptr, &error));
    EXPECT_EQ(error.domain(), kVellErrorDomain);
    EXPECT_EQ(error.code(), 0);
    EXPECT_EQ(error.localizedDescription(), "Bad Audio File");
    EXPECT_EQ(error.stringForKey("NSLocalizedRecoverySuggestion"),
              "There was an error while loading the audio file.");

    UserDefaults::standard()->setDouble(0.5, kVellPlaybackVolumeDefaultsKey);
    UserDefaults::standard()->setDouble(1e308, kVellNoteEntryPlaybackVolumeDefaultsKey);
    auto c = make();
    EXPECT_EQ(c->playbackVolume(), 0.5);
    EXPECT_FLOAT_EQ(c->freezer()->outputVolume(), 0.5f);
    EXPECT_EQ(c->noteEntryPlaybackVolume(), VellPlaybackController::kMaximumVolume);
    EXPECT_EQ(c->metronomePlaybackVolume(), 1.0); // no registered default, reads as 1
    EXPECT_EQ(c->playbackSpeed(), 1.0);
    EXPECT_EQ(c->totalFrames(), kSongFrames);
}

TEST_F(PlaybackControllerTest, CountsInOnlyWithTheMetronomeAndTheRightMode)
{
    auto c = make();
    c->setCountInMode(2);
    c->startFilePlaying(); // metronome off: never
    EXPECT_EQ(c->prerollDisplayFrame(), kFrameNotFound);
    EXPECT_FALSE(c->playbackController().preroll());
    c->stopFilePlaying();

    c->setMetronomeEnabled(true);
    c->setCountInMode(1);
    c->startFilePlaying(); // mode 1 without a region: no count-in
    EXPECT_EQ(c->prerollDisplayFrame(), kFrameNotFound);
    EXPECT_FALSE(c->isLooping());
    c->stopFilePlaying();

    // Mode 1 over a region: from its first frame, one bar of count-in before it.
    auto region = addRegion(*c, 2 * kBar, kBar);
    c->setActiveRegion(region);
    c->seekToFrame(10);
    c->startFilePlaying();
    EXPECT_TRUE(c->isPlaying());
    EXPECT_TRUE(c->isLooping());
    EXPECT_EQ(c->prerollDisplayFrame(), kBar);
    EXPECT_EQ(c->loopRange(), region->range());
    EXPECT_EQ(c->currentFrame(), 2 * kBar);
    c->stopFilePlaying();
    EXPECT_EQ(c->prerollDisplayFrame(), kFrameNotFound);
    EXPECT_EQ(c->loopRange(), VellFrameRange{});
    EXPECT_EQ(recorder->willBegin, 3);
    EXPECT_EQ(recorder->didBegin, 3);
    EXPECT_EQ(recorder->didStop, 3);
}

TEST_F(PlaybackControllerTest, ALoopedStartMovesOnlyAPlayerPastTheInclusiveEnd)
{
    auto c = make();
    const VellFrameRange range = VellMakeFrameRange(kBar, kBar);
    c->setCurrentFrame(2 * kBar);
    ASSERT_TRUE(c->startFilePlayingWithLoop(true, range, false));
    EXPECT_EQ(c->currentFrame(), 2 * kBar);
    c->stopFilePlaying();
    c->setCurrentFrame(2 * kBar + 1);
    ASSERT_TRUE(c->startFilePlayingWithLoop(true, range, false));
    EXPECT_EQ(c->currentFrame(), kBar);
    EXPECT_TRUE(c->loopEnabled());
    c->stopFilePlaying();

    // Already playing: a looped start over a range does nothing.
    c->setCurrentFrame(0);
    c->startFilePlaying();
    c->startFileLoopingInRange(range);
    EXPECT_FALSE(c->isLooping());
    c->stopFilePlaying();
}

TEST_F(PlaybackControllerTest, SeeksClampOnlyAtTheEndAndAnnounceOnce)
{
    auto c = make();
    c->seekToTime(1e300);
    EXPECT_EQ(c->currentFrame(), kSongFrames - 1);
    c->seekToTime(std::nan(""));
    EXPECT_EQ(c->currentFrame(), kSongFrames - 1);
    const int before = recorder->updates;
    c->seekToTime(1.0);
    c->setCurrentFrame(44100);
    EXPECT_EQ(recorder->updates, before + 1);
    // Offsets go straight to the player: no announcement.
    c->offsetCurrentFrame(-1000);
    EXPECT_EQ(c->currentFrame(), 43100);
    c->offsetCurrentFrame(std::numeric_limits<Frame>::min());
    EXPECT_EQ(c->currentFrame(), 0);
    EXPECT_EQ(recorder->updates, before + 1);
    // Time getters are in milliseconds, the seek in seconds.
    c->seekToFrame(kSongFrames / 2);
    EXPECT_NEAR(c->currentTime(), 10000, 0.1);
    EXPECT_NEAR(c->remainingTime(), 10000, 0.1);
    EXPECT_DOUBLE_EQ(c->position(), 0.5);
}

TEST_F(PlaybackControllerTest, LevelsMuteAndDegenerateValues)
{
    auto c = make();
    c->setPlaybackMuted(true); // stored only
    EXPECT_FLOAT_EQ(c->freezer()->outputVolume(), 1.0f);
    c->updatePlaybackLevel();
    EXPECT_FLOAT_EQ(c->freezer()->outputVolume(), 0.0f);
    c->toggleMutePlayback();
    EXPECT_FLOAT_EQ(c->freezer()->outputVolume(), 1.0f);
    c->setPlaybackVolume(std::nan(""));
    c->setPlaybackVolume(1e308);
    EXPECT_EQ(c->playbackVolume(), VellPlaybackController::kMaximumVolume);
    EXPECT_EQ(UserDefaults::standard()->doubleForKey(kVellPlaybackVolumeDefaultsKey), 2.0);

    c->setNoteEntryPlaybackVolume(0.25);
    EXPECT_FLOAT_EQ(c->playbackController().noteEntryPlaybackLevel(), 0.25f);
    c->toggleMuteNoteEntryPlayback();
    EXPECT_FLOAT_EQ(c->playbackController().noteEntryPlaybackLevel(), 0.0f);
    EXPECT_EQ(c->midiOutput()->playbackLevel(), 0.0);
    c->toggleMuteNoteEntryPlayback();
    EXPECT_EQ(c->midiOutput()->playbackLevel(), 0.25);
    c->setMetronomePlaybackVolume(0.5);
    EXPECT_FLOAT_EQ(c->playbackController().metronomePlaybackLevel(), 0.5f);
    c->stopInteractiveMidiOutput();
    EXPECT_EQ(c->midiOutput(), nullptr);
    c->toggleMuteNoteEntryPlayback(); // goes to nothing
    c->startInteractiveMidiOutput();
    EXPECT_EQ(c->midiOutput()->playbackLevel(), 0.0);
}

TEST_F(PlaybackControllerTest, PitchAndSpeedRoundHalfToEvenAndClamp)
{
    auto c = make();
    c->setCombinedPitchAdjustment(2.5);
    EXPECT_EQ(c->transpositionInterval(), 2);
    EXPECT_EQ(c->pitchAdjustment(), 50);
    c->setCombinedPitchAdjustment(3.5);
    EXPECT_EQ(c->transpositionInterval(), 4);
    EXPECT_EQ(c->pitchAdjustment(), -50);
    EXPECT_DOUBLE_EQ(c->combinedPitchAdjustment(), 3.5);
    c->setCombinedPitchAdjustment(1e9);
    EXPECT_EQ(c->transpositionInterval(), 24);
    c->setCombinedPitchAdjustment(std::nan(""));
    EXPECT_TRUE(std::isfinite(c->combinedPitchAdjustment()));

    for (double ignored : {0.0, -0.0, std::nan(""), double(INFINITY)}) {
        c->setPlaybackSpeed(ignored);
        EXPECT_EQ(c->playbackSpeed(), 1.0);
    }
    c->setPlaybackSpeed(1e308);
    EXPECT_EQ(c->playbackSpeed(), 8.0);
    c->setPlaybackSpeed(-0.5);
    EXPECT_EQ(c->playbackSpeed(), -0.5);
    EXPECT_TRUE(c->playbackController().isReverse());
    c->setPlaybackSpeed(0.75);
    EXPECT_DOUBLE_EQ(c->playbackTempo(), 90); // 120 BPM at 0.75
}

TEST_F(PlaybackControllerTest, AddsRegionsOnBarsWithoutOverlap)
{
    auto bare = make(std::make_shared<VellNoteEntryStorage>());
    bare->addVerseRegionAtCursor();
    EXPECT_TRUE(bare->noteEntryStorage()->regionEntries().empty()); // no beats

    auto c = make();
    const auto& regions = c->noteEntryStorage()->regionEntries();
    auto entry = c->noteEntryStorage()->newRegionEntry();
    entry->setName("my VERSE two");
    c->addRegionEntry(entry, 100);
    ASSERT_EQ(regions.size(), 1u);
    EXPECT_EQ(regions[0]->range(), VellMakeFrameRange(0, kBar));
    EXPECT_EQ(regions[0]->name(), "My Verse Two");
    c->addRegionEntry(c->noteEntryStorage()->newRegionEntry(), 0);   // one starts there
    c->addRegionEntry(c->noteEntryStorage()->newRegionEntry(), 500); // bar fully covered
    EXPECT_EQ(regions.size(), 1u);

    // In the bar before a region on the next bar line: ends a frame before it.
    addRegion(*c, 3 * kBar, kBar);
    c->addRegionEntry(c->noteEntryStorage()->newRegionEntry(), 2 * kBar + 5000);
    ASSERT_EQ(regions.size(), 3u);
    EXPECT_EQ(regions[1]->range(), VellMakeFrameRange(2 * kBar, kBar - 1));
    c->seekToFrame(kBar + 3);
    c->addChorusRegionAtCursor();
    ASSERT_EQ(regions.size(), 4u);
    EXPECT_EQ(regions[1]->range(), VellMakeFrameRange(kBar, kBar - 1));
    EXPECT_EQ(regions[1]->name(), "Chorus");
    for (std::size_t i = 1; i < regions.size(); ++i) {
        EXPECT_LE(regions[i - 1]->endLocation(), regions[i]->location());
    }
}

TEST_F(PlaybackControllerTest, StepsBetweenRegions)
{
    auto c = make();
    auto first = addRegion(*c, kBar, kBar, "A");
    auto second = addRegion(*c, 3 * kBar, kBar, "B");
    EXPECT_EQ(c->regionOccurringBeforeFrame(2 * kBar), nullptr); // ends exactly there
    EXPECT_EQ(c->regionOccurringBeforeFrame(2 * kBar + 1), first);
    EXPECT_EQ(c->nextActiveRegion(), first);

    int moves = 0;
    auto token = NotificationCenter::defaultCenter().addObserver(
        VellPlaybackControllerDidExecuteMovementCommandNotification, c.get(),
        [&](const Notification&) { ++moves; });
    c->seekToNextRegionLocation(); // to A's start
    EXPECT_EQ(c->currentFrame(), kBar);
    c->seekToNextRegionLocation(); // to A's last frame
    EXPECT_EQ(c->currentFrame(), 2 * kBar - 1);
    c->seekToNextRegionLocation(); // to B
    c->seekToNextRegionLocation();
    c->seekToNextRegionLocation(); // past the last region, none active: the last frame
    EXPECT_EQ(c->currentFrame(), kSongFrames - 1);
    c->seekToPreviousRegionLocation();
    EXPECT_EQ(c->currentFrame(), 4 * kBar - 1);
    EXPECT_EQ(moves, 6);

    // With a region active, stepping keeps it on the region under the playhead.
    c->setActiveRegion(first);
    c->seekToFrame(4 * kBar + 10);
    c->seekToNextRegionLocation();
    EXPECT_EQ(c->currentFrame(), 4 * kBar + 10);
    c->selectPreviousRegion(); // nothing before the first region
    EXPECT_EQ(c->activeRegion(), first);
    c->setActiveRegion(nullptr);
    c->selectNextRegion(); // from the playhead: nothing after the last region
    EXPECT_FALSE(c->hasActiveRegion());
    EXPECT_TRUE(c->hasPreviousRegion());
}

TEST_F(PlaybackControllerTest, PreviousRegionWhileLoopingSelectsOrRestarts)
{
    auto c = make();
    auto first = addRegion(*c, 0, kBar);
    auto second = addRegion(*c, 2 * kBar, kBar);
    c->setActiveRegion(second);
    c->startFilePlaying();
    ASSERT_TRUE(c->isLooping());
    // At the loop's start: the region before becomes the loop, the playhead stays.
    c->seekToPreviousRegionLocation();
    EXPECT_EQ(c->activeRegion(), first);
    EXPECT_EQ(c->playbackController().loopRange(), std::make_pair(Frame(0), kBar));
    // Half a second in: back to the start of the loop.
    c->setActiveRegion(second);
    c->setCurrentFrame(2 * kBar + 22050);
    c->seekToPreviousRegionLocation();
    EXPECT_EQ(c->activeRegion(), second);
    EXPECT_EQ(c->currentFrame(), 2 * kBar);
    // Live resize moves the loop while playing.
    c->beginLiveResizeWithRegionEntry(second);
    c->updateLiveResizeWithRange(VellMakeFrameRange(2 * kBar, kBar / 2));
    EXPECT_EQ(c->playbackController().loopRange(), std::make_pair(2 * kBar, kBar / 2));
    c->endLiveResizeWithNewEntry(second);
    EXPECT_EQ(c->loopRange(), second->range());
    c->stopFilePlaying();
}

TEST_F(PlaybackControllerTest, MarkersAndChords)
{
    auto c = make();
    c->seekToFrame(1000);
    c->placeMarker();
    c->placeMarker();
    ASSERT_EQ(c->allMarkerLocations(), std::vector<Frame>{1000});
    EXPECT_EQ(c->nextMarkerToFrame(5000, {}), kSongFrames - 1);
    EXPECT_EQ(c->previousMarkerToFrame(5000, {}), 0);
    EXPECT_EQ(c->previousMarkerToFrame(5000, {1000, 4000}), 4000);

    c->setSelectedMarker(c->noteEntryStorage()->markerEntries().front());
    c->seekToFrame(0);
    c->seekToNextMarker(); // lands on the marker: stays selected
    EXPECT_EQ(c->currentFrame(), 1000);
    EXPECT_NE(c->selectedMarker(), nullptr);
    c->seekToNextMarker(); // lands on the last frame: no marker there
    EXPECT_EQ(c->selectedMarker(), nullptr);

    for (Frame at : {Frame(0), kBar, 2 * kBar}) {
        auto chord = c->noteEntryStorage()->newChordEntry();
        chord->setLocation(at);
        c->noteEntryStorage()->addChordEntry(chord);
    }
    c->seekToFrame(kBar);
    c->seekToPreviousChordLocation(); // from a chord's first frame: the one before
    EXPECT_EQ(c->currentFrame(), 0);
    c->seekToPreviousChordLocation();
    EXPECT_EQ(c->currentFrame(), 0);
    c->seekToFrame(2 * kBar);
    c->seekToNextChordLocation();
    EXPECT_EQ(c->currentFrame(), kSongFrames - 1);

    // While playing, "previous" skips a marker passed less than a quarter second ago.
    c->setCurrentFrame(0);
    c->startFilePlaying();
    EXPECT_EQ(c->previousMarkerToFrame(1000 + 5000, {1000}), 0);
    EXPECT_EQ(c->nextMarkerToFrame(0, {5000, 20000}), 20000);
    c->stopFilePlaying();
}

TEST_F(PlaybackControllerTest, TheMusicalView)
{
    auto c = make();
    EXPECT_EQ(c->timeSignature(), BRIXTimeSignature(4, 4));
    int changes = 0;
    auto token = c->addObserver("timeSignature", [&](const KeyChange&) { ++changes; });
    c->setTimeSignature(BRIXTimeSignature(6, 8));
    ASSERT_EQ(c->noteEntryStorage()->timeSignatureEntries().size(), 1u);
    EXPECT_EQ(c->noteEntryStorage()->timeSignatureEntries()[0]->location(), 0);
    EXPECT_EQ(c->timeSignature(), BRIXTimeSignature(6, 8));
    EXPECT_EQ(changes, 1);
    EXPECT_EQ(make(std::make_shared<VellNoteEntryStorage>())->timeSignature(),
              BRIXTimeSignature(0, 0));
    EXPECT_EQ(VellPlaybackController::timeSignaturePresets().size(), 17u);
    EXPECT_EQ(VellPlaybackController::valueForCountInDuration(2), 4);
    EXPECT_EQ(VellPlaybackController::valueForCountInDuration(3), 0);

    c->setTimeSignature(BRIXTimeSignature(4, 4));
    c->seekToFrame(2 * kBar + 22050);
    EXPECT_EQ(c->barBeatIndex(), VellBarBeatIndex::indexPathForBeat(1, 2));
    c->setBarBeatIndex(VellBarBeatIndex::indexPathForBeat(0, 3));
    EXPECT_EQ(c->currentFrame(), 3 * kBar);

    EXPECT_FALSE(c->songKeyTonicChord());
    auto key = c->noteEntryStorage()->newKeyEntry();
    key->setTonicChord(*KChord::chordWithName("Am"));
    c->noteEntryStorage()->addKeyEntry(key);
    c->setTranspositionInterval(-3);
    EXPECT_EQ(c->transposedSongKeyTonicChord()->name(), "F#m");

    c->setTranscriptionCursorEnabled(true);
    EXPECT_EQ(c->transcriptionCursorFrame(), 3 * kBar);
    c->seekToFrame(1000); // moves the cursor too
    EXPECT_EQ(c->cursorFrame(), 1000);
}

TEST_F(PlaybackControllerTest, SettingsDictionaryChecksEverythingFirst)
{
    auto c = make();
    ASSERT_TRUE(c->applySettingsFromDictionary({{"playbackPitchInSemitones", 1.25}}));
    EXPECT_EQ(c->transpositionInterval(), 1);
    EXPECT_EQ(c->pitchAdjustment(), 25);
    ASSERT_TRUE(c->applySettingsFromDictionary({{"playbackPitchInSemitones", -0.5}}));
    EXPECT_EQ(c->transpositionInterval(), 0);
    EXPECT_EQ(c->pitchAdjustment(), -50);

    const nlohmann::json settings = {
        {"playbackSpeed", 0.75}, {"transpositionInterval", 2},
        {"pitchAdjustment", 10}, {"metronomeEnabled", true},
        {"countInMode", 2},      {"countInDuration", 1},
        {"currentFrame", 44100}, {"noteEntryPlaybackVolume", 0.5},
    };
    ASSERT_TRUE(c->applySettingsFromDictionary(settings));
    const auto saved = c->settingsDictionary();
    EXPECT_EQ(saved.begin().key(), "playbackVolume"); // written in order
    EXPECT_EQ(saved["playbackPitchInSemitones"], 2.1);
    auto other = make();
    ASSERT_TRUE(other->applySettingsFromDictionary(nlohmann::json(saved)));
    EXPECT_EQ(other->settingsDictionary(), saved);

    // A bad value anywhere changes nothing and names the key.
    for (const nlohmann::json& bad :
         {nlohmann::json{{"playbackSpeed", 0.5}, {"countInMode", 7}},
          nlohmann::json{{"playbackVolume", "loud"}}, nlohmann::json{{"playbackSpeed", 1e308}},
          nlohmann::json{{"currentFrame", 1.5}}, nlohmann::json{{"transpositionInterval", 1e300}},
          nlohmann::json::array()}) {
        Error error;
        EXPECT_FALSE(c->applySettingsFromDictionary(bad, &error)) << bad;
        EXPECT_EQ(error.localizedDescription(), "Could not load playback settings data. Please "
                                                "contact support to notify us of this issue.");
        if (bad.is_object()) {
            EXPECT_NE(error.localizedFailureReason()->find(bad.items().begin().key()),
                      std::string::npos);
        }
        EXPECT_EQ(c->settingsDictionary(), saved);
    }

    // Absent keys reset to the defaults; preferences are written only on a change.
    ASSERT_TRUE(c->applySettingsFromDictionary(nlohmann::json::object()));
    EXPECT_EQ(c->playbackSpeed(), 1.0);
    EXPECT_FALSE(c->isMetronomeEnabled());
    EXPECT_EQ(c->countInMode(), 0);
    EXPECT_EQ(c->currentFrame(), 0);
    EXPECT_EQ(UserDefaults::standard()->integerForKey("countInMode"), 0);
    EXPECT_FALSE(UserDefaults::standard()->objectForKey("metronomeAccentsDownbeat"));

    // The file form: malformed text is the parser's error, an array the settings error.
    auto wrapper = c->settingsFileWrapper();
    ASSERT_TRUE(wrapper);
    EXPECT_TRUE(other->readSettingsFromFileWrapper(*wrapper));
    Error error;
    EXPECT_FALSE(other->readSettingsFromFileWrapper(FileWrapper({'{', 'x'}), &error));
    EXPECT_EQ(error.code(), 3840);
    EXPECT_FALSE(other->readSettingsFromFileWrapper(FileWrapper({'[', ']'}), &error));
    EXPECT_EQ(error.code(), -1);
    EXPECT_EQ(error.domain(), NSCocoaErrorDomain);
}

TEST_F(PlaybackControllerTest, KeyedArchiveKeepsAbsentSettings)
{
    auto c = make();
    c->setPlaybackSpeed(0.5);
    c->setCombinedPitchAdjustment(-1.25);
    c->setNoteEntryPlaybackVolume(0.5);
    c->setMetronomeEnabled(true);
    c->setLoopRange(VellMakeFrameRange(kBar, kBar));
    KeyedArchiver archiver;
    ASSERT_TRUE(c->encodeSettingsToKeyedArchiver(archiver));
    auto unarchiver = KeyedUnarchiver::create(archiver.encodedData());
    ASSERT_TRUE(unarchiver);
    EXPECT_FALSE(unarchiver->containsValueForKey("metronomePlaybackVolume"));
    EXPECT_FALSE(unarchiver->containsValueForKey("currentFrame"));

    auto other = make();
    other->setCurrentFrame(5000); // absent from the archive: kept
    ASSERT_TRUE(other->decodeSettingsFromKeyedUnarchiver(*unarchiver));
    EXPECT_EQ(other->playbackSpeed(), 0.5);
    EXPECT_EQ(other->transpositionInterval(), -1);
    EXPECT_EQ(other->pitchAdjustment(), -25);
    EXPECT_EQ(other->metronomePlaybackVolume(), 0.5); // takes the note-entry volume
    EXPECT_TRUE(other->isMetronomeEnabled());
    EXPECT_EQ(other->loopRange(), VellMakeFrameRange(kBar, kBar));

    KeyedArchiver zeroSpeed;
    zeroSpeed.encodeDouble(0, "playbackSpeed");
    ASSERT_TRUE(other->decodeSettingsFromKeyedUnarchiver(
        *KeyedUnarchiver::create(zeroSpeed.encodedData())));
    EXPECT_EQ(other->playbackSpeed(), 0.5);
    EXPECT_EQ(other->currentFrame(), 5000);

    KeyedArchiver bad;
    bad.encodeInteger(9, "countInDuration");
    Error error;
    EXPECT_FALSE(other->decodeSettingsFromKeyedUnarchiver(
        *KeyedUnarchiver::create(bad.encodedData()), &error));
    EXPECT_EQ(other->countInDuration(), 0);
}

TEST_F(PlaybackControllerTest, FrameUpdatesRunOnlyWhilePlaying)
{
    auto c = make();
    int ticks = 0;
    auto token = c->addObserver("position", [&](const KeyChange&) { ++ticks; });
    c->startFilePlaying();
    VellRunMainQueueUntil([] { return false; }, 250ms);
    EXPECT_GE(ticks, 10); // about 120 a second
    EXPECT_GT(c->currentFrame(), 0);
    c->pauseFilePlaying();
    EXPECT_TRUE(c->isPaused());
    EXPECT_FALSE(c->isFrameUpdateTimerRunning());
    VellDrainMainQueue();
    const int paused = ticks;
    VellRunMainQueueUntil([] { return false; }, 100ms);
    EXPECT_EQ(ticks, paused);
    c->resumeFilePlaying();
    EXPECT_TRUE(c->isFrameUpdateTimerRunning());
    VellRunMainQueueUntil([&] { return ticks > paused + 3; }, 2s);
    EXPECT_GT(ticks, paused + 3);
    c->stopFilePlaying();
}

TEST_F(PlaybackControllerTest, ScrubbingPausesFreezesAndResumes)
{
    auto c = make();
    c->startFilePlaying();
    c->startFileScrubbing();
    EXPECT_FALSE(c->isPlaying());
    EXPECT_TRUE(c->isScrubbing() && c->isSeeking() && c->wasPlayingBeforeScrub());
    EXPECT_TRUE(c->freezer()->isPlaying());
    c->setCurrentFrame(3 * kBar);
    EXPECT_EQ(c->currentFrame(), 3 * kBar); // the stored playhead while scrubbing
    EXPECT_FALSE(c->playheadCanScrubToFrame(-1) && c->hasActiveRegion());
    c->stopFileScrubbing();
    EXPECT_FALSE(c->freezer()->isPlaying());
    EXPECT_TRUE(c->isPlaying());
    EXPECT_FALSE(c->wasPlayingBeforeScrub());
    c->stopFilePlaying();
}

TEST_F(PlaybackControllerTest, DestructionIsSafeInEveryState)
{
    { // playing, with ticks queued
        auto c = make();
        c->startFilePlaying();
        VellRunMainQueueUntil([] { return false; }, 50ms);
        c.reset();
        VellRunMainQueueUntil([] { return false; }, 50ms);
    }
    { // scrubbing, the freezer's worker running
        auto c = make();
        c->startFilePlaying();
        c->startFileScrubbing();
        c.reset();
    }
    { // counting in
        auto c = make();
        c->setMetronomeEnabled(true);
        c->setCountInMode(2);
        c->setCountInDuration(2);
        c->seekToFrame(4 * kBar);
        c->startFilePlaying();
        EXPECT_TRUE(c->playbackController().preroll());
        EXPECT_FALSE(c->playheadCanScrubToFrame(0));
        c.reset();
    }
    { // from inside the delegate, at the end of the file
        auto c = make(gridStorage(), Frame(0.3 * kRate));
        std::weak_ptr<VellPlaybackController> weak = c;
        recorder->onStop = [&c] { c.reset(); };
        c->startFilePlaying();
        EXPECT_TRUE(VellRunMainQueueUntil([&] { return weak.expired(); }, 5s));
    }
}

TEST_F(PlaybackControllerTest, ADeviceChangeStopsAndRebuildsTheFreezer)
{
    auto c = make();
    c->startFilePlaying();
    const VellAudioFreezer* before = c->freezer();
    c->defaultOutputDeviceDidChange();
    EXPECT_FALSE(c->isPlaying());
    EXPECT_EQ(recorder->didStop, 1);
    ASSERT_NE(c->freezer(), nullptr);
    EXPECT_NE(c->freezer(), before);
}

} // namespace
} // namespace vell::test
