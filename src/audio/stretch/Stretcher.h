// The time-stretcher behind the Dirac interface: Rubber Band in real-time mode with its latency
// hidden, exact frame timing, and parameter changes prepared off the render thread.
#pragma once

#include "VellAudio/Types.h"
#include "audio/stretch/Dirac.h"
#include "audio/stretch/RateDivider.h"
#include "audio/stretch/StretchLevel.h"
#include "rt/Realtime.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace RubberBand {
class RubberBandStretcher;
}

namespace vell::detail {

/// What a stretcher is asked to do.
struct StretchParameters {
    double timeFactor = 1.0;  ///< output duration / input duration
    double pitchFactor = 1.0; ///< target frequency / source frequency
    bool preserveFormants = false;

    friend bool operator==(const StretchParameters&, const StretchParameters&) = default;
};

/// A real-time time-stretcher and pitch-shifter with exact timing.
///
/// Timing. Output frame k carries input frame k / timeFactor, input frame 0 being the first
/// frame pulled after a reset: Rubber Band is padded with its preferred start pad, its start
/// delay is dropped, and the measured offset of the level at the current factors
/// (StretchCalibration.h) is taken off as well. Time-factor changes are piecewise: see
/// DiracProcess in Dirac.h.
///
/// Lanes. A stretcher owns three Rubber Band instances ("lanes"). One plays. Every parameter
/// change and every reset is prepared by the control thread on a lane the render thread does
/// not hold (Rubber Band's setters and reset may allocate, so they never run on the render
/// thread) and handed over; the render thread primes the new lane from its own history of the
/// input so that its output lines up exactly with the frame mapping, then cross-fades into it
/// and gives the old lane back. Three lanes let the control thread always find a free one: the
/// render thread holds at most two (playing and incoming), and a lane that waits to be taken is
/// simply re-prepared when a newer change comes.
///
/// Threads and who writes what:
/// - Control thread(s) (create, setParameters, reset, destruction; serialised by a mutex): own
///   lanes in the "control" state, prepare one and publish it by storing "ready" (release).
///   Publish the requested parameters in atomics, then bump the parameter version.
/// - Render thread (process): takes a ready lane by compare-and-swap ("render"), owns the
///   history ring, the output count and the frame mapping, and gives lanes back by storing
///   "control" (release) when it no longer touches them.
/// - Either side may take a "ready" lane back or over; the compare-and-swap decides.
/// - Getters read atomics and are wait-free on any thread.
///
/// Rates. At 88.2 kHz and above the best level runs Rubber Band at half the rate (a quarter at
/// 176.4 kHz and above): R3's windows grow with the rate, and there it renders a click
/// stretched by more than about 1.5 as two copies half a window apart. The input is low-passed
/// and decimated into the history, the output interpolated back (RateDivider.h, flat to 20 kHz);
/// both filters' delays are whole frames at the low rate and are taken off (the decimator's
/// first frames after a restart are dropped, the interpolator's delay is dropped by every lane),
/// so the frame mapping holds at the full rate.
///
/// Allocation. Lanes are created and warmed up at the extreme factors, pitch factors are
/// rounded so that Rubber Band's resampler ratio is a fraction with a denominator of at most
/// kPitchDenominator (its filter tables then fit what it reserved at construction), and Rubber
/// Band logs through a counter, never to a stream: the render thread's calls (process,
/// retrieve, available, getSamplesRequired) then never allocate or lock (the tests check this
/// over many changes).
class Stretcher {
public:
    using InputCallback = DiracInputCallback;

    struct Config {
        StretchLevel level = StretchLevel::good;
        int channels = 2;
        double sampleRate = 44100.0;
        long maxFramesPerCall = 4096;
        /// Off only to measure Rubber Band's raw offsets (the calibration tool).
        bool compensateOffsets = true;
    };

    static constexpr int kMaxChannels = 8;
    static constexpr double kMinTimeFactor = 0.125;
    static constexpr double kMaxTimeFactor = 8.0;
    static constexpr double kMinPitchFactor = 0.25;
    static constexpr double kMaxPitchFactor = 4.0;
    /// Pitch factors are rounded to kPitchDenominator / n (n whole): 0.21 cent at most up to a
    /// factor of 2, 0.42 at 4.
    static constexpr long kPitchDenominator = 8192;
    /// Bounds of one pull, at window scale 1 (44.1 / 48 kHz); they double with the window.
    static constexpr long kMinPullFrames = 4096;
    static constexpr long kMaxPullFrames = 16384;

    /// A stretcher, or null for a bad configuration (see DiracCreate). Thread: control.
    static std::unique_ptr<Stretcher> create(const Config& config, InputCallback callback,
                                             void* owner);
    ~Stretcher();
    Stretcher(const Stretcher&) = delete;
    Stretcher& operator=(const Stretcher&) = delete;

    /// Writes frames output frames. Thread: render. Wait-free, no allocation.
    VELL_RT long process(float* const* output, long frames) noexcept;

    /// Restarts at a new input position (see DiracReset). Thread: control.
    void reset(bool clear);

    /// Requests new parameters (clamped; pitch rounded). Unchanged parameters do nothing.
    /// Thread: control.
    void setParameters(const StretchParameters& parameters);

    /// The parameters as last requested. Thread: any. Wait-free.
    StretchParameters parameters() const noexcept;

    StretchLevel level() const noexcept { return mConfig.level; }
    int channels() const noexcept { return mConfig.channels; }
    double sampleRate() const noexcept { return mConfig.sampleRate; }
    /// Rubber Band's window relative to 44.1 kHz: 1 at 44.1/48 kHz, 2 at 88.2/96 kHz (1 there
    /// at the best level, which runs Rubber Band at a lower rate).
    double windowRatio() const noexcept { return mWindowRatio; }
    /// The sample rate divided by the rate Rubber Band runs at (1, 2 or 4).
    int rateDivisor() const noexcept { return mRateDivisor; }

    /// The Rubber Band engine the level runs: 3 (R3, "finer") or 2 (R2, "faster").
    int engineVersion() const noexcept;
    /// Rubber Band's preferred start pad at unity factors: its analysis half-window.
    long unityStartPad() const noexcept { return mUnityStartPad; }

    /// The pitch factor Rubber Band is given for a requested one.
    static double roundedPitchFactor(double pitchFactor) noexcept;

    /// Counters for tests and diagnostics. Thread: any.
    struct Statistics {
        std::uint64_t crossfades = 0;      ///< lanes the render thread faded into
        std::uint64_t restarts = 0;        ///< resets the render thread applied
        std::uint64_t historyOverruns = 0; ///< history frames lost (read as silence)
        std::uint64_t engineWarnings = 0;  ///< warnings Rubber Band reported
        std::uint64_t pulls = 0;           ///< input callback calls
    };
    Statistics statistics() const noexcept;
    /// Resets the render thread applied. Thread: any. Wait-free.
    VELL_RT std::uint64_t restartCount() const noexcept { return mRestarts.load(); }

private:
    struct Lane;
    class CountingLogger;
    enum class Phase { idle, priming, crossfading };
    enum class Handover { change = 0, restartFade = 1, restartClear = 2 };

    explicit Stretcher(const Config& config, InputCallback callback, void* owner);
    bool build();

    // Control side.
    Lane* acquireLane(Handover& ioHandover);
    void prepareLane(Lane& lane, const StretchParameters& parameters, Handover handover);
    void scrubResampler(RubberBand::RubberBandStretcher& rb, double pitch);
    void publish(Lane& lane);

    // Render side.
    VELL_RT void renderDivided(float* const* output, long frames) noexcept;
    VELL_RT bool restartIsWaiting() const noexcept;
    VELL_RT void renderSlice(float* const* output, long frames) noexcept;
    VELL_RT void pollControl() noexcept;
    VELL_RT void restartTimeline(Lane& lane) noexcept;
    VELL_RT void beginPriming(Lane& lane) noexcept;
    VELL_RT bool advancePriming(long sliceFrames) noexcept;
    VELL_RT void chooseCrossfade(float* const* fadingOut, long frames) noexcept;
    VELL_RT void finishCrossfade() noexcept;
    VELL_RT void giveBack(Lane*& lane) noexcept;
    VELL_RT void renderLane(Lane& lane, float* const* output, long frames) noexcept;
    VELL_RT void skipLane(Lane& lane, long frames, int feedBudget) noexcept;
    VELL_RT bool feedLane(Lane& lane) noexcept;
    VELL_RT void pullUntil(Frame end) noexcept;
    VELL_RT void writeHistory(const float* const* from, long frames) noexcept;
    VELL_RT void readHistory(Frame start, long frames) noexcept;
    VELL_RT double targetInputFrame(double outputFrame) const noexcept;

    const Config mConfig;
    const InputCallback mCallback;
    void* const mOwner;
    int mRateDivisor = 1;
    double mInnerRate = 0.0; ///< the rate Rubber Band runs at
    double mWindowRatio = 1.0;
    long mUnityStartPad = 0;
    int mWindowScale = 1; ///< mWindowRatio, at least 1: buffer sizes grow with it
    long mCrossfadeFrames = 1024;
    long mMaxFeedFrames = 0;
    long mMaxPullFrames = 0;
    long mMinPullFrames = 0;
    std::shared_ptr<CountingLogger> mLogger;
    std::array<std::unique_ptr<Lane>, 3> mLanes;

    // Control side.
    std::mutex mControlMutex;
    StretchParameters mRequested;
    std::atomic<double> mTimeFactor{1.0};
    std::atomic<double> mPitchFactor{1.0};
    std::atomic<bool> mPreserveFormants{false};
    std::atomic<std::uint64_t> mVersion{0};

    // Render side.
    Lane* mActive = nullptr;
    Lane* mIncoming = nullptr;
    Phase mPhase = Phase::idle;
    long mFadePosition = 0;
    double mFadeCorrelation = 0.0; ///< of the two lanes in the current fade, 0 .. 1
    Frame mOutputFrames = 0; ///< output frames written since the last restart
    Frame mPulled = 0;       ///< input frames pulled since the last restart
    double mSegmentOutput = 0.0; ///< the frame mapping's current piece: output frame ...
    double mSegmentInput = 0.0;  ///< ... carries this input frame ...
    double mSegmentTimeFactor = 1.0; ///< ... and later frames follow this factor
    std::uint64_t mSeenVersion = 0;

    std::vector<std::vector<float>> mHistory; ///< ring of pulled input, per channel
    Frame mHistoryMask = 0;
    std::vector<std::vector<float>> mPullBuffer;
    std::vector<std::vector<float>> mFeedBuffer;
    std::vector<std::vector<float>> mMixBuffer;
    std::vector<std::vector<float>> mDiscardBuffer;
    std::vector<float> mFadeIn; ///< sine fade-in gains, mCrossfadeFrames + 1 of them
    // Rate division (mRateDivisor > 1 only).
    std::unique_ptr<Decimator> mDecimator;
    std::unique_ptr<Interpolator> mInterpolator;
    long mDecimatorSkip = 0; ///< decimated frames still to drop after a restart
    bool mCleared = false;   ///< a clearing restart applied in the slice being rendered
    std::vector<std::vector<float>> mDecimated;
    std::vector<std::vector<float>> mInnerOutput;
    std::vector<std::vector<float>> mOutputQueue; ///< interpolated frames not yet given out
    long mQueueStart = 0;
    long mQueueFrames = 0;
    std::array<float*, kMaxChannels> mDecimatedPointers{};
    std::array<float*, kMaxChannels> mInnerOutputPointers{};
    std::array<float*, kMaxChannels> mQueuePointers{};
    // Control side: silence and a discard buffer for scrubbing a lane's resampler.
    std::vector<float> mSilence;
    std::vector<std::vector<float>> mScrubBuffer;
    std::array<float*, kMaxChannels> mScrubPointers{};
    std::array<float*, kMaxChannels> mPullPointers{};
    std::array<float*, kMaxChannels> mFeedPointers{};
    std::array<float*, kMaxChannels> mMixPointers{};
    std::array<float*, kMaxChannels> mDiscardPointers{};

    std::atomic<std::uint64_t> mCrossfades{0};
    std::atomic<std::uint64_t> mRestarts{0};
    std::atomic<std::uint64_t> mHistoryOverruns{0};
    std::atomic<std::uint64_t> mPulls{0};

    VELL_STATIC_ASSERT_LOCK_FREE(double);
    VELL_STATIC_ASSERT_LOCK_FREE(std::uint64_t);
};

/// The stretcher behind a Dirac handle (null for null). Thread: any.
Stretcher* stretcherOf(DiracInstance* instance) noexcept;

} // namespace vell::detail
