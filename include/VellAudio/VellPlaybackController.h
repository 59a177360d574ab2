// The playback controller: what an application drives for one open document. It plays the
// document's audio file through a file player, scrubs with the audio freezer, plays pitches on
// a MIDI output unit, and keeps regions, markers, chords, beats and settings of the document.
#pragma once

#include <VellAudio/BRIXExtendedAudioFile.h>
#include <VellAudio/BRIXTimeSignature.h>
#include <VellAudio/Error.h>
#include <VellAudio/FileWrapper.h>
#include <VellAudio/KChord.h>
#include <VellAudio/KKey.h>
#include <VellAudio/KeyedArchive.h>
#include <VellAudio/MIDIOutputUnit.h>
#include <VellAudio/Observable.h>
#include <VellAudio/Types.h>
#include <VellAudio/VellAudioFreezer.h>
#include <VellAudio/VellBeatLocator.h>
#include <VellAudio/VellExtendedAudioFilePlayer.h>
#include <VellAudio/VellFrameRange.h>
#include <VellAudio/VellNoteEntryStorage.h>
#include <VellAudio/VellSpectrumData.h>

#include <nlohmann/json.hpp>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vell {

class TessalySettingsController;
class VellPlaybackController;

/// Posted on the default notification centre, with the controller as object, after a start
/// and after a stop.
inline constexpr std::string_view PlaybackInfoPlaybackDidBeginNotification =
    "PlaybackInfoPlaybackDidBeginNotification";
inline constexpr std::string_view PlaybackInfoPlaybackDidEndNotification =
    "PlaybackInfoPlaybackDidEndNotification";
/// Posted after a region, marker or chord stepping command has moved the playhead.
inline constexpr std::string_view VellPlaybackControllerDidExecuteMovementCommandNotification =
    "VellPlaybackControllerDidExecuteMovementCommand";

/// User-defaults keys of the three volumes (read at construction; the first is also written).
inline constexpr std::string_view kVellPlaybackVolumeDefaultsKey = "VellPlaybackVolume";
inline constexpr std::string_view kVellNoteEntryPlaybackVolumeDefaultsKey =
    "VellNoteEntryPlaybackVolume";
inline constexpr std::string_view kVellMetronomePlaybackVolumeDefaultsKey =
    "VellMetronomePlaybackVolume";

/// What a controller tells the application. Every call arrives on the main queue; the
/// application may destroy the controller from inside any of them.
class VellPlaybackControllerDelegate {
public:
    virtual ~VellPlaybackControllerDelegate() = default;
    virtual void playbackControllerWillBeginPlayingAudio(VellPlaybackController& /*c*/) {}
    virtual void playbackControllerDidBeginPlayingAudio(VellPlaybackController& /*c*/) {}
    virtual void playbackControllerDidStopPlayingAudio(VellPlaybackController& /*c*/) {}
    virtual void playbackControllerDidUpdateCurrentFrame(VellPlaybackController& /*c*/) {}
};

/// The metronome and count-in settings, as other parts of an application read them.
class VellBeatsSettings {
public:
    virtual ~VellBeatsSettings() = default;
    virtual bool isMetronomeEnabled() const = 0;
    virtual bool metronomeAccentsDownbeat() const = 0;
    virtual long long metronomeInstrumentIdentifier() const = 0;
    virtual long long countInMode() const = 0;
    virtual long long countInDuration() const = 0;
};

/// Whatever the application keeps about metronome sounds; the controller only holds it.
class VellMetronomeInfoProvider {
public:
    virtual ~VellMetronomeInfoProvider() = default;
};

/// The playback of one document: transport, position, levels, pitch and speed, metronome and
/// count-in, regions and loops, markers and chords, the musical view (time signature, bar and
/// beat, key), interactive MIDI, settings archiving, and the announcements an interface follows.
///
/// Observable keys (`addObserver`): "currentFrame", "currentTime", "remainingTime", "position",
/// "barBeatIndex", "activeRegion", "hasActiveRegion", "playbackSpeed", "playbackTempo",
/// "timeSignature", "songKeyTonicChord", "transposedSongKeyTonicChord", "pitchAdjustment",
/// "transpositionInterval", "combinedPitchAdjustment", "noteEntryStorage" and "playing". While
/// playing, "currentFrame" (and what depends on it) is announced about 120 times a second.
///
/// Ranges of values: the three volumes are linear levels from 0 to kMaximumVolume (1 is unity);
/// the speed's magnitude runs from 0.125 to 8 (negative plays backwards; zero and non-finite
/// speeds are ignored); the transposition runs to +-24 semitones and the fine pitch to +-2400
/// cents. Values outside are clamped, non-finite ones ignored.
///
/// Thread: main for every member. Made with `create`, owned through a shared pointer: the
/// timer, the end-of-file message and the device listener hold it weakly, so it may be
/// destroyed at any time, also while playing, scrubbing or counting in, or from inside a
/// delegate call (the call in progress finishes first).
class VellPlaybackController : public Observable,
                               public VellBeatsSettings,
                               public VellExtendedAudioFilePlayerDelegate,
                               public std::enable_shared_from_this<VellPlaybackController> {
public:
    static constexpr double kMaximumVolume = 2.0;
    /// The count-in lengths in bars, by countInDuration.
    static constexpr long long kCountInBars[] = {1, 2, 4};
    /// How far "previous" looks back, and markers ahead, while playing.
    static constexpr double kStepAllowanceSeconds = 0.25;

    /// A controller for the audio file at path and the document's storage (a new empty one
    /// when null). Nothing, with *outError filled, when the file cannot be opened ("Bad Audio
    /// File") or the freezer cannot be made for it.
    static std::shared_ptr<VellPlaybackController>
    create(const std::filesystem::path& audioFileURL,
           std::shared_ptr<VellNoteEntryStorage> noteEntryStorage, Error* outError = nullptr);
    /// As create, on a file already open (decoded once, or made in memory).
    static std::shared_ptr<VellPlaybackController>
    createWithAudioFile(std::shared_ptr<BRIXExtendedAudioFile> audioFile,
                        std::shared_ptr<VellNoteEntryStorage> noteEntryStorage,
                        Error* outError = nullptr);
    ~VellPlaybackController() override;
    VellPlaybackController(const VellPlaybackController&) = delete;
    VellPlaybackController& operator=(const VellPlaybackController&) = delete;

    // ---- Transport.
    /// Plays as the active region, transcription cursor and count-in settings say.
    void startFilePlaying();
    /// The one path that starts audio. False (and *outError) when the device cannot start.
    bool startFilePlayingWithLoop(bool loop, VellFrameRange range, bool preroll,
                                  Error* outError = nullptr);
    void startFileLoopingInRange(VellFrameRange range);
    void startEntireFileLooping();
    void startFileLoopingFromStart(bool fromStart);
    void pauseFilePlaying();
    void resumeFilePlaying();
    void stopFilePlaying();
    bool isPlaying() const;
    bool isLooping() const;
    /// Whether playback is paused (stopped by pauseFilePlaying, not yet resumed or stopped).
    bool isPaused() const noexcept { return mPaused; }

    void startFileSeeking();
    void stopFileSeeking();
    void startFileScrubbing();
    void stopFileScrubbing();
    void startAudioFreezer();
    void stopAudioFreezer();
    void updateAudioFreezerPosition();
    bool playheadCanScrubToFrame(Frame frame) const;
    /// Where a count-in before the current frame starts (making its beats where the song has
    /// none).
    Frame prerollStartForCurrentFrame();

    // ---- Position and time. Times of the getters are milliseconds; seekToTime takes seconds.
    Frame currentFrame() const;
    void setCurrentFrame(Frame frame);
    Frame cursorFrame() const;
    void offsetCurrentFrame(Frame delta);
    void seekToTime(double seconds);
    void seekToFrame(Frame frame);
    void seekToBeginning();
    void seekToEnd();
    double currentTime() const;
    void setCurrentTime(double milliseconds);
    double totalTime() const;
    double remainingTime() const;
    double position() const;
    long long sampleRate() const;
    std::uint64_t channelCount() const;
    Frame totalFrames() const noexcept { return mTotalFrames; }

    // ---- Levels, pitch and speed.
    double playbackVolume() const noexcept { return mPlaybackVolume; }
    void setPlaybackVolume(double volume);
    double noteEntryPlaybackVolume() const noexcept { return mNoteEntryPlaybackVolume; }
    void setNoteEntryPlaybackVolume(double volume);
    double metronomePlaybackVolume() const noexcept { return mMetronomePlaybackVolume; }
    void setMetronomePlaybackVolume(double volume);
    void updatePlaybackLevel();
    void toggleMutePlayback();
    void toggleMuteNoteEntryPlayback();
    bool isPlaybackMuted() const noexcept { return mPlaybackMuted; }
    void setPlaybackMuted(bool muted) { mPlaybackMuted = muted; }
    bool isNoteEntryPlaybackMuted() const noexcept { return mNoteEntryPlaybackMuted; }
    void setNoteEntryPlaybackMuted(bool muted) { mNoteEntryPlaybackMuted = muted; }

    double pitchAdjustment() const;
    void setPitchAdjustment(double cents);
    long long transpositionInterval() const;
    void setTranspositionInterval(long long semitones);
    double combinedPitchAdjustment() const;
    void setCombinedPitchAdjustment(double semitones);
    double playbackSpeed() const noexcept { return mPlaybackSpeed; }
    void setPlaybackSpeed(double speed);
    /// The first tempo entry's tempo times the speed; 0 without tempo entries.
    double playbackTempo() const;

    // ---- Metronome and count-in. countInMode: 0 never counts in, 1 only over the active
    // region, 2 always; a disabled metronome never counts in.
    bool isMetronomeEnabled() const override { return mMetronomeEnabled; }
    void setMetronomeEnabled(bool enabled);
    bool metronomeAccentsDownbeat() const override { return mMetronomeAccentsDownbeat; }
    void setMetronomeAccentsDownbeat(bool accents);
    long long metronomeInstrumentIdentifier() const override { return mMetronomeInstrument; }
    void setMetronomeInstrumentIdentifier(long long identifier);
    long long countInMode() const override { return mCountInMode; }
    /// Clamped to 0...2.
    void setCountInMode(long long mode);
    long long countInDuration() const override { return mCountInDuration; }
    /// An index into kCountInBars, clamped to 0...2.
    void setCountInDuration(long long duration);
    VellFrameRange loopRange() const noexcept { return mLoopRange; }
    void setLoopRange(VellFrameRange range);

    // ---- Isolation.
    /// Applies the isolation settings (all six or none); false with the reason otherwise.
    bool loadTessalySettingsFromJSONData(std::string_view json, std::string* outReason = nullptr);
    std::optional<std::string> tessalySettingsJSONData() const;
    TessalySettingsController& tessalySettingsController();

    // ---- Regions and loops.
    const std::shared_ptr<VellRegionEntry>& activeRegion() const noexcept { return mActiveRegion; }
    void setActiveRegion(std::shared_ptr<VellRegionEntry> region);
    bool hasActiveRegion() const noexcept { return mActiveRegion != nullptr; }
    VellFrameRange activeRegionLoopRange() const;
    void removeActiveRegion();
    std::shared_ptr<VellRegionEntry> nextActiveRegion() const;
    std::shared_ptr<VellRegionEntry> regionOccurringAfterFrame(Frame frame) const;
    std::shared_ptr<VellRegionEntry> regionOccurringBeforeFrame(Frame frame) const;
    std::shared_ptr<VellRegionEntry>
    regionOccurringAfterRegion(const std::shared_ptr<VellRegionEntry>& region) const;
    std::shared_ptr<VellRegionEntry>
    regionOccurringBeforeRegion(const std::shared_ptr<VellRegionEntry>& region) const;
    void selectNextRegion();
    void selectPreviousRegion();
    bool hasNextRegion() const;
    bool hasPreviousRegion() const;
    /// Adds entry one bar long on the bar at frame, shortened or moved so that it overlaps no
    /// region; adds nothing without beats, where a region starts at frame, or where no room is.
    void addRegionEntry(const std::shared_ptr<VellRegionEntry>& entry, Frame frame);
    void addRegionEntryAtPlayhead(const std::shared_ptr<VellRegionEntry>& entry);
    void addMarkerRegionAtCursor();
    void addChorusRegionAtCursor();
    void addVerseRegionAtCursor();
    void addBridgeRegionAtCursor();
    void renameRegionEntry(const std::shared_ptr<VellRegionEntry>& region, std::string name);
    Frame regionSeekLocationBeforeFrame(Frame frame) const;
    Frame regionSeekLocationAfterFrame(Frame frame) const;
    void seekToNextRegionLocation();
    void seekToPreviousRegionLocation();
    void updateActiveRegionForLocation(Frame frame);
    void beginLiveResizeWithRegionEntry(const std::shared_ptr<VellRegionEntry>& region);
    void updateLiveResizeWithRange(VellFrameRange range);
    void endLiveResizeWithNewEntry(const std::shared_ptr<VellRegionEntry>& region);
    void refreshPlaybackWithRange(VellFrameRange range);
    VellFrameRange resizingLoopRange() const noexcept { return mResizingLoopRange; }

    // ---- Markers and chords.
    void placeMarker();
    void removeSelectedMarker();
    void seekToNextMarker();
    void seekToPreviousMarker();
    std::vector<Frame> allMarkerLocations() const;
    Frame previousMarkerToFrame(Frame frame, const std::vector<Frame>& list) const;
    Frame nextMarkerToFrame(Frame frame, const std::vector<Frame>& list) const;
    void jumpToNextMarkerInList(const std::vector<Frame>& list);
    void jumpToPreviousMarkerInList(const std::vector<Frame>& list);
    void updateActiveMarkerForLocation(Frame frame);
    const std::shared_ptr<VellMarkerEntry>& selectedMarker() const noexcept
    {
        return mSelectedMarker;
    }
    void setSelectedMarker(std::shared_ptr<VellMarkerEntry> marker)
    {
        mSelectedMarker = std::move(marker);
    }
    void seekToPreviousChordLocation();
    void seekToNextChordLocation();
    Frame chordSeekLocationBeforeFrame(Frame frame) const;
    Frame chordSeekLocationAfterFrame(Frame frame) const;

    // ---- Beats, key and MIDI.
    /// The first time signature of the document; 0/0 when it has none.
    BRIXTimeSignature timeSignature() const;
    /// Makes signature the document's only time signature, from its first frame.
    void setTimeSignature(BRIXTimeSignature signature);
    static const std::vector<BRIXTimeSignature>& timeSignaturePresets();
    VellBarBeatIndex barBeatIndex() const;
    void setBarBeatIndex(VellBarBeatIndex index);
    /// The bars of a count-in duration index; 0 for an index other than 0, 1 or 2.
    static long long valueForCountInDuration(long long duration);
    std::optional<KChord> songKeyTonicChord() const;
    KKey songKey() const;
    KKey transposedSongKey() const;
    std::optional<KChord> transposedSongKeyTonicChord() const;
    MIDIOutputUnit* midiOutput() const noexcept { return mMIDIOutputUnit.get(); }
    void startInteractiveMidiOutput();
    void stopInteractiveMidiOutput();
    void updateNoteEntryPlaybackLevel();
    void updateMetronomePlaybackLevel();
    bool isTranscriptionCursorEnabled() const noexcept { return mTranscriptionCursorEnabled; }
    void setTranscriptionCursorEnabled(bool enabled);
    Frame transcriptionCursorFrame() const noexcept { return mTranscriptionCursorFrame; }
    void setTranscriptionCursorFrame(Frame frame) { mTranscriptionCursorFrame = frame; }

    // ---- Settings archiving. The dictionary resets absent keys to their defaults; the
    // archive leaves absent settings alone. Both check every value before applying any.
    nlohmann::ordered_json settingsDictionary() const;
    /// False (changing nothing, *outError naming the key) when a value is of the wrong type
    /// or out of range.
    bool applySettingsFromDictionary(const nlohmann::json& dictionary, Error* outError = nullptr);
    std::unique_ptr<FileWrapper> settingsFileWrapper(Error* outError = nullptr) const;
    bool readSettingsFromFileWrapper(const FileWrapper& wrapper, Error* outError = nullptr);
    bool encodeSettingsToKeyedArchiver(KeyedArchiver& archiver, Error* outError = nullptr) const;
    bool decodeSettingsFromKeyedUnarchiver(const KeyedUnarchiver& unarchiver,
                                           Error* outError = nullptr);

    // ---- Frame update timer and notifications.
    void beginFrameUpdateTimer();
    void cancelFrameUpdateTimer();
    bool isFrameUpdateTimerRunning() const;
    void notifyDidExecuteMovementCommand();
    /// What the default-output-device listener does: stops playing, and rebuilds the freezer
    /// for the new device.
    void defaultOutputDeviceDidChange();

    // ---- Other accessors.
    VellSpectrumData& spectrumManager() const;
    VellBeatsSettings& beatsSettingsManager() noexcept { return *this; }
    VellExtendedAudioFilePlayer& playbackController() const noexcept { return *mPlayer; }
    VellAudioFreezer* freezer() const noexcept { return mFreezer.get(); }
    Frame prerollDisplayFrame() const noexcept { return mPrerollDisplayFrame; }
    const VellBeatLocator& beatLocator() const noexcept { return mBeatLocator; }
    bool isSeeking() const noexcept { return mSeeking; }
    bool isScrubbing() const noexcept { return mScrubbing; }
    bool loopEnabled() const noexcept { return mLoopEnabled; }
    void setLoopEnabled(bool enabled) { mLoopEnabled = enabled; }
    bool wasPlayingBeforeScrub() const noexcept { return mWasPlayingBeforeScrub; }
    bool audioFreezerEnabled() const noexcept { return mAudioFreezerEnabled; }
    void setAudioFreezerEnabled(bool enabled) { mAudioFreezerEnabled = enabled; }
    std::weak_ptr<VellPlaybackControllerDelegate> delegate() const { return mDelegate; }
    void setDelegate(std::weak_ptr<VellPlaybackControllerDelegate> delegate)
    {
        mDelegate = std::move(delegate);
    }
    const std::shared_ptr<VellNoteEntryStorage>& noteEntryStorage() const noexcept
    {
        return mNoteEntryStorage;
    }
    const std::shared_ptr<VellMetronomeInfoProvider>& metronomeInfoManager() const noexcept
    {
        return mMetronomeInfoManager;
    }
    void setMetronomeInfoManager(std::shared_ptr<VellMetronomeInfoProvider> manager)
    {
        mMetronomeInfoManager = std::move(manager);
    }
    const std::filesystem::path& audioFileURL() const noexcept { return mAudioFileURL; }

    void audioFilePlayerDidReachEndOfFile(VellExtendedAudioFilePlayer& player) override;

private:
    struct PrivateTag {};

public:
    explicit VellPlaybackController(PrivateTag);

private:
    bool setUp(std::shared_ptr<BRIXExtendedAudioFile> audioFile,
               std::shared_ptr<VellNoteEntryStorage> storage, Error* outError);
    void announce(std::string_view key) const;
    void loadVolumes();
    void observeStorage();
    bool shouldPrerollPlaybackWithActiveRegion() const;
    bool shouldAlwaysPrerollPlayback() const;
    void applyLevelsForStart();
    template <class Call> void tellDelegate(Call call);
    void setStoredCurrentFrameFromPlayer();
    Frame stepAllowance() const;

    struct Timer;
    std::unique_ptr<Timer> mFrameUpdateTimer;
    Frame mCurrentFrame = 0;
    std::shared_ptr<VellRegionEntry> mActiveRegion;
    std::unique_ptr<MIDIOutputUnit> mMIDIOutputUnit;
    VellFrameRange mResizingLoopRange;
    bool mTranscriptionCursorEnabled = false;
    std::unique_ptr<VellExtendedAudioFilePlayer> mPlayer;
    std::shared_ptr<void> mDefaultOutputDeviceListener;
    bool mAudioFreezerEnabled = false;
    bool mMetronomeEnabled = false;
    bool mMetronomeAccentsDownbeat = false;
    bool mSeeking = false;
    bool mScrubbing = false;
    bool mLoopEnabled = false;
    bool mPlaybackMuted = false;
    bool mNoteEntryPlaybackMuted = false;
    bool mWasPlayingBeforeScrub = false;
    bool mPaused = false;
    std::shared_ptr<VellAudioFreezer> mFreezer;
    Frame mPrerollDisplayFrame = 0;
    std::shared_ptr<VellMarkerEntry> mSelectedMarker;
    double mPlaybackSpeed = 1.0;
    double mPlaybackVolume = 1.0;
    double mNoteEntryPlaybackVolume = 1.0;
    double mMetronomePlaybackVolume = 1.0;
    VellBeatLocator mBeatLocator;
    long long mCountInMode = 0;
    long long mCountInDuration = 0;
    long long mMetronomeInstrument = 0;
    Frame mTranscriptionCursorFrame = 0;
    std::weak_ptr<VellPlaybackControllerDelegate> mDelegate;
    std::shared_ptr<VellNoteEntryStorage> mNoteEntryStorage;
    std::shared_ptr<VellMetronomeInfoProvider> mMetronomeInfoManager;
    std::filesystem::path mAudioFileURL;
    Frame mTotalFrames = 0;
    VellFrameRange mLoopRange;
    std::unique_ptr<TessalySettingsController> mTessalySettingsController;
    std::vector<sigc::connection> mStorageObservations;
};

} // namespace vell
