// The output audio unit: the render graph that turns a decoded file into sound (stretched and
// isolated music, metronome and note samplers, mixer, output), its real-time callbacks, the
// output-device end, and offline rendering to a file.
#pragma once

#include "VellAudio/AudioTypes.h"
#include "VellAudio/TessalyCore.h"
#include "VellAudio/Types.h"
#include "VellAudio/VellMetronomeInstrument.h"
#include "VellAudio/VellNoteEntryStorage.h"
#include "VellAudio/VellSpectrumData.h"
#include "audio/graph/AUGraph.h"
#include "audio/reader/BRIXAudioBufferQueue.h"
#include "audio/reader/KAudioNotificationQueueWorker.h"
#include "audio/stretch/Dirac.h"
#include "engine/AudioRangeTracker.h"
#include "engine/VellNoteEntryPlaybackStorage.h"
#include "rt/Realtime.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <sigc++/connection.h>
#include <string>
#include <vector>

namespace vell {

inline constexpr UInt32 kMusicPlaybackMixerChannel = 0;
inline constexpr UInt32 kMetronomeMixerChannel = 2;
inline constexpr UInt32 kNoteEntryPlaybackMixerChannel = 3;

class BRIXAudioFileReader;
class VellOutputAudioUnit;

/// Receives export progress. Thread: the exporting thread (the player hops to the main queue).
class VellOutputAudioUnitDelegate {
public:
    virtual ~VellOutputAudioUnitDelegate() = default;
    virtual void outputAudioUnitDidUpdateProgress(VellOutputAudioUnit& unit, double progress) = 0;
};

/// The processing graph of one file's playback.
///
/// Render path (one device cycle of N frames, all on the render thread): the mixer's music
/// input pulls N output frames from the stretcher, which pulls file frames from the buffer
/// queue (recording each pulled span in the tracker); the isolation engine processes them in
/// place; the tracker then consumes the file spans those N frames carried, and the notes and
/// beats in those spans are scheduled on the two samplers, which the mixer renders next. The
/// samplers and the music are mixed and sent to the output unit.
///
/// Timing. Output frame k of the stretcher carries file frame k x rate after a restart; the
/// isolation engine delays everything by its latency L. An event is scheduled from the span
/// that carried its frame, at the output frame that carried it plus L (less the sampler's own
/// known delay; the samplers carry offsets past the slice over), so it is exact across loop
/// wraps, seeks and speed changes. The tracker's consumption carries the fractional part of
/// N x rate from cycle to cycle, so the read frame follows the output exactly at any rate.
///
/// Playback rate: file frames per output frame, limited to [kMinimumPlaybackRate,
/// kMaximumPlaybackRate]; a rate that is not a positive finite number is ignored. Pitch: the
/// transposition and the cents are limited so that the pitch factor stays within two octaves.
///
/// Who writes what: the main thread writes the settings (rate and pitch through the stretcher,
/// flags and counters as atomics, levels as mixer parameters) and seeks; the render thread owns
/// the tracker, the scheduling buffers and the fractional carry, and publishes the read frame.
/// A seek while running is applied by the render thread at the stretcher's restart, so the
/// tracker and the stretcher always restart together.
class VellOutputAudioUnit {
    VELL_STATIC_ASSERT_LOCK_FREE(Frame);
    VELL_STATIC_ASSERT_LOCK_FREE(double);

public:
    static constexpr double kMinimumPlaybackRate = 0.125;
    static constexpr double kMaximumPlaybackRate = 8.0;
    static constexpr long long kMaximumTranspositionSemitones = 24;
    static constexpr double kMaximumPitchAdjustmentCents = 2400.0;
    /// Records exchanged with the note-entry playback storage per query.
    static constexpr std::size_t kPlaybackEntryCapacity = 128;
    /// The isolation engine's largest block.
    static constexpr UInt32 kIsolationMaximumFrames = 8192;
    /// Frames the music slices of the mixer and samplers may reach on a device.
    static constexpr UInt32 kDeviceMaximumFramesPerSlice = 8192;
    /// Stretched frames made before rendering starts.
    static constexpr UInt32 kWarmupFrames = 512;
    /// Output frames the lead-in is made of a multiple of (a multiple of every hop size).
    static constexpr Frame kLeadInBlockFrames = 4096;

    /// Builds the graph for a stream (sample rate and channel count of the file's client
    /// format). Raises "NSXError" when a graph call fails. Thread: main.
    explicit VellOutputAudioUnit(const AudioStreamBasicDescription& streamDescription);
    VellOutputAudioUnit();
    ~VellOutputAudioUnit();
    VellOutputAudioUnit(const VellOutputAudioUnit&) = delete;
    VellOutputAudioUnit& operator=(const VellOutputAudioUnit&) = delete;

    // ---- Transport.
    /// Starts the graph on the output device (nothing if it runs). Raises "NSXError" when a
    /// unit cannot be reset; a device that does not start is logged and answered false.
    bool start();
    void stop();
    bool isRunning();

    // ---- Levels (linear, 1 = unity).
    void setPlaybackLevel(float level);
    void setMetronomePlaybackLevel(float inLevel);
    float metronomePlaybackLevel();
    void setNoteEntryPlaybackLevel(float level);
    float noteEntryPlaybackLevel();

    // ---- Rate and pitch.
    void setPlaybackRate(double rate);
    double playbackRate() const noexcept;
    void setTranspositionInterval(long long semitones);
    long long transpositionInterval() const noexcept { return _transpositionInterval.load(); }
    void setPitchAdjustment(double cents);
    double pitchAdjustment() const noexcept { return _pitchAdjustment.load(); }
    void refreshPlaybackPitchFactor();
    /// The pitch factor for a transposition and an adjustment in cents.
    static double pitchFactorFor(long long semitones, double cents) noexcept;

    /// Reading backwards: file frames are handed out in descending order.
    void setReverse(bool reverse) noexcept { mReverse.store(reverse); }
    bool isReverse() const noexcept { return mReverse.load(); }

    // ---- Position.
    /// The file frame being heard (the count-in's loop start while counting in).
    /// Thread: any.
    Frame currentTrackedReadFrame() const noexcept;
    /// Restarts the stretcher and the frame bookkeeping at frame (the buffer queue must
    /// already read from there).
    void setCurrentTrackedReadFrame(Frame frame);
    /// The isolation engine's latency in frames.
    long long processingLatency() const noexcept;

    // ---- Count-in.
    bool preroll() const noexcept { return mPreroll.load(); }
    void setPreroll(bool preroll) noexcept { mPreroll.store(preroll); }
    Frame prerollSampleStart() const noexcept { return mPrerollSampleStart.load(); }
    void setPrerollSampleStart(Frame frame) noexcept { mPrerollSampleStart.store(frame); }
    Frame prerollLoopStart() const noexcept { return mPrerollLoopStart.load(); }
    void setPrerollLoopStart(Frame frame) noexcept { mPrerollLoopStart.store(frame); }

    // ---- Notes and metronome.
    const std::shared_ptr<VellNoteEntryStorage>& noteEntryStorage() const noexcept
    {
        return mNoteEntryStorage;
    }
    void setNoteEntryStorage(std::shared_ptr<VellNoteEntryStorage> storage);
    bool isMetronomeEnabled() const noexcept { return mMetronomeEnabled.load(); }
    void setMetronomeEnabled(bool enabled) noexcept { mMetronomeEnabled.store(enabled); }
    const VellMetronomeInstrument& metronomeInstrument() const noexcept
    {
        return mMetronomeInstrument;
    }
    void setMetronomeInstrument(const VellMetronomeInstrument& instrument);
    bool metronomeAccentsDownbeat() const noexcept { return mMetronomeAccentsDownbeat; }
    void setMetronomeAccentsDownbeat(bool accents);
    /// Copies the storage's notes and beats (with the metronome settings) for the render thread.
    void refreshNoteEntryPlaybackStorage();
    VellNoteEntryPlaybackStorage& noteEntryPlaybackStorage() noexcept
    {
        return *mNoteEntryPlaybackStorage;
    }

    // ---- Sources and notifications.
    BRIXAudioBufferQueue* audioBufferQueue() const noexcept { return mAudioBufferQueue; }
    /// The queue the music is read from (not owned; it must outlive rendering).
    void setAudioBufferQueue(BRIXAudioBufferQueue* queue) noexcept { mAudioBufferQueue = queue; }
    /// The reader as the queue of file audio; the start waits for its data while it makes the
    /// stretcher's first frames (see setLeadInFrames).
    void setFileReader(BRIXAudioFileReader* reader) noexcept;
    /// File frames that the reader was set back (forward, reading in reverse) from the frame
    /// where playback starts: when rendering starts, the stretcher runs through them unheard, so
    /// that the music's first frames sound as they do in the middle of playback (a transient
    /// on the start frame comes out on time). silentFrames of them lie past the file's edge
    /// (before its start; after its end, reading in reverse): the reader stays at the edge and
    /// the stretcher is given silence for them first. Thread: main, before start or offline
    /// rendering.
    void setLeadInFrames(Frame frames, Frame silentFrames = 0) noexcept
    {
        mLeadInFrames = std::max<Frame>(frames, 0);
        mLeadInSilence = std::clamp<Frame>(silentFrames, 0, mLeadInFrames);
    }
    /// The lead-in to ask for at the current rate: at least minimum file frames, walked over in
    /// a whole number of kLeadInBlockFrames output frames, so that the stretcher's hops fall on
    /// the music as they would had it started fresh at the start frame.
    Frame leadInFramesFor(Frame minimum) const;
    /// Runs block on the notification worker once the end of the stream was fed to the
    /// stretcher. Thread: main, not while running.
    void setEndOfStreamNotificationBlock(std::function<void()> block);
    const AudioStreamBasicDescription& streamDescription() const noexcept
    {
        return mStreamDescription;
    }
    VellOutputAudioUnitDelegate* delegate() const noexcept { return mDelegate; }
    void setDelegate(VellOutputAudioUnitDelegate* delegate) noexcept { mDelegate = delegate; }

    // ---- Units and engines.
    AudioUnit outputUnit() const noexcept { return mOutputUnit; }
    AudioUnit mixerUnit() const noexcept { return mMixerUnit; }
    AudioUnit metronomeUnit() const noexcept { return mMetronomeUnit; }
    AudioUnit noteEntryPlaybackUnit() const noexcept { return mNoteEntryPlaybackUnit; }
    TessalyInstance* tessalyInstance() const noexcept { return mIsolator; }
    TessalyPannedPowerSpread& pannedPowerSpread() noexcept { return _pannedPowerSpread; }
    VellSpectrumData& spectrumData() noexcept { return *mSpectrumData; }
    DiracInstance* stretcher() const noexcept { return mDirac; }
    const std::filesystem::path& metronomePresetURL() const noexcept { return _metronomePresetURL; }
    const std::filesystem::path& guitarPresetURL() const noexcept { return _guitarPresetURL; }
    /// Loads a preset into a sampler; answers the status (never raises).
    OSStatus loadPresetWithURL(const std::filesystem::path& url, AudioUnit sampler);

    // ---- Device end.
    /// Frames from a render call to the sound leaving the device (0 when unknown).
    std::uint32_t hardwareLatency();
    /// Replaces the graph's output node by an output unit of another subtype ("genr" to
    /// render offline, "def " for the device) and answers the new unit (null if the graph has
    /// none). Raises "NSXError" on a failed graph call.
    AudioUnit setOutputNodeWithSubtype(OSType subtype);
    /// Input rate over output rate of an output unit (0 when the output rate is 0).
    float rateScalarForOutputUnit(AudioUnit outputUnit);
    /// Sizes the mixer's and samplers' largest slice to serve outputUnit.
    void adjustMaximumFramesForOutputUnit(AudioUnit outputUnit);

    // ---- Offline rendering.
    /// Renders frames file frames from the buffer queue's position through the graph to a
    /// file whose type follows the extension ("wav", "aif"/"aiff", "m4a"; anything else writes
    /// nothing and returns false). Runs on the calling thread. Raises "NSXError" when a graph
    /// or file call fails; the graph is back on the device and the levels restored either way.
    bool writeSamples(std::uint32_t frames, const std::filesystem::path& fileURL);
    void cancelWriteToFile() noexcept { mCancelExport.store(true); }
    /// Moves the graph onto a generic output at outputSampleRate (the output's largest slice
    /// set to maximumFrames unless 0) and prepares it to be pulled on the calling thread from
    /// the buffer queue's frame. Answers the output unit to pull. Raises "NSXError".
    AudioUnit beginOfflineRendering(double outputSampleRate, UInt32 maximumFrames);
    /// Puts the graph back on the device output.
    void endOfflineRendering() noexcept;
    /// Whether writeSamples writes a file for this destination (by its extension).
    static bool isSupportedExportPath(const std::filesystem::path& path);
    bool isExportingAudio() const noexcept { return mExportingAudio.load(); }

    /// Counters for diagnostics and tests. Thread: any.
    struct Statistics {
        std::uint64_t cycles = 0;             ///< music callbacks run
        std::uint64_t droppedActiveNotes = 0; ///< notes not tracked for their note-off
        std::uint64_t trackerRestarts = 0;    ///< restarts of the frame bookkeeping
        std::uint64_t notesStarted = 0;       ///< note entries started on the note sampler
        std::uint64_t beatsStarted = 0;       ///< beats started on the metronome sampler
    };
    Statistics statistics() const noexcept;

    // ---- The render callbacks. Thread: render. Wait-free, no allocation.
    VELL_RT static OSStatus OAUFXProc(void* inRefCon, AudioUnitRenderActionFlags* ioActionFlags,
                                      const AudioTimeStamp* inTimeStamp, UInt32 inBusNumber,
                                      UInt32 inNumberFrames, AudioBufferList* ioData) noexcept;
    VELL_RT static long diracCallback(float** channelData, long frames, void* owner) noexcept;

private:
    void setupAUGraph();
    void setupDirac();
    void observeNoteEntryChanges();
    void observeStorage();
    void teardown() noexcept;
    /// Reads how long the samplers delay their notes, to schedule them that much earlier.
    void refreshSamplerLead();
    /// Clears every unit, the stretcher and the isolation engine and loads the presets, before
    /// the graph renders (on the device or offline).
    void prepareToRender();
    /// Runs the stretcher through the lead-in and makes its first output frames on the calling
    /// thread, before the graph renders, so that its start-up cost never lands in a render
    /// cycle.
    void warmUpStretcher();

    /// Schedules the notes (when notes is set) and beats at the reading positions [first,
    /// end), whose first frame is heard outputPosition frames (before the isolation latency)
    /// after the start of the slice being rendered, at rate file frames per output frame.
    VELL_RT void scheduleSpan(Frame first, Frame end, double outputPosition, double rate,
                              bool notes) noexcept;
    VELL_RT OSStatus renderMusic(AudioUnitRenderActionFlags* ioActionFlags, UInt32 frames,
                                 AudioBufferList* ioData) noexcept;
    VELL_RT long pullFileFrames(float** channelData, long frames) noexcept;
    VELL_RT void consumeOutputFrames(UInt32 frames, double rate, UInt32 outputOffset) noexcept;
    VELL_RT double currentRate() const noexcept;
    /// Reading position in the tracker's coordinates: file frames forwards, their negation
    /// backwards, so that reading always moves up.
    VELL_RT static Frame toReading(Frame fileFrame, bool reverse) noexcept
    {
        return reverse ? -fileFrame : fileFrame;
    }

    bool renderExport(std::uint32_t frames, const std::filesystem::path& fileURL, OSType fileType,
                      const AudioStreamBasicDescription& outputFormat);

    AudioStreamBasicDescription mStreamDescription{};
    VellOutputAudioUnitDelegate* mDelegate = nullptr;

    AUGraph mGraph = nullptr;
    AUNode mOutputNode = 0;
    AUNode mMixerNode = 0;
    AUNode mMetronomeNode = 0;
    AUNode mNoteEntryPlaybackNode = 0;
    AudioUnit mOutputUnit = nullptr;
    AudioUnit mMixerUnit = nullptr;
    AudioUnit mMetronomeUnit = nullptr;
    AudioUnit mNoteEntryPlaybackUnit = nullptr;

    std::shared_ptr<VellNoteEntryStorage> mNoteEntryStorage;
    std::unique_ptr<VellNoteEntryPlaybackStorage> mNoteEntryPlaybackStorage;
    VellMetronomeInstrument mMetronomeInstrument;
    std::atomic<bool> mMetronomeEnabled{false};
    bool mMetronomeAccentsDownbeat = true;
    std::vector<sigc::connection> mStorageConnections;

    std::atomic<long long> _transpositionInterval{0};
    std::atomic<double> _pitchAdjustment{0.0};
    std::atomic<bool> mReverse{false};
    std::uint32_t mHardwareLatency = 0;

    TessalyInstance* mIsolator = nullptr;
    TessalyPannedPowerSpread _pannedPowerSpread{128};
    std::unique_ptr<VellSpectrumData> mSpectrumData;

    std::atomic<bool> mCancelExport{false};
    std::atomic<bool> mExportingAudio{false};

    std::filesystem::path _metronomePresetURL;
    std::filesystem::path _guitarPresetURL;

    // ---- Pipeline.
    BRIXAudioBufferQueue* mAudioBufferQueue = nullptr;
    DiracInstance* mDirac = nullptr;
    AudioBufferList mDiracBufferList{};
    AudioBufferList mFXBufferList{};
    std::atomic<bool> mDone{false};
    std::atomic<bool> mPreroll{false};
    std::atomic<Frame> mPrerollSampleStart{0};
    std::atomic<Frame> mPrerollLoopStart{0};
    KQueueableAudioNotification* mEndOfStreamNotification = nullptr;
    KAudioNotificationQueueWorker* mAudioNotificationQueueWorker = nullptr;
    std::unique_ptr<VellPlaybackEntry[]> mPlaybackEntries;
    std::unique_ptr<VellPlaybackEntry[]> mActiveEntries;

    // Seeks: the main thread bumps the serial, then resets the stretcher; the render thread
    // restarts the tracker at the stretcher's restart and takes the serial as applied there.
    std::atomic<std::uint64_t> mSeekSerial{0};
    /// The frame being heard as the render thread last computed it, or the sought frame
    /// until a seek has been applied.
    std::atomic<Frame> mPublishedReadFrame{-1};
    /// Frames of delay of each sampler's events (scheduled that much earlier).
    std::atomic<std::int32_t> mSamplerLeadFrames{0};

    // The stretcher's first frames, made by warmUpStretcher and played before it is called
    // again. Written before rendering starts, then the render thread's.
    std::vector<float> mWarmup;
    UInt32 mWarmupFrames = 0;
    UInt32 mWarmupServed = 0;
    BRIXAudioFileReader* mFileReader = nullptr;
    Frame mLeadInFrames = 0;
    Frame mLeadInSilence = 0;
    /// Silence still to give the stretcher before the reader's frames: armed by
    /// warmUpStretcher, which pulls all of it before rendering starts.
    Frame mSilenceLeft = 0;
    /// Whether warmUpStretcher left the bookkeeping at the start frame (reading coordinates)
    /// with its carry, where a count-in then ends.
    bool mPrimed = false;
    Frame mPrimedFrame = 0;
    double mPrimedCarry = 0;

    // Render thread only.
    FileRangeTracker mTracker;
    double mConsumeCarry = 0;
    std::uint64_t mSeenRestarts = 0;
    std::uint64_t mAppliedSeekSerial = 0;
    bool mTrackerReverse = false;
    /// Reading frame one past the end of the stream once it was fed (kFrameNotFound before).
    Frame mEndOfStreamFrame = kFrameNotFound;
    bool mEndOfStreamNotified = false;

    std::atomic<std::uint64_t> mCycles{0};
    std::atomic<std::uint64_t> mDroppedActiveNotes{0};
    std::atomic<std::uint64_t> mTrackerRestarts{0};
    std::atomic<std::uint64_t> mNotesStarted{0};
    std::atomic<std::uint64_t> mBeatsStarted{0};
};

} // namespace vell
