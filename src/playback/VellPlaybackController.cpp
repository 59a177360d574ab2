// The playback controller: construction, transport, scrubbing, position, levels, pitch and
// speed, metronome and count-in settings, the frame update timer and device changes.
#include "VellAudio/VellPlaybackController.h"

#include "VellAudio/NotificationCenter.h"
#include "VellAudio/TessalySettings.h"
#include "VellAudio/UserDefaults.h"
#include "VellAudio/VellMetronomeInstrument.h"
#include "VellAudio/VellPrerollController.h"
#include "engine/VellOutputAudioUnit.h"
#include "platform/RepeatingTimer.h"
#include "platform/device/BRIXAudioHardware.h"
#include "support/Localized.h"
#include "support/Log.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace vell {

namespace {

constexpr std::chrono::nanoseconds kFrameUpdateInterval{8'333'333}; // 120 Hz
constexpr std::string_view kBadAudioFileDescription = "Bad Audio File";
constexpr std::string_view kBadAudioFileSuggestion =
    "There was an error while loading the audio file.";
constexpr std::string_view kRecoverySuggestionKey = "NSLocalizedRecoverySuggestion";

const KeyDependencies& controllerKeyDependencies()
{
    static const KeyDependencies table{
        {"currentFrame", {"currentTime"}},
        {"currentTime", {"currentFrame"}},
        {"remainingTime", {"currentFrame"}},
        {"position", {"currentTime", "currentFrame", "totalFrames"}},
        {"barBeatIndex", {"currentTime", "currentFrame"}},
        {"hasActiveRegion", {"activeRegion"}},
        {"playbackTempo", {"playbackSpeed"}},
        {"timeSignature", {"noteEntryStorage"}},
        {"combinedPitchAdjustment", {"pitchAdjustment", "transpositionInterval"}},
        {"transposedSongKeyTonicChord", {"songKeyTonicChord", "transpositionInterval"}},
    };
    return table;
}

Error badAudioFileError(std::optional<std::string> reason)
{
    ErrorUserInfo info;
    info.emplace(NSLocalizedDescriptionKey, localizedString(kBadAudioFileDescription));
    info.emplace(kRecoverySuggestionKey, localizedString(kBadAudioFileSuggestion));
    if (reason) {
        info.emplace(NSLocalizedFailureReasonErrorKey, std::move(*reason));
    }
    return Error(kVellErrorDomain, 0, std::move(info));
}

/// A volume as the engine may take it: clamped to [0, kMaximumVolume]; nothing when not finite.
std::optional<double> checkedVolume(double volume)
{
    if (!std::isfinite(volume)) {
        return std::nullopt;
    }
    return std::clamp(volume, 0.0, VellPlaybackController::kMaximumVolume);
}

/// A frame from a double count of frames, saturated at the ends of the range.
Frame saturatedFrame(double frames)
{
    constexpr double kLimit = 9.2e18;
    return static_cast<Frame>(std::clamp(frames, -kLimit, kLimit));
}

} // namespace

/// The repeating timer of the frame updates.
struct VellPlaybackController::Timer {
    explicit Timer(RepeatingTimer::Handler handler)
        : timer(kFrameUpdateInterval, std::move(handler))
    {
    }
    RepeatingTimer timer;
};

// ---- Construction and teardown.

VellPlaybackController::VellPlaybackController(PrivateTag) : Observable(controllerKeyDependencies())
{
}

std::shared_ptr<VellPlaybackController>
VellPlaybackController::create(const std::filesystem::path& audioFileURL,
                               std::shared_ptr<VellNoteEntryStorage> noteEntryStorage,
                               Error* outError)
{
    std::shared_ptr<BRIXExtendedAudioFile> file;
    try {
        Error fileError;
        file = BRIXExtendedAudioFile::create(audioFileURL, &fileError);
        if (!file) {
            assignError(outError, badAudioFileError(fileError.localizedFailureReason()));
            return nullptr;
        }
    } catch (const std::exception& exception) {
        logErrorLine(__FILE__, std::string("Caught exception: ") + exception.what());
        assignError(outError, badAudioFileError(std::nullopt));
        return nullptr;
    }
    auto controller = createWithAudioFile(std::move(file), std::move(noteEntryStorage), outError);
    if (controller) {
        controller->mAudioFileURL = audioFileURL;
    }
    return controller;
}

std::shared_ptr<VellPlaybackController>
VellPlaybackController::createWithAudioFile(std::shared_ptr<BRIXExtendedAudioFile> audioFile,
                                            std::shared_ptr<VellNoteEntryStorage> noteEntryStorage,
                                            Error* outError)
{
    auto controller = std::make_shared<VellPlaybackController>(PrivateTag{});
    if (!audioFile ||
        !controller->setUp(std::move(audioFile), std::move(noteEntryStorage), outError)) {
        if (!audioFile) {
            assignError(outError, badAudioFileError(std::nullopt));
        }
        return nullptr;
    }
    return controller;
}

bool VellPlaybackController::setUp(std::shared_ptr<BRIXExtendedAudioFile> audioFile,
                                   std::shared_ptr<VellNoteEntryStorage> storage, Error* outError)
{
    try {
        Error playerError;
        mPlayer = VellExtendedAudioFilePlayer::create(audioFile, &playerError);
        if (!mPlayer) {
            assignError(outError, badAudioFileError(playerError.localizedFailureReason()));
            return false;
        }
    } catch (const std::exception& exception) {
        mPlayer.reset();
        logErrorLine(__FILE__, std::string("Caught exception: ") + exception.what());
        assignError(outError, badAudioFileError(std::nullopt));
        return false;
    }
    mFreezer = VellAudioFreezer::create(mPlayer->audioFile(), outError);
    if (!mFreezer) {
        return false;
    }

    std::weak_ptr<VellPlaybackController> weak = weak_from_this();
    mDefaultOutputDeviceListener =
        BRIXAudioHardware::shared().addDefaultOutputDeviceListener([weak] {
            if (auto self = weak.lock()) {
                self->defaultOutputDeviceDidChange();
            }
        });

    mNoteEntryStorage = storage ? std::move(storage) : std::make_shared<VellNoteEntryStorage>();
    mTotalFrames = mPlayer->totalFrames();
    mBeatLocator.updateWithNoteEntryStorage(*mNoteEntryStorage);
    loadVolumes();
    mMIDIOutputUnit = std::make_unique<MIDIOutputUnit>();
    mMIDIOutputUnit->start();
    updateNoteEntryPlaybackLevel();
    updateMetronomePlaybackLevel();
    observeStorage();
    mPlayer->setTranspositionInterval(0);
    mPlayer->setPitchAdjustment(0);
    mPlaybackSpeed = 1.0;
    return true;
}

VellPlaybackController::~VellPlaybackController()
{
    mFrameUpdateTimer.reset();
    for (sigc::connection& connection : mStorageObservations) {
        connection.disconnect();
    }
    mDefaultOutputDeviceListener.reset();
    if (mPlayer) {
        mPlayer->setDelegate({});
        mPlayer->stopFilePlaying();
    }
    if (mFreezer) {
        mFreezer->stopPlayback();
    }
}

void VellPlaybackController::loadVolumes()
{
    UserDefaults& defaults = *UserDefaults::standard();
    // Registered once per store; registering again is harmless. The metronome's key is left
    // out on purpose: a missing value reads as 1.
    defaults.registerDefaults({{std::string(kVellPlaybackVolumeDefaultsKey), 1.0},
                               {std::string(kVellNoteEntryPlaybackVolumeDefaultsKey), 1.0}});
    const auto stored = [&defaults](std::string_view key) {
        if (!defaults.objectForKey(key)) {
            return 1.0;
        }
        return checkedVolume(defaults.doubleForKey(key)).value_or(1.0);
    };
    mPlaybackVolume = stored(kVellPlaybackVolumeDefaultsKey);
    mFreezer->setOutputVolume(static_cast<float>(mPlaybackVolume));
    mNoteEntryPlaybackVolume = stored(kVellNoteEntryPlaybackVolumeDefaultsKey);
    mMetronomePlaybackVolume = stored(kVellMetronomePlaybackVolumeDefaultsKey);
}

void VellPlaybackController::observeStorage()
{
    std::weak_ptr<VellPlaybackController> weak = weak_from_this();
    const auto observe = [&](VellNoteEntryStorageSignal& signal, auto effect) {
        mStorageObservations.push_back(
            signal.connect([weak, effect](const VellNoteEntryStorageChange& change) {
                auto self = weak.lock();
                if (!self || !change.object) {
                    return;
                }
                effect(*self);
            }));
    };
    VellNoteEntryStorage& storage = *mNoteEntryStorage;
    observe(storage.didChangeBeatEntriesSignal(), [](VellPlaybackController& self) {
        KeyChangeScope change(self, "barBeatIndex");
        self.mBeatLocator.updateWithNoteEntryStorage(*self.mNoteEntryStorage);
    });
    observe(storage.didChangeKeyEntriesSignal(),
            [](VellPlaybackController& self) { KeyChangeScope change(self, "songKeyTonicChord"); });
    observe(storage.didChangeTempoEntriesSignal(),
            [](VellPlaybackController& self) { KeyChangeScope change(self, "playbackTempo"); });
    observe(storage.didChangeTimeSignatureEntriesSignal(), [](VellPlaybackController& self) {
        KeyChangeScope change(self, "timeSignature");
        // Bars follow the time signature.
        self.mBeatLocator.updateWithNoteEntryStorage(*self.mNoteEntryStorage);
    });
}

void VellPlaybackController::announce(std::string_view key) const
{
    willChangeValueForKey(key);
    didChangeValueForKey(key);
}

template <class Call> void VellPlaybackController::tellDelegate(Call call)
{
    if (auto delegate = mDelegate.lock()) {
        call(*delegate, *this);
    }
}

// ---- Transport.

bool VellPlaybackController::shouldPrerollPlaybackWithActiveRegion() const
{
    return mMetronomeEnabled && (mCountInMode == 1 || mCountInMode == 2);
}

bool VellPlaybackController::shouldAlwaysPrerollPlayback() const
{
    return mMetronomeEnabled && mCountInMode == 2;
}

void VellPlaybackController::startFilePlaying()
{
    if (mTranscriptionCursorEnabled) {
        setCurrentFrame(mTranscriptionCursorFrame);
    }
    if (mActiveRegion) {
        const Frame location = mActiveRegion->location();
        const Frame length = mActiveRegion->length();
        if (mTranscriptionCursorEnabled) {
            if (mTranscriptionCursorFrame < location ||
                mTranscriptionCursorFrame - location >= length) {
                mTranscriptionCursorFrame = location;
            }
        } else if (shouldPrerollPlaybackWithActiveRegion()) {
            // A counted-in region always starts from its first frame.
            setCurrentFrame(location);
        }
        startFilePlayingWithLoop(true, mActiveRegion->range(),
                                 shouldPrerollPlaybackWithActiveRegion());
        return;
    }
    startFilePlayingWithLoop(false, VellFrameRange{}, shouldAlwaysPrerollPlayback());
}

bool VellPlaybackController::startFilePlayingWithLoop(bool loop, VellFrameRange range, bool preroll,
                                                      Error* outError)
{
    // A delegate may drop the last reference to this controller from inside its calls.
    const auto keepAlive = weak_from_this().lock();
    tellDelegate([](auto& d, auto& c) { d.playbackControllerWillBeginPlayingAudio(c); });

    mPlayer->setPreroll(preroll);
    if (preroll) {
        const Frame start = prerollStartForCurrentFrame();
        mPrerollDisplayFrame = start;
        mPlayer->setPrerollSampleStart(start);
        mPlayer->setPrerollLoopStart(currentFrame());
    } else {
        mPrerollDisplayFrame = kFrameNotFound;
    }
    mPlayer->setDelegate(weak_from_this());

    VellOutputAudioUnit& unit = mPlayer->outputAudioUnit();
    unit.setNoteEntryStorage(mNoteEntryStorage);
    unit.setMetronomeEnabled(mMetronomeEnabled);
    unit.setMetronomeInstrument(
        VellMetronomeInstrument::instrumentWithIdentifier(mMetronomeInstrument));
    unit.setMetronomeAccentsDownbeat(mMetronomeAccentsDownbeat);

    if (!loop || range.length == 0) {
        mPlayer->disableLooping();
    } else {
        mLoopEnabled = true;
        const auto location = static_cast<Frame>(range.location);
        const auto length = static_cast<Frame>(range.length);
        mPlayer->enableLoopingInRange(location, length);
        setLoopRange(range);
        // The end is inclusive on purpose: a player exactly at the loop's end stays there.
        const Frame frame = mPlayer->currentFrame();
        if (frame < location || frame > location + length) {
            mPlayer->setCurrentFrame(location);
        }
    }

    mPlayer->setPlaybackLevel(static_cast<float>(mPlaybackMuted ? 0.0 : mPlaybackVolume));
    mPlayer->setNoteEntryPlaybackLevel(
        static_cast<float>(mNoteEntryPlaybackMuted ? 0.0 : mNoteEntryPlaybackVolume));
    mPlayer->setPlaybackSpeed(mPlaybackSpeed);
    Error error;
    if (!mPlayer->startFilePlaying(&error)) {
        mPlayer->setDelegate({});
        mPrerollDisplayFrame = kFrameNotFound;
        logErrorLine(__FILE__, error.description());
        assignError(outError, std::move(error));
        return false;
    }
    mPaused = false;

    announce("playing");
    NotificationCenter::defaultCenter().post(PlaybackInfoPlaybackDidBeginNotification, this);
    tellDelegate([](auto& d, auto& c) { d.playbackControllerDidBeginPlayingAudio(c); });
    beginFrameUpdateTimer();
    return true;
}

void VellPlaybackController::startFileLoopingInRange(VellFrameRange range)
{
    if (isPlaying()) {
        return;
    }
    setCurrentFrame(static_cast<Frame>(range.location));
    startFilePlayingWithLoop(true, range, false);
}

void VellPlaybackController::startEntireFileLooping()
{
    startFilePlayingWithLoop(true, VellMakeFrameRange(0, static_cast<std::uint64_t>(mTotalFrames)),
                             shouldPrerollPlaybackWithActiveRegion());
}

void VellPlaybackController::startFileLoopingFromStart(bool fromStart)
{
    const auto region = nextActiveRegion();
    const VellFrameRange range = region ? region->range() : VellFrameRange{};
    if (fromStart && range.length != 0) {
        setCurrentFrame(static_cast<Frame>(range.location));
    }
    startFilePlayingWithLoop(true, range, shouldPrerollPlaybackWithActiveRegion());
}

void VellPlaybackController::pauseFilePlaying()
{
    mPlayer->stopFilePlaying();
    cancelFrameUpdateTimer();
    mPaused = true;
}

void VellPlaybackController::resumeFilePlaying()
{
    Error error;
    if (!mPlayer->startFilePlaying(&error)) {
        logErrorLine(__FILE__, error.description());
        return;
    }
    mPaused = false;
    beginFrameUpdateTimer();
}

void VellPlaybackController::stopFilePlaying()
{
    const auto keepAlive = weak_from_this().lock();
    mPlayer->setDelegate({});
    mPlayer->stopFilePlaying();
    mPaused = false;
    mPrerollDisplayFrame = kFrameNotFound;
    setLoopRange(VellFrameRange{});
    cancelFrameUpdateTimer();
    announce("playing");
    NotificationCenter::defaultCenter().post(PlaybackInfoPlaybackDidEndNotification, this);
    tellDelegate([](auto& d, auto& c) { d.playbackControllerDidStopPlayingAudio(c); });
}

void VellPlaybackController::audioFilePlayerDidReachEndOfFile(VellExtendedAudioFilePlayer&)
{
    stopFilePlaying();
}

bool VellPlaybackController::isPlaying() const
{
    return mPlayer->isPlaying();
}

bool VellPlaybackController::isLooping() const
{
    return mPlayer->isLooping();
}

Frame VellPlaybackController::prerollStartForCurrentFrame()
{
    VellPrerollController preroll(mNoteEntryStorage, valueForCountInDuration(mCountInDuration));
    return preroll.prepareCountInBefore(currentFrame());
}

// ---- Seeking, scrubbing and the freezer.

void VellPlaybackController::startFileSeeking()
{
    mSeeking = true;
}

void VellPlaybackController::stopFileSeeking()
{
    mSeeking = false;
}

void VellPlaybackController::startFileScrubbing()
{
    if (mScrubbing) {
        return;
    }
    if (isPlaying()) {
        mWasPlayingBeforeScrub = true;
        pauseFilePlaying();
    }
    startFileSeeking();
    mScrubbing = true;
    startAudioFreezer();
}

void VellPlaybackController::stopFileScrubbing()
{
    if (!mScrubbing) {
        return;
    }
    stopAudioFreezer();
    mScrubbing = false;
    stopFileSeeking();
    if (mWasPlayingBeforeScrub) {
        resumeFilePlaying();
        mWasPlayingBeforeScrub = false;
    }
}

void VellPlaybackController::startAudioFreezer()
{
    if (!mFreezer) {
        return;
    }
    mFreezer->takeSettingsFromTessalyInstance(mPlayer->tessalyInstance());
    mFreezer->setPitchShift(static_cast<float>(
        (static_cast<double>(transpositionInterval()) * 100 + pitchAdjustment()) / 100));
    mFreezer->setFrozenAudioFrame(currentFrame());
    mFreezer->startPlayback();
}

void VellPlaybackController::stopAudioFreezer()
{
    if (mFreezer) {
        mFreezer->stopPlayback();
    }
}

void VellPlaybackController::updateAudioFreezerPosition()
{
    if (mFreezer) {
        mFreezer->setFrozenAudioFrame(mCurrentFrame);
    }
}

bool VellPlaybackController::playheadCanScrubToFrame(Frame frame) const
{
    if (mPlayer->preroll()) {
        return false;
    }
    if (mActiveRegion) {
        const Frame location = mActiveRegion->location();
        return location <= frame && frame < mActiveRegion->endLocation();
    }
    return true;
}

// ---- Position and time.

Frame VellPlaybackController::currentFrame() const
{
    return mScrubbing ? mCurrentFrame : mPlayer->currentFrame();
}

void VellPlaybackController::setCurrentFrame(Frame frame)
{
    if (frame == mCurrentFrame) {
        return;
    }
    {
        KeyChangeScope change(*this, "currentFrame");
        mCurrentFrame = frame;
        if (!mPlayer) {
            return;
        }
        mPlayer->setCurrentFrame(frame);
    }
    if (mScrubbing) {
        updateAudioFreezerPosition();
    }
    const auto keepAlive = weak_from_this().lock();
    tellDelegate([](auto& d, auto& c) { d.playbackControllerDidUpdateCurrentFrame(c); });
}

Frame VellPlaybackController::cursorFrame() const
{
    return mTranscriptionCursorEnabled ? mTranscriptionCursorFrame : currentFrame();
}

void VellPlaybackController::offsetCurrentFrame(Frame delta)
{
    Frame target = 0;
    if (__builtin_add_overflow(mPlayer->currentFrame(), delta, &target)) {
        target = delta < 0 ? 0 : mTotalFrames - 1;
    }
    mPlayer->setCurrentFrame(target);
}

void VellPlaybackController::seekToTime(double seconds)
{
    if (!std::isfinite(seconds)) {
        return;
    }
    const Frame frame = saturatedFrame(static_cast<double>(sampleRate()) * seconds);
    setCurrentFrame(std::min(mTotalFrames - 1, frame));
}

void VellPlaybackController::seekToFrame(Frame frame)
{
    const Frame target = std::min(mTotalFrames - 1, frame);
    if (mTranscriptionCursorEnabled) {
        mTranscriptionCursorFrame = target;
    }
    setCurrentFrame(target);
}

void VellPlaybackController::seekToBeginning()
{
    seekToFrame(0);
}

void VellPlaybackController::seekToEnd()
{
    seekToFrame(mTotalFrames - 1);
}

double VellPlaybackController::currentTime() const
{
    return static_cast<double>(currentFrame()) * mPlayer->millisecondsPerFrame();
}

void VellPlaybackController::setCurrentTime(double milliseconds)
{
    if (!std::isfinite(milliseconds)) {
        return;
    }
    mPlayer->setCurrentTime(milliseconds);
    setCurrentFrame(mPlayer->currentFrame());
}

double VellPlaybackController::totalTime() const
{
    return static_cast<double>(mTotalFrames) * mPlayer->millisecondsPerFrame();
}

double VellPlaybackController::remainingTime() const
{
    return totalTime() - currentTime();
}

double VellPlaybackController::position() const
{
    return static_cast<double>(currentFrame()) / static_cast<double>(mTotalFrames);
}

long long VellPlaybackController::sampleRate() const
{
    return mPlayer->sampleRate();
}

std::uint64_t VellPlaybackController::channelCount() const
{
    return mPlayer->channelCount();
}

Frame VellPlaybackController::stepAllowance() const
{
    return isPlaying()
               ? static_cast<Frame>(static_cast<double>(sampleRate()) * kStepAllowanceSeconds)
               : 0;
}

// ---- Levels.

void VellPlaybackController::setPlaybackVolume(double volume)
{
    const auto checked = checkedVolume(volume);
    if (!checked || *checked == mPlaybackVolume) {
        return;
    }
    mPlaybackVolume = *checked;
    UserDefaults::standard()->setDouble(mPlaybackVolume, kVellPlaybackVolumeDefaultsKey);
    updatePlaybackLevel();
}

void VellPlaybackController::setNoteEntryPlaybackVolume(double volume)
{
    const auto checked = checkedVolume(volume);
    if (!checked || *checked == mNoteEntryPlaybackVolume) {
        return;
    }
    mNoteEntryPlaybackVolume = *checked;
    updateNoteEntryPlaybackLevel();
}

void VellPlaybackController::setMetronomePlaybackVolume(double volume)
{
    const auto checked = checkedVolume(volume);
    if (!checked || *checked == mMetronomePlaybackVolume) {
        return;
    }
    mMetronomePlaybackVolume = *checked;
    updateMetronomePlaybackLevel();
}

void VellPlaybackController::updatePlaybackLevel()
{
    const double level = mPlaybackMuted ? 0.0 : mPlaybackVolume;
    mPlayer->setPlaybackLevel(static_cast<float>(level));
    if (mFreezer) {
        mFreezer->setOutputVolume(static_cast<float>(level));
    }
}

void VellPlaybackController::toggleMutePlayback()
{
    mPlaybackMuted = !mPlaybackMuted;
    updatePlaybackLevel();
}

void VellPlaybackController::toggleMuteNoteEntryPlayback()
{
    mNoteEntryPlaybackMuted = !mNoteEntryPlaybackMuted;
    updateNoteEntryPlaybackLevel();
}

// ---- Pitch and speed.

double VellPlaybackController::pitchAdjustment() const
{
    return mPlayer->pitchAdjustment();
}

void VellPlaybackController::setPitchAdjustment(double cents)
{
    if (!std::isfinite(cents) || cents == pitchAdjustment()) {
        return;
    }
    KeyChangeScope change(*this, "pitchAdjustment");
    mPlayer->setPitchAdjustment(cents);
}

long long VellPlaybackController::transpositionInterval() const
{
    return mPlayer->transpositionInterval();
}

void VellPlaybackController::setTranspositionInterval(long long semitones)
{
    if (semitones == transpositionInterval()) {
        return;
    }
    KeyChangeScope change(*this, "transpositionInterval");
    mPlayer->setTranspositionInterval(semitones);
}

double VellPlaybackController::combinedPitchAdjustment() const
{
    return pitchAdjustment() / 100 + static_cast<double>(transpositionInterval());
}

void VellPlaybackController::setCombinedPitchAdjustment(double semitones)
{
    if (!std::isfinite(semitones)) {
        return;
    }
    const double limit = 2.0 * VellExtendedAudioFilePlayer::kMaximumTranspositionSemitones;
    const double clamped = std::clamp(semitones, -limit, limit);
    const double whole = std::rint(clamped);
    setTranspositionInterval(static_cast<long long>(whole));
    setPitchAdjustment(std::rint((clamped - whole) * 100));
}

void VellPlaybackController::setPlaybackSpeed(double speed)
{
    if (!std::isfinite(speed) || speed == 0 || speed == mPlaybackSpeed) {
        return;
    }
    const double magnitude =
        std::clamp(std::fabs(speed), VellExtendedAudioFilePlayer::kMinimumPlaybackRate,
                   VellExtendedAudioFilePlayer::kMaximumPlaybackRate);
    KeyChangeScope change(*this, "playbackSpeed");
    mPlaybackSpeed = std::copysign(magnitude, speed);
    mPlayer->setPlaybackSpeed(mPlaybackSpeed);
}

double VellPlaybackController::playbackTempo() const
{
    const auto& tempos = mNoteEntryStorage->tempoEntries();
    return tempos.empty() ? 0.0 : static_cast<double>(tempos.front()->tempo()) * mPlaybackSpeed;
}

// ---- Metronome and count-in.

void VellPlaybackController::setMetronomeEnabled(bool enabled)
{
    if (enabled == mMetronomeEnabled) {
        return;
    }
    mMetronomeEnabled = enabled;
    mPlayer->outputAudioUnit().setMetronomeEnabled(enabled);
    UserDefaults::standard()->setBool(enabled, "metronomeEnabled");
}

void VellPlaybackController::setMetronomeAccentsDownbeat(bool accents)
{
    if (accents == mMetronomeAccentsDownbeat) {
        return;
    }
    mMetronomeAccentsDownbeat = accents;
    mPlayer->outputAudioUnit().setMetronomeAccentsDownbeat(accents);
    UserDefaults::standard()->setBool(accents, "metronomeAccentsDownbeat");
}

void VellPlaybackController::setMetronomeInstrumentIdentifier(long long identifier)
{
    if (identifier == mMetronomeInstrument) {
        return;
    }
    mMetronomeInstrument = identifier;
    mPlayer->outputAudioUnit().setMetronomeInstrument(
        VellMetronomeInstrument::instrumentWithIdentifier(identifier));
    UserDefaults::standard()->setInteger(identifier, "metronomeInstrumentIdentifier");
}

void VellPlaybackController::setCountInMode(long long mode)
{
    mode = std::clamp(mode, 0LL, 2LL);
    if (mode == mCountInMode) {
        return;
    }
    mCountInMode = mode;
    UserDefaults::standard()->setInteger(mode, "countInMode");
}

void VellPlaybackController::setCountInDuration(long long duration)
{
    duration = std::clamp(duration, 0LL, 2LL);
    if (duration == mCountInDuration) {
        return;
    }
    mCountInDuration = duration;
    UserDefaults::standard()->setInteger(duration, "countInDuration");
}

void VellPlaybackController::setLoopRange(VellFrameRange range)
{
    if (range == mLoopRange) {
        return;
    }
    mLoopRange = range;
    constexpr auto kMax = static_cast<std::uint64_t>(std::numeric_limits<Frame>::max());
    mPlayer->enableLoopingInRange(static_cast<Frame>(std::min(range.location, kMax)),
                                  static_cast<Frame>(std::min(range.length, kMax)));
}

// ---- Isolation.

TessalySettingsController& VellPlaybackController::tessalySettingsController()
{
    if (!mTessalySettingsController) {
        mTessalySettingsController =
            std::make_unique<TessalySettingsController>(mPlayer->tessalyInstance());
    }
    return *mTessalySettingsController;
}

bool VellPlaybackController::loadTessalySettingsFromJSONData(std::string_view json,
                                                             std::string* outReason)
{
    return tessalySettingsController().loadSettingsFromJSONData(json, outReason);
}

std::optional<std::string> VellPlaybackController::tessalySettingsJSONData() const
{
    return const_cast<VellPlaybackController*>(this)
        ->tessalySettingsController()
        .JSONSettingsData();
}

// ---- Frame update timer, notifications and device changes.

void VellPlaybackController::beginFrameUpdateTimer()
{
    std::weak_ptr<VellPlaybackController> weak = weak_from_this();
    mFrameUpdateTimer = std::make_unique<Timer>([weak] {
        if (auto self = weak.lock()) {
            self->setStoredCurrentFrameFromPlayer();
        }
    });
    mFrameUpdateTimer->timer.start();
}

void VellPlaybackController::cancelFrameUpdateTimer()
{
    if (mFrameUpdateTimer) {
        mFrameUpdateTimer->timer.stop();
    }
}

bool VellPlaybackController::isFrameUpdateTimerRunning() const
{
    return mFrameUpdateTimer && mFrameUpdateTimer->timer.isRunning();
}

void VellPlaybackController::setStoredCurrentFrameFromPlayer()
{
    KeyChangeScope change(*this, "currentFrame");
    mCurrentFrame = mPlayer->currentFrame();
}

void VellPlaybackController::notifyDidExecuteMovementCommand()
{
    NotificationCenter::defaultCenter().post(
        VellPlaybackControllerDidExecuteMovementCommandNotification, this);
}

void VellPlaybackController::defaultOutputDeviceDidChange()
{
    if (isPlaying()) {
        stopFilePlaying();
    }
    if (mFreezer && mFreezer->isPlaying()) {
        mFreezer->stopPlayback();
    }
    mFreezer = VellAudioFreezer::create(mPlayer->audioFile());
    if (!mFreezer) {
        logErrorLine(__FILE__,
                     "ERROR: Failed to re-create the VellAudioFreezer object on device change");
    }
}

VellSpectrumData& VellPlaybackController::spectrumManager() const
{
    return mPlayer->outputAudioUnit().spectrumData();
}

} // namespace vell
