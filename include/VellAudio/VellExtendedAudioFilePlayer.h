// Plays one audio file through the engine: transport, looping, speed, pitch and levels, the
// metronome and note playback, the count-in, isolation, and export of the processed audio.
#pragma once

#include <VellAudio/BRIXExtendedAudioFile.h>
#include <VellAudio/Error.h>
#include <VellAudio/TessalyCore.h>
#include <VellAudio/Types.h>
#include <VellAudio/VellMetronomeInstrument.h>
#include <VellAudio/VellNoteEntryStorage.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>

namespace vell {

class BRIXAudioFileReader;
class VellOutputAudioUnit;
namespace detail {
class VellPlayerProgressRelay;
}
class VellExtendedAudioFilePlayer;

/// What a player tells its owner. Every message arrives on the main queue.
class VellExtendedAudioFilePlayerDelegate {
public:
    virtual ~VellExtendedAudioFilePlayerDelegate() = default;
    /// Playback passed the end of the file (the player has stopped its output).
    virtual void audioFilePlayerDidReachEndOfFile(VellExtendedAudioFilePlayer& /*player*/) {}
    /// The current frame moved (sent by hosts that poll `currentFrame`).
    virtual void audioFilePlayerDidReadAudioFrames(VellExtendedAudioFilePlayer& /*player*/) {}
    /// An export advanced; progress runs from 0 to 1 (the last report may pass 1 slightly).
    virtual void audioFilePlayerDidUpdateExportProgress(VellExtendedAudioFilePlayer& /*player*/,
                                                        double /*progress*/)
    {
    }
};

/// Plays one file.
///
/// Speed: `setPlaybackSpeed` takes file seconds per second of output; a negative speed plays
/// backwards. The magnitude is clamped to [kMinimumPlaybackRate, kMaximumPlaybackRate]; zero,
/// NaN and infinities are ignored (the rate stays as it was). Pitch: the transposition in
/// semitones is clamped to +-kMaximumTranspositionSemitones and the adjustment in cents to
/// +-kMaximumPitchAdjustmentCents; together they are limited to two octaves either way.
///
/// Thread: main for every member, except where noted. Rendering runs on the audio device's
/// thread, or on the caller's thread during an export.
class VellExtendedAudioFilePlayer {
public:
    static constexpr double kMinimumPlaybackRate = 0.125;
    static constexpr double kMaximumPlaybackRate = 8.0;
    static constexpr long long kMaximumTranspositionSemitones = 24;
    static constexpr double kMaximumPitchAdjustmentCents = 2400.0;

    /// A player for an open file, on the default output device. Null with *outError filled
    /// when the engine cannot be built for the file (no device stream is opened until start).
    static std::unique_ptr<VellExtendedAudioFilePlayer>
    create(std::shared_ptr<BRIXExtendedAudioFile> audioFile, Error* outError = nullptr);
    ~VellExtendedAudioFilePlayer();
    VellExtendedAudioFilePlayer(const VellExtendedAudioFilePlayer&) = delete;
    VellExtendedAudioFilePlayer& operator=(const VellExtendedAudioFilePlayer&) = delete;

    const std::shared_ptr<BRIXExtendedAudioFile>& audioFile() const noexcept { return mAudioFile; }
    VellOutputAudioUnit& outputAudioUnit() const noexcept { return *mOutputAudioUnit; }

    void setDelegate(std::weak_ptr<VellExtendedAudioFilePlayerDelegate> delegate);
    std::weak_ptr<VellExtendedAudioFilePlayerDelegate> delegate() const { return _delegate; }

    // ---- Transport.
    /// Starts playing from the current frame. False with *outError filled when the output
    /// device cannot be opened or started.
    bool startFilePlaying(Error* outError = nullptr);
    void stopFilePlaying();
    /// Whether the output device runs.
    bool isPlaying() const;
    /// Whether the file reader runs (also during an export, which uses no device).
    bool isRunning() const;

    // ---- Position.
    /// Moves to frame, clamped to [0, totalFrames - 1]; while playing, playback continues from
    /// there and the current frame holds on it until it is heard.
    void setCurrentFrame(Frame frame);
    /// As setCurrentFrame, in milliseconds.
    void setCurrentTime(double milliseconds);
    /// The frame being heard (the start frame until playback has reached it, folded into the
    /// loop while looping). Never negative.
    Frame currentFrame();
    Frame totalFrames() const;
    long sampleRate() const;
    double millisecondsPerFrame() const;
    double maxTime() const;
    std::uint32_t channelCount() const;
    /// A frame folded one loop length back or forward into [location, location + length].
    static Frame currentFrameClippedToLoopRange(Frame frame, Frame location, Frame length);

    // ---- Looping (the reader wraps from the loop's end to its start).
    void enableLoopingInRange(Frame location, Frame length);
    void disableLooping();
    bool isLooping() const;
    /// The loop last set, as given (location, length).
    std::pair<Frame, Frame> loopRange() const;

    // ---- Speed and pitch.
    void setPlaybackSpeed(double speed);
    /// The magnitude of the speed (always positive).
    double playbackSpeed() const;
    bool isReverse() const;
    void setTranspositionInterval(long long semitones);
    long long transpositionInterval() const;
    void setPitchAdjustment(double cents);
    double pitchAdjustment() const;

    // ---- Levels.
    /// The music's level in decibels.
    void setPlaybackVolume(double decibels);
    /// The music's linear level (1 = unity).
    void setPlaybackLevel(float level);
    void setNoteEntryPlaybackLevel(float level);
    float noteEntryPlaybackLevel() const;
    void setMetronomePlaybackLevel(float level);
    float metronomePlaybackLevel() const;

    // ---- Metronome and note playback.
    void setNoteEntryStorage(std::shared_ptr<VellNoteEntryStorage> storage);
    void setMetronomeEnabled(bool enabled);
    bool isMetronomeEnabled() const;
    void setMetronomeInstrument(const VellMetronomeInstrument& instrument);
    void setMetronomeAccentsDownbeat(bool accents);

    // ---- Count-in: silent music while the count-in's beats play, then the music from the
    // reader's frame. prerollSampleStart counts file frames up towards the reader's frame;
    // prerollLoopStart is what currentFrame reports meanwhile.
    bool preroll() const;
    void setPreroll(bool preroll);
    Frame prerollSampleStart() const;
    void setPrerollSampleStart(Frame frame);
    Frame prerollLoopStart() const;
    void setPrerollLoopStart(Frame frame);

    // ---- Isolation.
    /// The isolation engine the music passes through (bypassed until told otherwise).
    TessalyInstance* tessalyInstance() const;
    /// Frames of delay the isolation engine adds (the same whether bypassed or not).
    long long processingLatency() const;

    // ---- Export.
    /// Renders [location, location + length) of the file as it is heard (speed, pitch,
    /// isolation, metronome and notes, but not the music level) to path, faster than real
    /// time on the calling thread, preceded by the count-in when one is set (`setPreroll`; the
    /// count-in is then taken to end at location). The file type follows the extension: ".wav" (16-bit),
    /// ".aif"/".aiff" (16-bit), ".m4a" (AAC), all 44.1 kHz stereo. Playback must be stopped.
    /// False with *outError filled for an unsupported extension (nothing is written), the
    /// source file itself as destination, or a failure while writing (what was written stays a
    /// valid file). A cancelled export returns true and keeps a valid file.
    bool writeSamplesInRange(Frame location, Frame length, const std::filesystem::path& path,
                             Error* outError = nullptr);
    /// Stops an export after the block in progress. Thread: any.
    void cancelWriteToFile();
    /// Offline rendering for hosts and tools that pull the processed audio themselves (a
    /// preview, a test): begin from the current frame with playback stopped, render blocks of
    /// up to maximumFrames frames into channelCount() arrays at the file's rate, end. The
    /// output trails the input by processingLatency() frames; nothing is dropped here. The
    /// position, loop, speed and pitch may change between blocks. The file reader waits for
    /// its data unless readerWaits is false (then it behaves as on a device: a block that is
    /// not ready yet gives silence, and rendering never blocks). False with *outError filled
    /// when the graph cannot be set up.
    bool beginOfflineRendering(std::uint32_t maximumFrames, Error* outError = nullptr,
                               bool readerWaits = true);
    /// Renders frames (at most the maximum given) into channels. Thread: the caller of begin.
    bool renderOffline(float* const* channels, std::uint32_t frames);
    void endOfflineRendering();

    /// Called with the finished file's path after an M4A export (tags are copied there).
    using ExportFinisher = std::function<void(const std::filesystem::path& exported)>;
    void setExportFinisher(ExportFinisher finisher) { mExportFinisher = std::move(finisher); }

private:
    explicit VellExtendedAudioFilePlayer(std::shared_ptr<BRIXExtendedAudioFile> audioFile);
    bool setUp(Error* outError);
    void notifyDelegateOfEOF();
    void notifyDelegateOfFrameUpdate();
    void notifyDelegateOfExportProgress(double progress);
    void resetPlaybackStart(Frame frame);
    /// Sets the reader to frame or, before a count-in, a lead-in before it (after it, backwards)
    /// within the file, for the output unit to run the stretcher through unheard; returns the
    /// reader's frame.
    Frame setReaderWithLeadIn(Frame frame);

    std::shared_ptr<BRIXExtendedAudioFile> mAudioFile;
    std::unique_ptr<VellOutputAudioUnit> mOutputAudioUnit;
    bool mDone = false;
    Frame mCurrentFrame = 0;
    Frame mOutputLatencyFrames = 0;
    bool mCrossedPlaybackStart = false;
    Frame mPlaybackStartFrame = 0;
    std::unique_ptr<BRIXAudioFileReader> mFileReader;
    std::weak_ptr<VellExtendedAudioFilePlayerDelegate> _delegate;
    ExportFinisher mExportFinisher;
    void* mOfflineOutputUnit = nullptr;
    double mOfflineSampleTime = 0;
    std::unique_ptr<detail::VellPlayerProgressRelay> mProgressRelay;
    /// Tasks queued for the main queue hold this weakly, so none runs after destruction.
    std::shared_ptr<VellExtendedAudioFilePlayer*> mSelf;
};

} // namespace vell
