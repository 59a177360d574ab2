// Stereo-position and frequency-band isolation by short-time Fourier masking.
#include "isolation/IsolationEngine.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numbers>
#include <stdexcept>

namespace vell {

namespace {

constexpr int kOverlap = IsolationEngine::kFftSize / IsolationEngine::kHopSize;

// Time constants of the smoothing over frames: the bin statistics that give positions, and the
// gains themselves. Short enough to follow notes, long enough that the mask does not flicker.
constexpr double kStatisticsTimeConstant = 0.030;
constexpr double kGainTimeConstant = 0.020;

// Half-width of the soft edge of the selection in the stereo field (position units).
constexpr float kPositionTaper = 0.04f;
// Half-width of the soft band edges: a fraction of the edge frequency, but never below this many
// bins, since an edge sharper than the bins would ring through the whole frame.
constexpr float kFrequencyTaperFraction = 0.03f;
constexpr float kFrequencyTaperMinBins = 1.5f;

// Below this, a bin holds no power worth locating.
constexpr float kSilentPower = 1e-20f;

float smoothstep(float x) noexcept
{
    x = std::clamp(x, 0.0f, 1.0f);
    return x * x * (3.0f - 2.0f * x);
}

// The rising edge of a selection that starts at edge, tapered over [edge - taper, edge + taper].
float risingEdge(float x, float edge, float taper) noexcept
{
    return smoothstep((x - (edge - taper)) / (2.0f * taper));
}

float fallingEdge(float x, float edge, float taper) noexcept
{
    return 1.0f - risingEdge(x, edge, taper);
}

} // namespace

IsolationEngine::IsolationEngine(double sampleRate, int channels)
    : mSampleRate(sampleRate), mChannels(channels), mFft(kFftSize)
{
    if (!(sampleRate > 0.0) || !std::isfinite(sampleRate))
        throw std::invalid_argument("isolation: the sample rate must be positive");
    if (channels < 1 || channels > kMaxChannels)
        throw std::invalid_argument("isolation: unsupported channel count");

    mEndHz.store(static_cast<float>(sampleRate * 0.5));

    mAnalysisWindow.resize(kFftSize);
    mSynthesisWindow.resize(kFftSize);
    mIdentityWindow.resize(kFftSize);
    // Periodic Hann: copies shifted by a quarter frame sum to exactly 2.
    constexpr double kOverlapAddGain = 0.5;
    for (int i = 0; i < kFftSize; ++i) {
        const double hann = 0.5 - 0.5 * std::cos(2.0 * std::numbers::pi * i / kFftSize);
        mAnalysisWindow[i] = static_cast<float>(std::sqrt(hann));
        mSynthesisWindow[i] = static_cast<float>(std::sqrt(hann) * kOverlapAddGain / kFftSize);
        mIdentityWindow[i] = static_cast<float>(hann * kOverlapAddGain);
    }

    mHistory.assign(channels, std::vector<float>(kFftSize + kHopSize));
    mAccumulator.assign(channels, std::vector<float>(kFftSize));
    mFrame = detail::FftwArray<float>(kFftSize);
    mSpectra.reserve(channels);
    for (int c = 0; c < channels; ++c)
        mSpectra.emplace_back(kBinCount);
    for (auto* v : {&mPowerLeft, &mPowerRight, &mCross, &mRawLeft, &mRawRight, &mRawCross,
                    &mPosition, &mPhaseWeight, &mFrequencyMask, &mGain})
        v->assign(kBinCount, 0.0f);

    const double hopSeconds = kHopSize / sampleRate;
    mStatisticsDecay = static_cast<float>(std::exp(-hopSeconds / kStatisticsTimeConstant));
    mGainDecay = static_cast<float>(std::exp(-hopSeconds / kGainTimeConstant));

    reset();
}

IsolationEngine::~IsolationEngine() = default;

VELL_RT void IsolationEngine::setPan(float pan) noexcept
{
    if (!std::isnan(pan))
        mPan.store(std::clamp(pan, 0.0f, 1.0f));
}

VELL_RT void IsolationEngine::setPanWidth(float width) noexcept
{
    if (!std::isnan(width))
        mWidth.store(std::clamp(width, 0.0f, 1.0f));
}

VELL_RT void IsolationEngine::setStartFrequencyHz(float hz) noexcept
{
    if (!std::isnan(hz))
        mStartHz.store(std::max(hz, 0.0f));
}

VELL_RT void IsolationEngine::setEndFrequencyHz(float hz) noexcept
{
    if (!std::isnan(hz))
        mEndHz.store(std::max(hz, 0.0f));
}

VELL_RT void IsolationEngine::reset() noexcept
{
    for (auto& history : mHistory)
        std::fill(history.begin(), history.end(), 0.0f);
    for (auto& accumulator : mAccumulator)
        std::fill(accumulator.begin(), accumulator.end(), 0.0f);
    std::fill(mPowerLeft.begin(), mPowerLeft.end(), 0.0f);
    std::fill(mPowerRight.begin(), mPowerRight.end(), 0.0f);
    std::fill(mCross.begin(), mCross.end(), 0.0f);
    std::fill(mGain.begin(), mGain.end(), 1.0f);
    mFill = 0;
    // A silent history looks the same whether it was masked or not: start as if bypassed all
    // along, so a bypassed engine outputs the exact delayed input from the first sample.
    mIdentityRun = kOverlap;
    mStatisticsPrimed = false;
    mGainPrimed = false;
    mMaskStartHz = -1.0f;
    mMaskEndHz = -1.0f;

    Snapshot& snapshot = mSnapshots.back();
    snapshot.left.fill(0.0f);
    snapshot.right.fill(0.0f);
    snapshot.spread.fill(0.0f);
    mSnapshots.publish();
}

VELL_RT void IsolationEngine::process(const float* const* input, float* const* output,
                                      int frames) noexcept
{
    int done = 0;
    while (done < frames) {
        const int n = std::min(frames - done, kHopSize - mFill);
        // Once every frame overlapping the output was passed unmasked, the output is exactly the
        // delayed input: take it from the history rather than through the transforms.
        const bool dry = mIdentityRun >= kOverlap;
        const std::size_t bytes = static_cast<std::size_t>(n) * sizeof(float);
        for (int c = 0; c < mChannels; ++c) {
            float* history = mHistory[c].data();
            // Input first, so that processing in place works.
            std::memcpy(history + kFftSize + mFill, input[c] + done, bytes);
            const float* source = dry ? history + mFill : mAccumulator[c].data() + mFill;
            std::memcpy(output[c] + done, source, bytes);
        }
        mFill += n;
        done += n;
        if (mFill == kHopSize) {
            processFrame();
            mFill = 0;
        }
    }
}

VELL_RT void IsolationEngine::processFrame() noexcept
{
    const Settings settings{mBypass.load(), mMute.load(),    mPan.load(),
                            mWidth.load(),  mStartHz.load(), mEndHz.load()};

    // The first hop of the accumulator was output during this hop; move on by one hop.
    for (auto& accumulator : mAccumulator) {
        std::memmove(accumulator.data(), accumulator.data() + kHopSize,
                     (kFftSize - kHopSize) * sizeof(float));
        std::fill(accumulator.end() - kHopSize, accumulator.end(), 0.0f);
    }

    // The frame is the newest kFftSize samples of the history. Statistics follow the input
    // even while bypassed, so that they are current when the mask comes back; an engine told
    // not to analyse while bypassed skips them and starts them afresh then.
    const bool analyse = !settings.bypass || mAnalyseBypassed.load();
    if (analyse) {
        for (int c = 0; c < mChannels; ++c) {
            const float* frame = mHistory[c].data() + kHopSize;
            for (int i = 0; i < kFftSize; ++i)
                mFrame[i] = frame[i] * mAnalysisWindow[i];
            mFft.forward(mFrame.data(), mSpectra[c].data());
        }
        updateStatistics();
    } else {
        mStatisticsPrimed = false;
    }

    if (settings.bypass) {
        // Exactly what a frame with a gain of one everywhere adds, without the transforms.
        for (int c = 0; c < mChannels; ++c) {
            const float* frame = mHistory[c].data() + kHopSize;
            float* accumulator = mAccumulator[c].data();
            for (int i = 0; i < kFftSize; ++i)
                accumulator[i] += frame[i] * mIdentityWindow[i];
        }
        // Coming back from bypass, the gains glide down from one.
        std::fill(mGain.begin(), mGain.end(), 1.0f);
        mGainPrimed = true;
        mIdentityRun = std::min(mIdentityRun + 1, kOverlap);
        if (analyse)
            publishSnapshot();
    } else {
        updateFrequencyMask(settings);
        computeGains(settings);
        for (int c = 0; c < mChannels; ++c) {
            std::complex<float>* bins = mSpectra[c].data();
            for (int k = 0; k < kBinCount; ++k)
                bins[k] *= mGain[k];
        }
        // Before the inverse transforms, which overwrite the spectra.
        publishSnapshot();
        for (int c = 0; c < mChannels; ++c) {
            mFft.inverse(mSpectra[c].data(), mFrame.data());
            float* accumulator = mAccumulator[c].data();
            for (int i = 0; i < kFftSize; ++i)
                accumulator[i] += mFrame[i] * mSynthesisWindow[i];
        }
        mIdentityRun = 0;
    }

    for (auto& history : mHistory)
        std::memmove(history.data(), history.data() + kHopSize, kFftSize * sizeof(float));
}

VELL_RT void IsolationEngine::updateStatistics() noexcept
{
    const std::complex<float>* left = mSpectra[0].data();
    const std::complex<float>* right = mSpectra[mChannels > 1 ? 1 : 0].data();
    for (int k = 0; k < kBinCount; ++k) {
        mRawLeft[k] = std::norm(left[k]);
        mRawRight[k] = std::norm(right[k]);
        mRawCross[k] = left[k].real() * right[k].real() + left[k].imag() * right[k].imag();
    }

    // Smooth over neighbouring bins ([1 2 1] / 4, mirrored at the ends), then over frames.
    const float keep = mStatisticsPrimed ? mStatisticsDecay : 0.0f;
    const float take = 1.0f - keep;
    auto smooth = [&](const std::vector<float>& raw, std::vector<float>& smoothed) {
        for (int k = 0; k < kBinCount; ++k) {
            const float below = raw[k > 0 ? k - 1 : 1];
            const float above = raw[k + 1 < kBinCount ? k + 1 : kBinCount - 2];
            const float value = 0.25f * below + 0.5f * raw[k] + 0.25f * above;
            smoothed[k] = keep * smoothed[k] + take * value;
        }
    };
    smooth(mRawLeft, mPowerLeft);
    smooth(mRawRight, mPowerRight);
    smooth(mRawCross, mCross);
    mStatisticsPrimed = true;

    constexpr float kToPosition = static_cast<float>(2.0 / std::numbers::pi);
    for (int k = 0; k < kBinCount; ++k) {
        const float powerLeft = mPowerLeft[k];
        const float powerRight = mPowerRight[k];
        const float total = powerLeft + powerRight;
        if (total <= kSilentPower) {
            mPosition[k] = 0.5f;
            mPhaseWeight[k] = 1.0f;
            continue;
        }
        mPosition[k] = std::atan2(std::sqrt(powerRight), std::sqrt(powerLeft)) * kToPosition;
        // A panned source has both channels in phase. Out-of-phase or uncorrelated content
        // belongs to no position; it counts only where both channels carry it (balance near 1),
        // since at the sides the weaker channel's phase is mere leakage.
        const float geometric = std::sqrt(powerLeft * powerRight);
        const float balance = 2.0f * geometric / total;
        const float coherence = geometric > 0.0f ? mCross[k] / geometric : 1.0f;
        mPhaseWeight[k] = 1.0f - balance * (1.0f - smoothstep(coherence * 2.0f));
    }
}

VELL_RT void IsolationEngine::updateFrequencyMask(const Settings& settings) noexcept
{
    if (settings.startHz == mMaskStartHz && settings.endHz == mMaskEndHz)
        return;
    mMaskStartHz = settings.startHz;
    mMaskEndHz = settings.endHz;

    const float binHz = static_cast<float>(mSampleRate / kFftSize);
    const float nyquist = static_cast<float>(mSampleRate * 0.5);
    const bool openBelow = settings.startHz <= kLowestFrequencyHz;
    const bool openAbove = settings.endHz >= nyquist;
    if (!openBelow && !openAbove && settings.startHz >= settings.endHz) {
        std::fill(mFrequencyMask.begin(), mFrequencyMask.end(), 0.0f);
        return;
    }
    const float minTaper = kFrequencyTaperMinBins * binHz;
    const float startTaper = std::max(settings.startHz * kFrequencyTaperFraction, minTaper);
    const float endTaper = std::max(settings.endHz * kFrequencyTaperFraction, minTaper);
    for (int k = 0; k < kBinCount; ++k) {
        const float hz = static_cast<float>(k) * binHz;
        float gain = 1.0f;
        if (!openBelow)
            gain *= risingEdge(hz, settings.startHz, startTaper);
        if (!openAbove)
            gain *= fallingEdge(hz, settings.endHz, endTaper);
        mFrequencyMask[k] = gain;
    }
}

VELL_RT void IsolationEngine::computeGains(const Settings& settings) noexcept
{
    const float low = settings.pan - 0.5f * settings.width;
    const float high = settings.pan + 0.5f * settings.width;
    // Edges at or beyond the ends of the field are open: nothing lies past them.
    const bool openLow = low <= 0.0f;
    const bool openHigh = high >= 1.0f;
    const bool wholeField = openLow && openHigh;
    const bool emptyField = settings.width <= 0.0f;

    const float keep = mGainPrimed ? mGainDecay : 0.0f;
    const float take = 1.0f - keep;
    for (int k = 0; k < kBinCount; ++k) {
        float inField = 1.0f;
        if (emptyField) {
            inField = 0.0f;
        } else if (!wholeField) {
            const float position = mPosition[k];
            if (!openLow)
                inField *= risingEdge(position, low, kPositionTaper);
            if (!openHigh)
                inField *= fallingEdge(position, high, kPositionTaper);
            inField *= mPhaseWeight[k];
        }
        const float selected = inField * mFrequencyMask[k];
        const float target = settings.mute ? 1.0f - selected : selected;
        mGain[k] = keep * mGain[k] + take * target;
    }
    mGainPrimed = true;
}

VELL_RT void IsolationEngine::publishSnapshot() noexcept
{
    Snapshot& snapshot = mSnapshots.back();
    const std::complex<float>* left = mSpectra[0].data();
    const std::complex<float>* right = mSpectra[mChannels > 1 ? 1 : 0].data();
    for (int k = 0; k < kSpectrumLength; ++k) {
        snapshot.left[k] = std::sqrt(std::norm(left[k]));
        snapshot.right[k] = std::sqrt(std::norm(right[k]));
    }
    snapshot.spread.fill(0.0f);
    for (int k = 0; k < kBinCount; ++k) {
        const int slot = std::min(static_cast<int>(mPosition[k] * kPowerSpreadLength),
                                  kPowerSpreadLength - 1);
        snapshot.spread[slot] += mPowerLeft[k] + mPowerRight[k];
    }
    mSnapshots.publish();
}

void IsolationEngine::copySpectrum(float* left, float* right, int length)
{
    if (length <= 0)
        return;
    const int count = std::min(length, kSpectrumLength);
    std::lock_guard lock(mReaderMutex);
    const Snapshot& snapshot = mSnapshots.read();
    if (left != nullptr) {
        std::copy_n(snapshot.left.begin(), count, left);
        std::fill(left + count, left + length, 0.0f);
    }
    if (right != nullptr) {
        std::copy_n(snapshot.right.begin(), count, right);
        std::fill(right + count, right + length, 0.0f);
    }
}

void IsolationEngine::copyPowerSpread(float* spread, int length)
{
    if (spread == nullptr || length <= 0)
        return;
    std::fill(spread, spread + length, 0.0f);
    std::lock_guard lock(mReaderMutex);
    const Snapshot& snapshot = mSnapshots.read();
    for (int i = 0; i < kPowerSpreadLength; ++i) {
        const double centre = (i + 0.5) / kPowerSpreadLength;
        const int slot = std::min(static_cast<int>(centre * length), length - 1);
        spread[slot] += snapshot.spread[i];
    }
}

} // namespace vell
