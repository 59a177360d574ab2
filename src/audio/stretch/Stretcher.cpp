// Rubber Band lanes, the input history, priming and cross-fades (see Stretcher.h).
#include "audio/stretch/Stretcher.h"

#include "audio/stretch/StretchCalibration.h"

#include <rubberband/RubberBandStretcher.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numbers>
#include <thread>

namespace vell::detail {
namespace {

using RubberBandStretcher = RubberBand::RubberBandStretcher;

// Lane ownership (Lane::owner).
constexpr int kOwnerControl = 0;
constexpr int kOwnerReady = 1;
constexpr int kOwnerRender = 2;

/// Output frames a lane discards per retrieve call.
constexpr long kDiscardFrames = 4096;
/// Rubber Band process calls a lane being primed may make in one slice, on top of the playing
/// lane's own: kPrimeFeeds plus one per kPrimeFramesPerFeed frames of the slice, so that it
/// always gains on the slice (no hop is shorter) while the extra work of a change stays at a
/// few milliseconds per device cycle.
constexpr int kPrimeFeeds = 8;
constexpr long kPrimeFramesPerFeed = 32;
/// Process calls one lane may make to produce one slice before it gives up (never reached
/// unless Rubber Band stops producing output; the rest of the slice is then silence).
constexpr int kMaxFeedsPerSlice = 4096;
/// Window of Rubber Band at 44.1 kHz per level (its preferred start pad at unity): the
/// reference for the window ratio.
constexpr long kReferencePad[kStretchLevelCount] = {2048, 1024, 512};

Frame roundUpTo(Frame value, Frame multiple) noexcept
{
    return (value + multiple - 1) / multiple * multiple;
}

Frame powerOfTwoAtLeast(Frame value) noexcept
{
    Frame p = 1;
    while (p < value) {
        p *= 2;
    }
    return p;
}

double clampFactor(double value, double low, double high) noexcept
{
    return std::clamp(value, low, high);
}

} // namespace

/// Counts Rubber Band's warnings instead of writing them to a stream (render-thread safe).
class Stretcher::CountingLogger final : public RubberBandStretcher::Logger {
public:
    void log(const char*) override { mCount.fetch_add(1); }
    void log(const char*, double) override { mCount.fetch_add(1); }
    void log(const char*, double, double) override { mCount.fetch_add(1); }
    std::uint64_t count() const noexcept { return mCount.load(); }

private:
    std::atomic<std::uint64_t> mCount{0};
};

/// One Rubber Band instance with its place on the input and output time lines.
struct Stretcher::Lane {
    std::unique_ptr<RubberBandStretcher> rb;
    std::atomic<int> owner{kOwnerControl};
    /// What the lane was prepared for; atomic because the render thread peeks at a ready lane.
    std::atomic<int> handover{int(Handover::change)};

    // Written by the control side while it owns the lane; read-only once published.
    StretchParameters parameters;
    long pad = 0;        ///< input frames fed before the lane's first input frame
    long delay = 0;      ///< Rubber Band's start delay (output frames)
    long drop = 0;       ///< output frames to discard first (negative: silent frames to add)
    long pullFrames = 0; ///< input block size while this lane needs input

    // Render side, once taken.
    Frame startPosition = 0;  ///< the lane's first input frame (after its start pad)
    Frame inputPosition = 0;  ///< next input frame (history position) to feed
    long pendingZeros = 0;    ///< silent output frames still to produce first
    long pendingDiscard = 0;  ///< Rubber Band output frames still to throw away
    double outputOrigin = 0;  ///< output frame that the lane's output frame 0 lands on
    Frame emitted = 0;        ///< lane output frames produced or skipped since its start
    bool silentInput = false; ///< fading out after a restart: fed silence, not history
    float polarity = 1.0f;    ///< -1 when the lane faded in turned over (see chooseCrossfade)
};

Stretcher::Stretcher(const Config& config, InputCallback callback, void* owner)
    : mConfig(config), mCallback(callback), mOwner(owner)
{
}

Stretcher::~Stretcher() = default;

std::unique_ptr<Stretcher> Stretcher::create(const Config& config, InputCallback callback,
                                             void* owner)
{
    if (config.channels < 1 || config.channels > kMaxChannels || callback == nullptr ||
        !(config.sampleRate >= 8000.0 && config.sampleRate <= 192000.0) ||
        config.maxFramesPerCall < 1) {
        return nullptr;
    }
    std::unique_ptr<Stretcher> stretcher(new Stretcher(config, callback, owner));
    if (!stretcher->build()) {
        return nullptr;
    }
    return stretcher;
}

bool Stretcher::build()
{
    if (mConfig.level == StretchLevel::best) {
        while (mConfig.sampleRate / (2 * mRateDivisor) >= 44100.0) {
            mRateDivisor *= 2;
        }
    }
    mInnerRate = mConfig.sampleRate / mRateDivisor;
    const auto rate = std::size_t(std::lround(mInnerRate));
    const int options = rubberBandOptionsFor(mConfig.level);
    const auto channels = std::size_t(mConfig.channels);
    mLogger = std::make_shared<CountingLogger>();

    {
        RubberBandStretcher probe(rate, 1, mLogger, options);
        const long pad = long(probe.getPreferredStartPad());
        mUnityStartPad = pad;
        mWindowRatio = double(pad) / double(kReferencePad[int(mConfig.level)]);
        mWindowScale = std::max(1, int(std::lround(mWindowRatio)));
    }

    // The largest request Rubber Band makes is a window (times the pitch factor when it
    // resamples first); the history holds the largest look-ahead, a pull and a window.
    mMaxFeedFrames = 32768L * mWindowScale;
    mMaxPullFrames = kMaxPullFrames * mWindowScale;
    mMinPullFrames = kMinPullFrames * mWindowScale;
    const Frame historyFrames = powerOfTwoAtLeast(131072L * mWindowScale);
    mHistoryMask = historyFrames - 1;
    mCrossfadeFrames = std::max(64L, long(std::lround(0.02 * mInnerRate)));

    const auto allocate = [&](std::vector<std::vector<float>>& buffers, Frame frames,
                              std::array<float*, kMaxChannels>* pointers) {
        buffers.assign(channels, std::vector<float>(std::size_t(frames), 0.0f));
        if (pointers != nullptr) {
            for (std::size_t c = 0; c < channels; ++c) {
                (*pointers)[c] = buffers[c].data();
            }
        }
    };
    allocate(mHistory, historyFrames, nullptr);
    allocate(mPullBuffer, mMaxPullFrames * mRateDivisor, &mPullPointers);
    if (mRateDivisor > 1) {
        const int channelCount = mConfig.channels;
        mDecimator = std::make_unique<Decimator>(mRateDivisor, channelCount, mMaxPullFrames);
        mInterpolator =
            std::make_unique<Interpolator>(mRateDivisor, channelCount, mConfig.maxFramesPerCall);
        allocate(mDecimated, mMaxPullFrames, &mDecimatedPointers);
        allocate(mInnerOutput, mConfig.maxFramesPerCall, &mInnerOutputPointers);
        allocate(mOutputQueue, mConfig.maxFramesPerCall * mRateDivisor, &mQueuePointers);
    }
    allocate(mFeedBuffer, mMaxFeedFrames, &mFeedPointers);
    allocate(mMixBuffer, mConfig.maxFramesPerCall, &mMixPointers);
    allocate(mDiscardBuffer, kDiscardFrames, &mDiscardPointers);
    allocate(mScrubBuffer, kDiscardFrames, &mScrubPointers);
    mSilence.assign(std::size_t(mMaxFeedFrames), 0.0f);
    mFadeIn.resize(std::size_t(mCrossfadeFrames) + 1);
    for (long i = 0; i <= mCrossfadeFrames; ++i) {
        mFadeIn[std::size_t(i)] =
            float(std::sin(0.5 * std::numbers::pi * double(i) / double(mCrossfadeFrames)));
    }

    // Each lane is built at the extreme factors, so that Rubber Band sizes its buffers for
    // them (later setters only ever grow them, on the control thread), and run briefly so that
    // what it makes lazily exists before the render thread needs it. In particular its resampler keeps two filter states and, when a lane starts after a
    // reset, builds the state for the lane's ratio by copying the other one if that is at least
    // as large, and allocates otherwise: the warm-up leaves both states at the size of the
    // largest pitch factor (a ratio change without a reset swaps them).
    std::vector<float> noise(static_cast<std::size_t>(mMaxFeedFrames));
    std::uint32_t seed = 1;
    for (float& sample : noise) {
        seed = seed * 1664525u + 1013904223u;
        sample = float(int(seed >> 9) - (1 << 22)) / float(1 << 24);
    }
    std::vector<const float*> noisePointers(channels, noise.data());
    struct WarmUp {
        double timeFactor;
        double pitchFactor;
        bool reset;
    };
    // The largest pitch factor needs the largest filter state; the second step changes the
    // ratio without changing where R2 resamples (before stretching, for factors above 1), so
    // that the states swap instead of being reset.
    const WarmUp warmUps[] = {
        {1.0, kMaxPitchFactor, true},
        {1.0, 1.5, false},
    };
    for (auto& lane : mLanes) {
        lane = std::make_unique<Lane>();
        lane->rb = std::make_unique<RubberBandStretcher>(rate, channels, mLogger, options,
                                                         kMaxTimeFactor, kMinPitchFactor);
        RubberBandStretcher& rb = *lane->rb;
        rb.setMaxProcessSize(std::size_t(mMaxFeedFrames));
        for (const WarmUp& warmUp : warmUps) {
            if (warmUp.reset) {
                rb.reset();
            }
            rb.setTimeRatio(warmUp.timeFactor);
            rb.setPitchScale(roundedPitchFactor(warmUp.pitchFactor));
            for (int feeds = 0; feeds < 2; ++feeds) {
                const std::size_t required = std::clamp<std::size_t>(
                    rb.getSamplesRequired(), 256, std::size_t(mMaxFeedFrames));
                rb.process(noisePointers.data(), required, false);
                while (rb.available() > 0) {
                    const auto wanted = std::min<long>(rb.available(), kDiscardFrames);
                    if (rb.retrieve(mDiscardPointers.data(), std::size_t(wanted)) == 0) {
                        break;
                    }
                }
            }
        }
    }

    std::lock_guard lock(mControlMutex);
    Handover handover = Handover::restartClear;
    Lane* lane = acquireLane(handover);
    prepareLane(*lane, mRequested, handover);
    publish(*lane);
    return true;
}

double Stretcher::roundedPitchFactor(double pitchFactor) noexcept
{
    // Rubber Band resamples by 1 / pitchFactor; as n / kPitchDenominator that ratio is a
    // fraction whose numerator never exceeds what its resampler reserved up front.
    const double clamped = clampFactor(pitchFactor, kMinPitchFactor, kMaxPitchFactor);
    const double n = std::max(1.0, std::round(double(kPitchDenominator) / clamped));
    return double(kPitchDenominator) / n;
}

// ---- Control side --------------------------------------------------------------------------

Stretcher::Lane* Stretcher::acquireLane(Handover& ioHandover)
{
    for (;;) {
        // A lane waiting to be taken is re-prepared: the newest request replaces it, keeping
        // the strongest handover (a restart stays a restart).
        for (auto& lane : mLanes) {
            int expected = kOwnerReady;
            if (lane->owner.compare_exchange_strong(expected, kOwnerControl)) {
                ioHandover = std::max(ioHandover, Handover(lane->handover.load()));
                return lane.get();
            }
        }
        for (auto& lane : mLanes) {
            if (lane->owner.load() == kOwnerControl) {
                return lane.get();
            }
        }
        // The render thread holds a third lane only for the moment between taking a restart
        // lane and giving the others back.
        std::this_thread::yield();
    }
}

void Stretcher::prepareLane(Lane& lane, const StretchParameters& parameters, Handover handover)
{
    RubberBandStretcher& rb = *lane.rb;
    const double pitch = roundedPitchFactor(parameters.pitchFactor);
    if (pitch != 1.0) {
        scrubResampler(rb, pitch);
    }
    rb.reset();
    rb.setTimeRatio(parameters.timeFactor);
    rb.setPitchScale(pitch);
    rb.setFormantOption(parameters.preserveFormants ? RubberBandStretcher::OptionFormantPreserved
                                                    : RubberBandStretcher::OptionFormantShifted);
    lane.parameters = parameters;
    lane.handover.store(int(handover));
    lane.pad = long(rb.getPreferredStartPad());
    const long delay = long(rb.getStartDelay());
    lane.delay = delay;
    const double offset =
        mConfig.compensateOffsets
            ? stretchOnsetOffset(mConfig.level, mWindowRatio * mRateDivisor,
                                 parameters.timeFactor, pitch) /
                  mRateDivisor
            : 0.0;
    // A transient that comes out early (negative offset) needs less of the start dropped. At a
    // divided rate every lane also leads by the interpolator's delay.
    const long lead = mRateDivisor > 1 ? RateDividerFilter::delayFrames() : 0;
    lane.drop = delay + long(std::lround(offset)) + lead;
    // Input pulled but not yet heard: the analysis half window and the input the lane holds,
    // plus what it has produced but not yet given out, in input frames.
    const double held = double(std::max(lane.drop, 0L) + lane.pad + mConfig.maxFramesPerCall);
    const double lookAhead = 2.0 * double(lane.pad) + held / parameters.timeFactor;
    lane.pullFrames = long(std::clamp<Frame>(roundUpTo(Frame(lookAhead * 1.25), 1024),
                                             mMinPullFrames, mMaxPullFrames));
}

void Stretcher::scrubResampler(RubberBand::RubberBandStretcher& rb, double pitch)
{
    // Rubber Band's reset() leaves its resampler's two filter states as they were, and the
    // state it starts with after a reset is a copy of the other one: the last milliseconds of
    // whatever the lane played before (or of the warm-up noise) would leak into its new start.
    // Silence run through both states (a ratio change without a reset swaps them, on the same
    // side of 1 so that R2 does not reset them itself) leaves nothing to leak.
    const double other = pitch > 1.0 ? pitch * 1.01 : pitch / 1.01;
    for (const double step : {pitch, roundedPitchFactor(other)}) {
        rb.setPitchScale(step);
        for (int feeds = 0; feeds < 2; ++feeds) {
            const std::size_t required =
                std::clamp<std::size_t>(rb.getSamplesRequired(), 512, std::size_t(mMaxFeedFrames));
            std::array<const float*, kMaxChannels> silence{};
            for (int c = 0; c < mConfig.channels; ++c) {
                silence[std::size_t(c)] = mSilence.data();
            }
            rb.process(silence.data(), std::min(required, mSilence.size()), false);
            while (rb.available() > 0) {
                const auto wanted = std::min<long>(rb.available(), kDiscardFrames);
                if (rb.retrieve(mScrubPointers.data(), std::size_t(wanted)) == 0) {
                    break;
                }
            }
        }
    }
}

void Stretcher::publish(Lane& lane)
{
    lane.owner.store(kOwnerReady);
}

void Stretcher::setParameters(const StretchParameters& parameters)
{
    StretchParameters clamped = parameters;
    clamped.timeFactor = clampFactor(parameters.timeFactor, kMinTimeFactor, kMaxTimeFactor);
    clamped.pitchFactor = clampFactor(parameters.pitchFactor, kMinPitchFactor, kMaxPitchFactor);
    std::lock_guard lock(mControlMutex);
    if (clamped == mRequested) {
        return;
    }
    mRequested = clamped;
    // The new values are visible (to the getters and to the render thread's frame mapping)
    // before the lane is ready: the mapping changes at once, and the lane, primed against the
    // mapping, catches up with it.
    mTimeFactor.store(clamped.timeFactor);
    mPitchFactor.store(clamped.pitchFactor);
    mPreserveFormants.store(clamped.preserveFormants);
    mVersion.fetch_add(1);
    Handover handover = Handover::change;
    Lane* lane = acquireLane(handover);
    prepareLane(*lane, mRequested, handover);
    publish(*lane);
}

void Stretcher::reset(bool clear)
{
    std::lock_guard lock(mControlMutex);
    Handover handover = clear ? Handover::restartClear : Handover::restartFade;
    Lane* lane = acquireLane(handover);
    prepareLane(*lane, mRequested, handover);
    publish(*lane);
}

StretchParameters Stretcher::parameters() const noexcept
{
    return {mTimeFactor.load(), mPitchFactor.load(), mPreserveFormants.load()};
}

int Stretcher::engineVersion() const noexcept
{
    return mLanes[0]->rb->getEngineVersion();
}

Stretcher::Statistics Stretcher::statistics() const noexcept
{
    Statistics statistics;
    statistics.crossfades = mCrossfades.load();
    statistics.restarts = mRestarts.load();
    statistics.historyOverruns = mHistoryOverruns.load();
    statistics.engineWarnings = mLogger ? mLogger->count() : 0;
    statistics.pulls = mPulls.load();
    return statistics;
}

// ---- Render side ---------------------------------------------------------------------------

long Stretcher::process(float* const* output, long frames) noexcept
{
    if (output == nullptr || frames <= 0) {
        return 0;
    }
    if (mRateDivisor > 1) {
        renderDivided(output, frames);
        return frames;
    }
    std::array<float*, kMaxChannels> slice{};
    long done = 0;
    while (done < frames) {
        const long n = std::min(frames - done, mConfig.maxFramesPerCall);
        for (int c = 0; c < mConfig.channels; ++c) {
            slice[std::size_t(c)] = output[c] + done;
        }
        renderSlice(slice.data(), n);
        done += n;
    }
    return frames;
}

void Stretcher::renderDivided(float* const* output, long frames) noexcept
{
    // Frames interpolated but not given out belong before a restart that is about to apply:
    // dropped, so that the restart starts at this call's first frame.
    if (restartIsWaiting()) {
        mQueueFrames = 0;
    }
    const int k = mRateDivisor;
    long done = 0;
    while (done < frames) {
        if (mQueueFrames == 0) {
            const long inner = std::min((frames - done + k - 1) / k, mConfig.maxFramesPerCall);
            mCleared = false;
            renderSlice(mInnerOutputPointers.data(), inner);
            if (mCleared) {
                // A clearing restart at the start of this slice: nothing of the old sound may
                // ring on in the interpolator either.
                mInterpolator->reset();
            }
            mInterpolator->process(mInnerOutputPointers.data(), mQueuePointers.data(), inner);
            mQueueStart = 0;
            mQueueFrames = inner * k;
        }
        const long n = std::min(mQueueFrames, frames - done);
        for (int c = 0; c < mConfig.channels; ++c) {
            std::memcpy(output[c] + done, mQueuePointers[std::size_t(c)] + mQueueStart,
                        std::size_t(n) * sizeof(float));
        }
        mQueueStart += n;
        mQueueFrames -= n;
        done += n;
    }
}

bool Stretcher::restartIsWaiting() const noexcept
{
    for (const auto& lane : mLanes) {
        if (lane->owner.load() == kOwnerReady && Handover(lane->handover.load()) != Handover::change) {
            return true;
        }
    }
    return false;
}

void Stretcher::renderSlice(float* const* output, long frames) noexcept
{
    pollControl();
    if (mActive == nullptr) {
        for (int c = 0; c < mConfig.channels; ++c) {
            std::fill_n(output[c], frames, 0.0f);
        }
        mOutputFrames += frames;
        return;
    }
    if (mPhase == Phase::priming && advancePriming(frames)) {
        mPhase = Phase::crossfading;
        mFadePosition = 0;
    }
    renderLane(*mActive, output, frames);
    if (mPhase == Phase::crossfading) {
        renderLane(*mIncoming, mMixPointers.data(), frames);
        if (mFadePosition == 0) {
            chooseCrossfade(output, frames);
        }
        for (int c = 0; c < mConfig.channels; ++c) {
            float* out = output[c];
            const float* in = mMixPointers[std::size_t(c)];
            for (long i = 0; i < frames; ++i) {
                const long t = std::min(mFadePosition + i, mCrossfadeFrames);
                // Fade-out gain a, and the fade-in gain that keeps the power of a mix of two
                // signals with correlation r: a^2 + b^2 + 2rab = 1 (equal power for r = 0,
                // linear for r = 1).
                const double a = mFadeIn[std::size_t(mCrossfadeFrames - t)];
                const double r = mFadeCorrelation;
                const double b = -r * a + std::sqrt(std::max(0.0, 1.0 - a * a * (1.0 - r * r)));
                out[i] = float(out[i] * a + in[i] * b);
            }
        }
        mFadePosition += frames;
        if (mFadePosition >= mCrossfadeFrames) {
            finishCrossfade();
        }
    }
    mOutputFrames += frames;
}

void Stretcher::pollControl() noexcept
{
    const std::uint64_t version = mVersion.load();
    if (version != mSeenVersion) {
        mSeenVersion = version;
        const double timeFactor = mTimeFactor.load();
        if (timeFactor != mSegmentTimeFactor) {
            // The next piece of the frame mapping starts here.
            mSegmentInput = targetInputFrame(double(mOutputFrames));
            mSegmentOutput = double(mOutputFrames);
            mSegmentTimeFactor = timeFactor;
        }
    }

    Lane* ready = nullptr;
    for (auto& lane : mLanes) {
        if (lane->owner.load() == kOwnerReady) {
            ready = lane.get();
            break;
        }
    }
    if (ready == nullptr) {
        return;
    }
    const auto peeked = Handover(ready->handover.load());
    if (peeked == Handover::change) {
        if (mPhase == Phase::crossfading) {
            return; // taken once this fade is over
        }
        if (mPhase == Phase::priming) {
            // A newer change: drop the lane being primed (given back first, so that the
            // render thread never holds three lanes while the control side looks for one).
            giveBack(mIncoming);
            mPhase = Phase::idle;
        }
    }
    int expected = kOwnerReady;
    if (!ready->owner.compare_exchange_strong(expected, kOwnerRender)) {
        return; // the control side took it back to re-prepare it
    }
    // Owned now, so the handover is stable; a re-prepared lane only ever became stronger.
    const auto handover = Handover(ready->handover.load());
    if (handover == Handover::change && mActive != nullptr) {
        beginPriming(*ready);
    } else {
        const bool fade = handover == Handover::restartFade;
        if (mIncoming != nullptr) {
            giveBack(mIncoming);
        }
        if (mActive != nullptr && !fade) {
            giveBack(mActive);
            mCleared = true;
        }
        restartTimeline(*ready);
    }
}

void Stretcher::restartTimeline(Lane& lane) noexcept
{
    mOutputFrames = 0;
    mPulled = 0;
    mSeenVersion = mVersion.load();
    mSegmentOutput = 0.0;
    mSegmentInput = 0.0;
    mSegmentTimeFactor = mTimeFactor.load();
    mRestarts.fetch_add(1);
    if (mDecimator) {
        mDecimator->reset();
        mDecimatorSkip = RateDividerFilter::delayFrames();
    }

    lane.startPosition = 0;
    lane.inputPosition = -lane.pad;
    lane.outputOrigin = 0.0;
    lane.emitted = 0;
    lane.silentInput = false;
    lane.polarity = 1.0f;
    lane.pendingZeros = std::max(-lane.drop, 0L);
    lane.pendingDiscard = std::max(lane.drop, 0L);

    if (mActive != nullptr) {
        // Restart without clearing: the old sound plays out its tail (fed silence) under the
        // new one.
        mActive->silentInput = true;
        mIncoming = &lane;
        mPhase = Phase::crossfading;
        mFadePosition = 0;
    } else {
        mActive = &lane;
        mPhase = Phase::idle;
    }
}

void Stretcher::beginPriming(Lane& lane) noexcept
{
    // The lane starts at a whole input frame at or before the one the mapping puts at the
    // current output frame, with the input before it (from the history) as its start pad. Its
    // output frame j then carries input start + j / timeFactor, which the mapping puts at
    // output origin + j; priming skips the frames before the current one. Rubber Band's first
    // startDelay output frames are its start-up (over a padded silence they are what the drop
    // removes); when the lane's measured offset keeps some of them (drop below the delay),
    // the lane starts early enough for all of them to be skipped, never heard.
    const double input = targetInputFrame(double(mOutputFrames));
    const double unsettled =
        double(std::max(lane.delay - lane.drop, 0L)) / lane.parameters.timeFactor;
    const auto start = Frame(std::floor(input - unsettled)) - (unsettled > 0.0 ? 1 : 0);
    lane.startPosition = start;
    lane.inputPosition = start - lane.pad;
    lane.outputOrigin = mSegmentOutput + (double(start) - mSegmentInput) * mSegmentTimeFactor;
    lane.emitted = 0;
    lane.silentInput = false;
    lane.polarity = mActive != nullptr ? mActive->polarity : 1.0f;
    lane.pendingZeros = std::max(-lane.drop, 0L);
    lane.pendingDiscard = std::max(lane.drop, 0L);
    mIncoming = &lane;
    mPhase = Phase::priming;
}

bool Stretcher::advancePriming(long sliceFrames) noexcept
{
    Lane& lane = *mIncoming;
    // Lane frames that belong before this slice: skip them, a bounded amount per slice.
    const auto target = Frame(std::llround(double(mOutputFrames) - lane.outputOrigin));
    const Frame missing = target - lane.emitted;
    if (missing > 0) {
        skipLane(lane, long(missing), kPrimeFeeds + int(sliceFrames / kPrimeFramesPerFeed));
    }
    return lane.emitted >= target;
}

void Stretcher::chooseCrossfade(float* const* fadingOut, long frames) noexcept
{
    // Both lanes carry the same music, so on steady sounds they can be strongly correlated,
    // or anti-correlated: an equal-power fade would then swell or cancel in the middle. Measure
    // the correlation on the first slice, turn the incoming lane over if it is negative (a
    // whole lane's polarity is inaudible; it keeps it until it hands over in turn), and fade
    // with the law that keeps the power for that correlation.
    double ab = 0.0, aa = 0.0, bb = 0.0;
    for (int c = 0; c < mConfig.channels; ++c) {
        const float* a = fadingOut[c];
        const float* b = mMixPointers[std::size_t(c)];
        for (long i = 0; i < frames; ++i) {
            ab += double(a[i]) * double(b[i]);
            aa += double(a[i]) * double(a[i]);
            bb += double(b[i]) * double(b[i]);
        }
    }
    const double correlation = aa > 0.0 && bb > 0.0 ? ab / std::sqrt(aa * bb) : 0.0;
    if (correlation < 0.0) {
        mIncoming->polarity = -mIncoming->polarity;
        for (int c = 0; c < mConfig.channels; ++c) {
            float* b = mMixPointers[std::size_t(c)];
            for (long i = 0; i < frames; ++i) {
                b[i] = -b[i];
            }
        }
    }
    mFadeCorrelation = std::min(std::fabs(correlation), 1.0);
}

void Stretcher::finishCrossfade() noexcept
{
    giveBack(mActive);
    mActive = mIncoming;
    mIncoming = nullptr;
    mPhase = Phase::idle;
    mCrossfades.fetch_add(1);
}

void Stretcher::giveBack(Lane*& lane) noexcept
{
    if (lane != nullptr) {
        lane->owner.store(kOwnerControl);
        lane = nullptr;
    }
}

double Stretcher::targetInputFrame(double outputFrame) const noexcept
{
    return mSegmentInput + (outputFrame - mSegmentOutput) / mSegmentTimeFactor;
}

void Stretcher::renderLane(Lane& lane, float* const* output, long frames) noexcept
{
    RubberBandStretcher& rb = *lane.rb;
    const int channels = mConfig.channels;
    std::array<float*, kMaxChannels> to{};
    long produced = 0;
    int feeds = 0;
    while (produced < frames) {
        if (lane.pendingZeros > 0) {
            const long zeros = std::min(lane.pendingZeros, frames - produced);
            for (int c = 0; c < channels; ++c) {
                std::fill_n(output[c] + produced, zeros, 0.0f);
            }
            lane.pendingZeros -= zeros;
            produced += zeros;
            continue;
        }
        const int available = rb.available();
        if (available > 0) {
            if (lane.pendingDiscard > 0) {
                const long discard =
                    std::min({long(available), lane.pendingDiscard, kDiscardFrames});
                rb.retrieve(mDiscardPointers.data(), std::size_t(discard));
                lane.pendingDiscard -= discard;
                continue;
            }
            const long wanted = std::min(long(available), frames - produced);
            for (int c = 0; c < channels; ++c) {
                to[std::size_t(c)] = output[c] + produced;
            }
            const long got = long(rb.retrieve(to.data(), std::size_t(wanted)));
            if (lane.polarity < 0.0f) {
                for (int c = 0; c < channels; ++c) {
                    float* turned = to[std::size_t(c)];
                    for (long i = 0; i < got; ++i) {
                        turned[i] = -turned[i];
                    }
                }
            }
            produced += got;
            continue;
        }
        if (feeds == kMaxFeedsPerSlice || !feedLane(lane)) {
            for (int c = 0; c < channels; ++c) {
                std::fill_n(output[c] + produced, frames - produced, 0.0f);
            }
            break;
        }
        ++feeds;
    }
    lane.emitted += frames;
}

void Stretcher::skipLane(Lane& lane, long frames, int feedBudget) noexcept
{
    RubberBandStretcher& rb = *lane.rb;
    long remaining = frames;
    int feeds = 0;
    while (remaining > 0) {
        if (lane.pendingZeros > 0) {
            const long zeros = std::min(lane.pendingZeros, remaining);
            lane.pendingZeros -= zeros;
            lane.emitted += zeros;
            remaining -= zeros;
            continue;
        }
        const int available = rb.available();
        if (available > 0) {
            const long taken = long(rb.retrieve(
                mDiscardPointers.data(),
                std::size_t(std::min({long(available), lane.pendingDiscard + remaining,
                                      kDiscardFrames}))));
            const long discarded = std::min(taken, lane.pendingDiscard);
            lane.pendingDiscard -= discarded;
            lane.emitted += taken - discarded;
            remaining -= taken - discarded;
            continue;
        }
        if (feeds == feedBudget || !feedLane(lane)) {
            break;
        }
        ++feeds;
    }
}

bool Stretcher::feedLane(Lane& lane) noexcept
{
    long frames = long(lane.rb->getSamplesRequired());
    if (frames <= 0) {
        frames = 512; // Rubber Band wants nothing yet nothing is available: nudge it
    }
    frames = std::min(frames, mMaxFeedFrames);
    if (lane.inputPosition < lane.startPosition) {
        // The start pad goes in a call of its own, as Rubber Band expects it: R2 handles one
        // hop per call, so a first call that also carried input would leave it a backlog (and
        // more latency) for good.
        frames = std::min(frames, long(lane.startPosition - lane.inputPosition));
    }
    if (lane.silentInput) {
        for (int c = 0; c < mConfig.channels; ++c) {
            std::fill_n(mFeedPointers[std::size_t(c)], frames, 0.0f);
        }
    } else {
        pullUntil(lane.inputPosition + frames);
        readHistory(lane.inputPosition, frames);
    }
    const float* const* input = mFeedPointers.data();
    lane.rb->process(input, std::size_t(frames), false);
    lane.inputPosition += frames;
    return true;
}

void Stretcher::pullUntil(Frame end) noexcept
{
    while (mPulled < end) {
        long block = mMinPullFrames;
        if (mActive != nullptr) {
            block = std::max(block, mActive->pullFrames);
        }
        if (mIncoming != nullptr) {
            block = std::max(block, mIncoming->pullFrames);
        }
        const long wanted = block * mRateDivisor;
        long got = mCallback(mPullPointers.data(), wanted, mOwner);
        mPulls.fetch_add(1);
        got = std::clamp(got, 0L, wanted);
        for (int c = 0; c < mConfig.channels; ++c) {
            float* pulled = mPullPointers[std::size_t(c)];
            std::fill(pulled + got, pulled + wanted, 0.0f);
        }
        if (!mDecimator) {
            writeHistory(mPullPointers.data(), block);
            continue;
        }
        mDecimator->process(mPullPointers.data(), mDecimatedPointers.data(), block);
        // After a restart the decimator's first frames stand for input before the first one.
        const long skip = std::min(mDecimatorSkip, block);
        mDecimatorSkip -= skip;
        std::array<const float*, kMaxChannels> kept{};
        for (int c = 0; c < mConfig.channels; ++c) {
            kept[std::size_t(c)] = mDecimatedPointers[std::size_t(c)] + skip;
        }
        writeHistory(kept.data(), block - skip);
    }
}

void Stretcher::writeHistory(const float* const* from, long frames) noexcept
{
    const Frame historyFrames = mHistoryMask + 1;
    for (int c = 0; c < mConfig.channels; ++c) {
        const float* pulled = from[c];
        float* ring = mHistory[std::size_t(c)].data();
        const Frame at = mPulled & mHistoryMask;
        const long first = long(std::min<Frame>(frames, historyFrames - at));
        std::memcpy(ring + at, pulled, std::size_t(first) * sizeof(float));
        std::memcpy(ring, pulled + first, std::size_t(frames - first) * sizeof(float));
    }
    mPulled += frames;
}

void Stretcher::readHistory(Frame start, long frames) noexcept
{
    const Frame historyFrames = mHistoryMask + 1;
    const Frame oldest = std::max<Frame>(0, mPulled - historyFrames);
    const Frame end = start + frames;
    // Before the first input frame: the start pad, silence. Frames the ring has already
    // overwritten (never expected) and frames not pulled (cannot happen) read as silence too.
    const Frame validStart = std::clamp(start, oldest, end);
    const Frame validEnd = std::clamp(end, validStart, mPulled);
    const Frame lost = std::min(end, oldest) - std::max<Frame>(start, 0);
    if (lost > 0) {
        mHistoryOverruns.fetch_add(std::uint64_t(lost));
    }
    for (int c = 0; c < mConfig.channels; ++c) {
        float* to = mFeedPointers[std::size_t(c)];
        const float* ring = mHistory[std::size_t(c)].data();
        std::fill(to, to + (validStart - start), 0.0f);
        Frame position = validStart;
        while (position < validEnd) {
            const Frame at = position & mHistoryMask;
            const Frame run = std::min(validEnd - position, historyFrames - at);
            std::memcpy(to + (position - start), ring + at, std::size_t(run) * sizeof(float));
            position += run;
        }
        std::fill(to + (validEnd - start), to + frames, 0.0f);
    }
}

} // namespace vell::detail
