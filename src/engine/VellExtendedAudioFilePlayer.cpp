// The file player: transport, position and its display, looping, speed, levels and export over
// the output unit and the prefetching reader.
#include "VellAudio/VellExtendedAudioFilePlayer.h"

#include "VellAudio/NSXError.h"
#include "audio/reader/BRIXAudioFileReader.h"
#include "engine/VellOutputAudioUnit.h"
#include "platform/MainQueue.h"
#include "support/Log.h"

#include <algorithm>
#include <cmath>
#include <system_error>

namespace vell {

namespace detail {

/// Receives the output unit's export progress on the exporting thread and hands it to the
/// main queue.
class VellPlayerProgressRelay final : public VellOutputAudioUnitDelegate {
public:
    explicit VellPlayerProgressRelay(std::weak_ptr<VellExtendedAudioFilePlayer*> player)
        : mPlayer(std::move(player))
    {
    }

    void outputAudioUnitDidUpdateProgress(VellOutputAudioUnit&, double progress) override
    {
        MainQueue::main().async([player = mPlayer, progress] {
            if (auto self = player.lock(); self && *self) {
                if (auto delegate = (*self)->delegate().lock()) {
                    delegate->audioFilePlayerDidUpdateExportProgress(**self, progress);
                }
            }
        });
    }

private:
    std::weak_ptr<VellExtendedAudioFilePlayer*> mPlayer;
};

} // namespace detail

namespace {

constexpr std::uint32_t kReaderBufferCount = 5;
constexpr std::uint32_t kReaderFramesPerBuffer = 16384;

/// The mixer's volume range.
float clampLevel(float level, float fallback)
{
    return std::isfinite(level) ? std::clamp(level, 0.0f, 2.0f) : fallback;
}

} // namespace

std::unique_ptr<VellExtendedAudioFilePlayer>
VellExtendedAudioFilePlayer::create(std::shared_ptr<BRIXExtendedAudioFile> audioFile,
                                    Error* outError)
{
    if (!audioFile || audioFile->frameCount() <= 0) {
        assignError(outError, makeUserError("Bad Audio File",
                                            "There was an error while loading the audio file."));
        return nullptr;
    }
    std::unique_ptr<VellExtendedAudioFilePlayer> player(
        new VellExtendedAudioFilePlayer(std::move(audioFile)));
    if (!player->setUp(outError)) {
        return nullptr;
    }
    return player;
}

VellExtendedAudioFilePlayer::VellExtendedAudioFilePlayer(
    std::shared_ptr<BRIXExtendedAudioFile> audioFile)
    : mAudioFile(std::move(audioFile)), mSelf(std::make_shared<VellExtendedAudioFilePlayer*>(this))
{
}

bool VellExtendedAudioFilePlayer::setUp(Error* outError)
{
    const AudioStreamBasicDescription format = mAudioFile->clientFormat();
    try {
        mOutputAudioUnit = std::make_unique<VellOutputAudioUnit>(format);
    } catch (const NSXException& exception) {
        assignError(outError, exception.error());
        return false;
    } catch (const std::exception& exception) {
        assignError(outError,
                    makeUserError("The audio engine could not be started.", exception.what()));
        return false;
    }
    mProgressRelay = std::make_unique<detail::VellPlayerProgressRelay>(mSelf);
    mOutputAudioUnit->setDelegate(mProgressRelay.get());

    mFileReader = BRIXAudioFileReader::create(kReaderBufferCount, kReaderFramesPerBuffer, format);
    if (!mFileReader) {
        assignError(outError, makeUserError("Bad Audio File",
                                            "There was an error while loading the audio file."));
        return false;
    }
    mFileReader->setAudioFile(mAudioFile);
    mOutputAudioUnit->setFileReader(mFileReader.get());

    std::weak_ptr<VellExtendedAudioFilePlayer*> weakSelf = mSelf;
    mOutputAudioUnit->setEndOfStreamNotificationBlock([weakSelf] {
        MainQueue::main().async([weakSelf] {
            if (auto self = weakSelf.lock(); self && *self) {
                (*self)->mOutputAudioUnit->stop();
                // Last: the delegate may destroy the player.
                (*self)->notifyDelegateOfEOF();
            }
        });
    });
    return true;
}

VellExtendedAudioFilePlayer::~VellExtendedAudioFilePlayer()
{
    // A main-queue task in progress may still hold the handle: it must see the player gone.
    *mSelf = nullptr;
    mSelf.reset();
    endOfflineRendering();
    if (mOutputAudioUnit) {
        mOutputAudioUnit->stop();
    }
    if (mFileReader) {
        mFileReader->stop();
    }
    // The unit renders from the reader: it goes first.
    mOutputAudioUnit.reset();
    mFileReader.reset();
}

void VellExtendedAudioFilePlayer::setDelegate(
    std::weak_ptr<VellExtendedAudioFilePlayerDelegate> delegate)
{
    _delegate = std::move(delegate);
}

// ---- Transport ----------------------------------------------------------------------------------

bool VellExtendedAudioFilePlayer::startFilePlaying(Error* outError)
{
    mDone = false;
    mCrossedPlaybackStart = false;
    mPlaybackStartFrame = mCurrentFrame;
    const Frame readerStart = setReaderWithLeadIn(mCurrentFrame);
    mFileReader->start();
    mOutputAudioUnit->setCurrentTrackedReadFrame(readerStart);
    bool started = false;
    try {
        started = mOutputAudioUnit->start();
    } catch (const NSXException& exception) {
        assignError(outError, exception.error());
        mFileReader->stop();
        return false;
    }
    if (!started) {
        mFileReader->stop();
        assignError(outError, makeUserError("The audio could not be played.",
                                            "The output device did not start."));
    }
    return started;
}

Frame VellExtendedAudioFilePlayer::setReaderWithLeadIn(Frame frame)
{
    // After a count-in the music comes in on a beat: its first transient must sound on time,
    // which from a fresh start it does not (the stretcher is still starting up there). The
    // lead-in is long enough for the analysis to reach back over a window of audio at
    // every level and sample rate.
    if (!preroll()) {
        mFileReader->setCurrentFrame(frame);
        mOutputAudioUnit->setLeadInFrames(0);
        return frame;
    }
    constexpr Frame kLeadInFramesAt44k = 8192;
    const Frame leadIn = mOutputAudioUnit->leadInFramesFor(
        std::min<Frame>(kLeadInFramesAt44k * sampleRate() / 44100, 1 << 16));
    const bool reverse = mOutputAudioUnit->isReverse();
    frame = std::clamp<Frame>(frame, 0, std::max<Frame>(totalFrames() - 1, 0));
    if (isLooping()) {
        // A looping reader never leaves its loop. Within it, the music before the start frame
        // is what the reader plays there anyway: read back from the start frame, wrapping
        // from the loop's start to its end, so that a start on the loop's first frame (a
        // count-in into a region) gets the loop's tail, as every later pass does.
        const auto [location, length] = loopRange();
        const Frame first = std::clamp<Frame>(location, 0, totalFrames());
        const Frame end = length > totalFrames() - first
                              ? totalFrames()
                              : std::clamp<Frame>(location + length, first, totalFrames());
        if (frame >= first && frame < end) {
            const Frame loopLength = end - first;
            const Frame lead = leadIn <= loopLength ? leadIn : 0;
            // Frames into the loop in reading order, and where the lead-in starts.
            const Frame into = reverse ? end - 1 - frame : frame - first;
            const Frame wrapped = (into - lead + loopLength) % loopLength;
            const Frame readerStart = reverse ? end - 1 - wrapped : first + wrapped;
            mFileReader->setCurrentFrame(readerStart);
            mOutputAudioUnit->setLeadInFrames(lead);
            return readerStart;
        }
    }
    // Near the file's edge the lead-in runs on past it, as silence.
    const Frame room = reverse ? totalFrames() - 1 - frame : frame;
    const Frame fromFile = std::min(leadIn, room);
    mFileReader->setCurrentFrame(reverse ? frame + fromFile : frame - fromFile);
    mOutputAudioUnit->setLeadInFrames(leadIn, leadIn - fromFile);
    return reverse ? frame + leadIn : frame - leadIn;
}

void VellExtendedAudioFilePlayer::stopFilePlaying()
{
    mOutputAudioUnit->stop();
    mFileReader->stop();
}

bool VellExtendedAudioFilePlayer::isPlaying() const
{
    try {
        return mOutputAudioUnit->isRunning();
    } catch (const NSXException&) {
        return false;
    }
}

bool VellExtendedAudioFilePlayer::isRunning() const
{
    return mFileReader->running();
}

// ---- Position -----------------------------------------------------------------------------------

void VellExtendedAudioFilePlayer::resetPlaybackStart(Frame frame)
{
    mCrossedPlaybackStart = false;
    mPlaybackStartFrame = frame;
    mOutputAudioUnit->setCurrentTrackedReadFrame(frame);
}

void VellExtendedAudioFilePlayer::setCurrentFrame(Frame frame)
{
    frame = std::clamp<Frame>(frame, 0, std::max<Frame>(totalFrames() - 1, 0));
    mCurrentFrame = frame;
    if (mFileReader->running()) {
        mFileReader->setCurrentFrame(frame);
        resetPlaybackStart(frame);
    }
}

void VellExtendedAudioFilePlayer::setCurrentTime(double milliseconds)
{
    if (!std::isfinite(milliseconds)) {
        return;
    }
    const double frame = std::floor(milliseconds / 1000.0 * double(sampleRate()));
    setCurrentFrame(Frame(std::clamp(frame, -1.0, double(totalFrames()))));
}

Frame VellExtendedAudioFilePlayer::currentFrame()
{
    if (!mFileReader->running()) {
        return std::max<Frame>(mCurrentFrame, 0);
    }
    // Past the end of the file the engine plays out silence; the frame stops at the end.
    const Frame f =
        std::min(mOutputAudioUnit->currentTrackedReadFrame() - mOutputLatencyFrames, totalFrames());
    mCurrentFrame = f;
    // Until the heard frame passes the start frame the display holds on it, which hides the
    // engine's latency at a start and after a seek. Backwards, passing means going below it.
    const bool reverse = mOutputAudioUnit->isReverse();
    const bool passed = reverse ? f < mPlaybackStartFrame : f > mPlaybackStartFrame;
    if (passed) {
        mCrossedPlaybackStart = true;
    } else if (!mCrossedPlaybackStart) {
        if (f != mPlaybackStartFrame) {
            mCurrentFrame = mPlaybackStartFrame;
        }
        return std::max<Frame>(mCurrentFrame, 0);
    }
    if (isLooping()) {
        const auto [location, length] = loopRange();
        mCurrentFrame = currentFrameClippedToLoopRange(mCurrentFrame, location, length);
    }
    return std::max<Frame>(mCurrentFrame, 0);
}

Frame VellExtendedAudioFilePlayer::currentFrameClippedToLoopRange(Frame frame, Frame location,
                                                                  Frame length)
{
    if (location + length <= frame) {
        return frame - length; // one loop length back, not a modulo
    }
    if (location > frame) {
        return frame + length + 1; // deliberate: one past a whole loop length
    }
    return frame;
}

Frame VellExtendedAudioFilePlayer::totalFrames() const
{
    return mAudioFile->frameCount();
}

long VellExtendedAudioFilePlayer::sampleRate() const
{
    return long(mAudioFile->sampleRate());
}

double VellExtendedAudioFilePlayer::millisecondsPerFrame() const
{
    return 1.0 / double(sampleRate()) * 1000.0;
}

double VellExtendedAudioFilePlayer::maxTime() const
{
    return double(mAudioFile->frameCount()) / mAudioFile->sampleRate() * 1000.0;
}

std::uint32_t VellExtendedAudioFilePlayer::channelCount() const
{
    return mAudioFile->channelCount();
}

// ---- Looping ------------------------------------------------------------------------------------

void VellExtendedAudioFilePlayer::enableLoopingInRange(Frame location, Frame length)
{
    if (!isPlaying()) {
        mFileReader->enableLoopingInRange(location, length);
        return;
    }
    const Frame frame = currentFrame();
    mFileReader->enableLoopingInRange(location, length);
    if (frame >= location && frame < location + length) {
        return;
    }
    resetPlaybackStart(location);
}

void VellExtendedAudioFilePlayer::disableLooping()
{
    mFileReader->disableLooping();
}

bool VellExtendedAudioFilePlayer::isLooping() const
{
    return mFileReader->isLooping();
}

std::pair<Frame, Frame> VellExtendedAudioFilePlayer::loopRange() const
{
    const auto range = mFileReader->loopRange();
    return {range.location, range.length};
}

// ---- Speed and pitch ----------------------------------------------------------------------------

void VellExtendedAudioFilePlayer::setPlaybackSpeed(double speed)
{
    if (!std::isfinite(speed) || speed == 0) {
        return; // zero, negative zero, NaN and infinities keep the current speed
    }
    const bool reverse = speed < 0;
    const bool turned = reverse != mOutputAudioUnit->isReverse();
    const Frame heard = turned && mFileReader->running() ? currentFrame() : 0;
    mFileReader->setReverse(reverse);
    mOutputAudioUnit->setReverse(reverse);
    mOutputAudioUnit->setPlaybackRate(std::abs(speed));
    if (turned && mFileReader->running()) {
        // The stretcher holds audio read in the old direction: start again from what is heard.
        setCurrentFrame(heard);
    }
}

double VellExtendedAudioFilePlayer::playbackSpeed() const
{
    return mOutputAudioUnit->playbackRate();
}

bool VellExtendedAudioFilePlayer::isReverse() const
{
    return mOutputAudioUnit->isReverse();
}

void VellExtendedAudioFilePlayer::setTranspositionInterval(long long semitones)
{
    mOutputAudioUnit->setTranspositionInterval(semitones);
}

long long VellExtendedAudioFilePlayer::transpositionInterval() const
{
    return mOutputAudioUnit->transpositionInterval();
}

void VellExtendedAudioFilePlayer::setPitchAdjustment(double cents)
{
    mOutputAudioUnit->setPitchAdjustment(cents);
}

double VellExtendedAudioFilePlayer::pitchAdjustment() const
{
    return mOutputAudioUnit->pitchAdjustment();
}

// ---- Levels -------------------------------------------------------------------------------------

void VellExtendedAudioFilePlayer::setPlaybackVolume(double decibels)
{
    if (std::isnan(decibels)) {
        return;
    }
    setPlaybackLevel(float(std::pow(10.0, std::min(decibels, 6.0) / 20.0)));
}

void VellExtendedAudioFilePlayer::setPlaybackLevel(float level)
{
    mOutputAudioUnit->setPlaybackLevel(clampLevel(level, 1.0f));
}

void VellExtendedAudioFilePlayer::setNoteEntryPlaybackLevel(float level)
{
    mOutputAudioUnit->setNoteEntryPlaybackLevel(
        clampLevel(level, mOutputAudioUnit->noteEntryPlaybackLevel()));
}

float VellExtendedAudioFilePlayer::noteEntryPlaybackLevel() const
{
    return mOutputAudioUnit->noteEntryPlaybackLevel();
}

void VellExtendedAudioFilePlayer::setMetronomePlaybackLevel(float level)
{
    mOutputAudioUnit->setMetronomePlaybackLevel(
        clampLevel(level, mOutputAudioUnit->metronomePlaybackLevel()));
}

float VellExtendedAudioFilePlayer::metronomePlaybackLevel() const
{
    return mOutputAudioUnit->metronomePlaybackLevel();
}

// ---- Metronome, notes, count-in, isolation ------------------------------------------------------

void VellExtendedAudioFilePlayer::setNoteEntryStorage(std::shared_ptr<VellNoteEntryStorage> storage)
{
    mOutputAudioUnit->setNoteEntryStorage(std::move(storage));
}

void VellExtendedAudioFilePlayer::setMetronomeEnabled(bool enabled)
{
    mOutputAudioUnit->setMetronomeEnabled(enabled);
}

bool VellExtendedAudioFilePlayer::isMetronomeEnabled() const
{
    return mOutputAudioUnit->isMetronomeEnabled();
}

void VellExtendedAudioFilePlayer::setMetronomeInstrument(const VellMetronomeInstrument& instrument)
{
    mOutputAudioUnit->setMetronomeInstrument(instrument);
}

void VellExtendedAudioFilePlayer::setMetronomeAccentsDownbeat(bool accents)
{
    mOutputAudioUnit->setMetronomeAccentsDownbeat(accents);
}

bool VellExtendedAudioFilePlayer::preroll() const
{
    return mOutputAudioUnit->preroll();
}

void VellExtendedAudioFilePlayer::setPreroll(bool preroll)
{
    mOutputAudioUnit->setPreroll(preroll);
}

Frame VellExtendedAudioFilePlayer::prerollSampleStart() const
{
    return mOutputAudioUnit->prerollSampleStart();
}

void VellExtendedAudioFilePlayer::setPrerollSampleStart(Frame frame)
{
    mOutputAudioUnit->setPrerollSampleStart(frame);
}

Frame VellExtendedAudioFilePlayer::prerollLoopStart() const
{
    return mOutputAudioUnit->prerollLoopStart();
}

void VellExtendedAudioFilePlayer::setPrerollLoopStart(Frame frame)
{
    mOutputAudioUnit->setPrerollLoopStart(frame);
}

TessalyInstance* VellExtendedAudioFilePlayer::tessalyInstance() const
{
    return mOutputAudioUnit->tessalyInstance();
}

long long VellExtendedAudioFilePlayer::processingLatency() const
{
    return mOutputAudioUnit->processingLatency();
}

// ---- Export -------------------------------------------------------------------------------------

bool VellExtendedAudioFilePlayer::writeSamplesInRange(Frame location, Frame length,
                                                      const std::filesystem::path& path,
                                                      Error* outError)
{
    constexpr std::string_view kFailed = "The audio could not be exported.";
    if (!VellOutputAudioUnit::isSupportedExportPath(path)) {
        assignError(outError, makeUserError(kFailed, "The file name must end in .wav, .aif, "
                                                     ".aiff or .m4a."));
        return false;
    }
    std::error_code ec;
    if (std::filesystem::equivalent(path, mAudioFile->path(), ec)) {
        assignError(outError, makeUserError(kFailed, "The export would replace the song itself."));
        return false;
    }
    if (isPlaying()) {
        assignError(outError, makeUserError(kFailed, "Playback must be stopped first."));
        return false;
    }
    location = std::clamp<Frame>(location, 0, totalFrames());
    if (length <= 0 || length > Frame(UINT32_MAX)) {
        assignError(outError, makeUserError(kFailed, "The range to export is empty or too long."));
        return false;
    }

    // Backwards the range is read from its last frame down.
    const bool reverse = mOutputAudioUnit->isReverse();
    const Frame first = reverse ? std::min(location + length, totalFrames()) - 1 : location;
    // A count-in plays before the range, as long as the file frames it walks over.
    const Frame countIn = preroll() && !reverse ? std::max<Frame>(0, first - prerollSampleStart())
                                                : 0;
    if (countIn > Frame(UINT32_MAX) - length) {
        assignError(outError, makeUserError(kFailed, "The count-in is too long."));
        return false;
    }
    mDone = false;
    setReaderWithLeadIn(first);
    mFileReader->setWaitsForData(true);
    mFileReader->start();
    bool written = false;
    Error failure;
    try {
        written = mOutputAudioUnit->writeSamples(std::uint32_t(length + countIn), path);
    } catch (const NSXException& exception) {
        failure = exception.error();
    } catch (const std::exception& exception) {
        failure = makeUserError(kFailed, exception.what());
    }
    mFileReader->stop();
    mFileReader->setWaitsForData(false);
    if (!failure.domain().empty()) {
        // What was written is incomplete: do not leave it looking like a finished export.
        std::filesystem::remove(path, ec);
        VELL_LOG_ERROR(failure.description());
        assignError(outError, makeUserError(kFailed, "Writing the file failed (the disk may be "
                                                     "full or the file too large)."));
        return false;
    }
    if (!written) {
        assignError(outError, makeUserError(kFailed, "The file type is not supported."));
        return false;
    }
    if (mExportFinisher) {
        mExportFinisher(path);
    }
    return true;
}

bool VellExtendedAudioFilePlayer::beginOfflineRendering(std::uint32_t maximumFrames,
                                                        Error* outError, bool readerWaits)
{
    if (isPlaying() || mOfflineOutputUnit != nullptr || maximumFrames == 0) {
        assignError(outError, makeUserError("The audio could not be rendered.",
                                            "Playback must be stopped first."));
        return false;
    }
    setReaderWithLeadIn(mCurrentFrame);
    mFileReader->setWaitsForData(readerWaits);
    mFileReader->start();
    try {
        mOfflineOutputUnit =
            mOutputAudioUnit->beginOfflineRendering(mAudioFile->sampleRate(), maximumFrames);
    } catch (const NSXException& exception) {
        mOutputAudioUnit->endOfflineRendering();
        mFileReader->stop();
        mFileReader->setWaitsForData(false);
        assignError(outError, exception.error());
        return false;
    }
    mOfflineSampleTime = 0;
    mCrossedPlaybackStart = false;
    mPlaybackStartFrame = mCurrentFrame;
    return true;
}

bool VellExtendedAudioFilePlayer::renderOffline(float* const* channels, std::uint32_t frames)
{
    auto* unit = static_cast<AudioUnit>(mOfflineOutputUnit);
    if (unit == nullptr || channels == nullptr) {
        return false;
    }
    AudioBufferList list;
    list.mNumberBuffers = std::min<std::uint32_t>(channelCount(), AudioBufferList::kMaxBuffers);
    for (std::uint32_t c = 0; c < list.mNumberBuffers; ++c) {
        list.mBuffers[c] = {1, frames * std::uint32_t(sizeof(float)), channels[c]};
    }
    AudioTimeStamp timeStamp;
    timeStamp.mFlags = kAudioTimeStampSampleTimeValid;
    timeStamp.mSampleTime = mOfflineSampleTime;
    AudioUnitRenderActionFlags flags = 0;
    const OSStatus status = AudioUnitRender(unit, &flags, &timeStamp, 0, frames, &list);
    mOfflineSampleTime += frames;
    return status == noErr;
}

void VellExtendedAudioFilePlayer::endOfflineRendering()
{
    if (mOfflineOutputUnit == nullptr) {
        return;
    }
    mOfflineOutputUnit = nullptr;
    mOutputAudioUnit->endOfflineRendering();
    mFileReader->stop();
    mFileReader->setWaitsForData(false);
}

void VellExtendedAudioFilePlayer::cancelWriteToFile()
{
    mOutputAudioUnit->cancelWriteToFile();
}

// ---- Delegate -----------------------------------------------------------------------------------

void VellExtendedAudioFilePlayer::notifyDelegateOfEOF()
{
    mDone = true;
    if (auto delegate = _delegate.lock()) {
        delegate->audioFilePlayerDidReachEndOfFile(*this);
    }
}

void VellExtendedAudioFilePlayer::notifyDelegateOfFrameUpdate()
{
    if (auto delegate = _delegate.lock()) {
        delegate->audioFilePlayerDidReadAudioFrames(*this);
    }
}

void VellExtendedAudioFilePlayer::notifyDelegateOfExportProgress(double progress)
{
    if (auto delegate = _delegate.lock()) {
        delegate->audioFilePlayerDidUpdateExportProgress(*this, progress);
    }
}

} // namespace vell
