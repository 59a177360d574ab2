// Spectral freeze: sustains the spectrum of a short window indefinitely, optionally transposed.
#include "audio/effects/Freezer.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numbers>
#include <stdexcept>

namespace vell::BRIXEffect {

namespace {

constexpr float kTwoPi = 2.0f * std::numbers::pi_v<float>;
constexpr float kPi = std::numbers::pi_v<float>;

// Zero padding of the analysis that measures peak frequencies.
constexpr int kFineFactor = 4;
// A local maximum is a tonal peak when it stands this far (power ratio) above the bins around it.
constexpr float kTonalRatio = 10.0f;
// Bins compared with a candidate peak: out to kNeighbourhood, leaving out its own main lobe.
constexpr int kNeighbourhood = 8;
constexpr int kMainLobe = 2;
// Bins on each side of a tonal peak that follow its phase (the Hann main lobe and a margin).
constexpr int kPeakRegion = 4;
// Overlap-add sums of the Hann synthesis window at a quarter-frame hop: the window times the
// (Hann-windowed) analysed frame for tonal bins, the window squared for noise bins, whose
// random-phase frames spread the windowed frame's energy evenly over the frame.
constexpr float kTonalGain = 1.0f / 1.5f;
constexpr float kNoiseGain = 1.0f / 0.75f;

// The resampler's windowed sinc: zero crossings on each side and table points per unit.
constexpr int kZeroCrossings = 16;
constexpr int kKernelResolution = 512;
constexpr double kKaiserBeta = 8.6;
// The largest resampling ratio (the largest upward shift) and so the widest kernel.
constexpr int kMaxRatio = 4;
constexpr int kMaxTaps = 2 * kZeroCrossings * kMaxRatio;

double besselI0(double x)
{
    double sum = 1.0, term = 1.0;
    for (int k = 1; k < 50; ++k) {
        term *= (x / (2.0 * k)) * (x / (2.0 * k));
        sum += term;
        if (term < sum * 1e-17)
            break;
    }
    return sum;
}

// The fftSize-point DFT, at a bin lying delta bins below a complex exponential's frequency, of that
// exponential under the periodic Hann window of the same length: the shape of a sine's peak.
std::complex<double> hannLobe(double delta, int size) noexcept
{
    auto dirichlet = [size](double d) -> std::complex<double> {
        const double denominator = std::sin(std::numbers::pi * d / size);
        const double magnitude = std::abs(denominator) < 1e-12
                                     ? double(size)
                                     : std::sin(std::numbers::pi * d) / denominator;
        return std::polar(magnitude, std::numbers::pi * d * (size - 1) / size);
    };
    return 0.5 * dirichlet(delta) - 0.25 * dirichlet(delta + 1.0) -
           0.25 * dirichlet(delta - 1.0);
}

float wrapPhase(float phase) noexcept
{
    if (phase > kPi || phase < -kPi)
        phase -= kTwoPi * std::nearbyint(phase / kTwoPi);
    return phase;
}

// What the triple buffer's slots start as: sized for the analysis, holding no window.
template <class Spectrum> Spectrum makeEmptySpectrum(int bins, int channels)
{
    Spectrum empty;
    empty.coefficients.assign(std::size_t(bins) * std::size_t(std::max(channels, 1)), {});
    empty.peakOf.assign(std::size_t(bins), -1);
    empty.peakOffset.assign(std::size_t(bins), 0.0f);
    empty.advance.assign(std::size_t(bins), 0.0f);
    return empty;
}

} // namespace

Freezer::FrozenSpectrum Freezer::emptySpectrum(int bins, int channels)
{
    return makeEmptySpectrum<FrozenSpectrum>(bins, channels);
}

Freezer::Freezer(int sampleRate, int channels, int fftSize)
    : SpectralProcessor(sampleRate, channels), mFftSize(fftSize), mHop(fftSize / 4),
      mBins(fftSize / 2 + 1),
      mFineFft((fftSize >= 256 && fftSize <= 32768 && (fftSize & (fftSize - 1)) == 0)
                   ? fftSize * kFineFactor
                   : throw std::invalid_argument("freezer: unsupported FFT size")),
      mSpectra(emptySpectrum(fftSize / 2 + 1, channels)), mFft(fftSize)
{
    if (sampleRate <= 0 || channels < 1)
        throw std::invalid_argument("freezer: bad sample rate or channel count");

    const std::size_t bins = static_cast<std::size_t>(mBins);
    const std::size_t fineBins = static_cast<std::size_t>(mFineFft.binCount());
    mAnalysisFrame = detail::FftwArray<float>(static_cast<std::size_t>(mFineFft.size()));
    for (int c = 0; c < channels; ++c)
        mAnalysisSpectra.emplace_back(fineBins);
    mPeakPower.assign(bins, 0.0f);
    mReference.assign(bins, {});
    mBinValue.assign(bins * static_cast<std::size_t>(channels), {});
    mPeakFineBin.assign(bins, 0);
    mPeakPosition.assign(bins, 0.0f);
    mPeakCorrection.assign(bins, 1.0f);
    mWindow.resize(static_cast<std::size_t>(fftSize));
    for (int i = 0; i < fftSize; ++i)
        mWindow[i] = static_cast<float>(0.5 - 0.5 * std::cos(2.0 * std::numbers::pi * i / fftSize));
    mAnalysisWindow = mWindow;

    mPhase.assign(bins, 0.0f);
    mRotation.assign(bins, {});
    mSynthesisSpectrum = detail::FftwArray<std::complex<float>>(bins);
    mSynthesisFrame = detail::FftwArray<float>(static_cast<std::size_t>(fftSize));
    mAccumulator.assign(static_cast<std::size_t>(channels),
                        std::vector<float>(static_cast<std::size_t>(fftSize)));
    mRing.assign(static_cast<std::size_t>(channels), std::vector<float>(kRingSize));

    mKernel.resize(kZeroCrossings * kKernelResolution + 2);
    const double i0Beta = besselI0(kKaiserBeta);
    for (std::size_t i = 0; i < mKernel.size(); ++i) {
        const double x = double(i) / kKernelResolution;
        const double sinc = x == 0.0 ? 1.0
                                     : std::sin(std::numbers::pi * x) / (std::numbers::pi * x);
        const double r = x / kZeroCrossings;
        const double window = r < 1.0 ? besselI0(kKaiserBeta * std::sqrt(1.0 - r * r)) / i0Beta
                                      : 0.0;
        mKernel[i] = static_cast<float>(sinc * window);
    }

    reset();
}

Freezer::~Freezer() = default;

VELL_RT void Freezer::pitchShift(float semitones) noexcept
{
    if (!std::isnan(semitones))
        mSemitones.store(std::clamp(semitones, -kMaxPitchShift, kMaxPitchShift));
}

void Freezer::setFrozenWindow(const float* const* channels, int frames) noexcept
{
    if (channels == nullptr || frames <= 0)
        return;
    for (int c = 0; c < channelCount(); ++c)
        if (channels[c] == nullptr)
            return;
    analyse(channels, frames, mSpectra.back());
    mSpectra.publish();
}

void Freezer::analyse(const float* const* channels, int frames, FrozenSpectrum& out) noexcept
{
    const int length = std::min(frames, mFftSize);
    const int fineSize = mFineFft.size();
    const int channelTotal = channelCount();

    // A shorter window is tapered over its own length and its level made up for below.
    for (int c = 0; c < channelTotal; ++c) {
        std::fill_n(mAnalysisFrame.data(), fineSize, 0.0f);
        for (int i = 0; i < length; ++i) {
            const float window =
                length == mFftSize
                    ? mAnalysisWindow[i]
                    : static_cast<float>(0.5 - 0.5 * std::cos(2.0 * std::numbers::pi * i / length));
            mAnalysisFrame[i] = channels[c][i] * window;
        }
        mFineFft.forward(mAnalysisFrame.data(), mAnalysisSpectra[c].data());
    }

    // Bin j of the fftSize-point spectrum is bin kFineFactor × j of the zero-padded one.
    auto at = [&](int c, int j) { return mAnalysisSpectra[c][std::size_t(j) * kFineFactor]; };
    auto value = [&](int c, int j) -> std::complex<float>& {
        return mBinValue[std::size_t(c) * mBins + j];
    };
    // A shorter window holds less energy: noise is brought up to a full window's level here,
    // tonal peaks are rebuilt below.
    const float shortness = std::sqrt(float(mFftSize) / float(length));
    for (int j = 0; j < mBins; ++j) {
        float power = 0.0f;
        for (int c = 0; c < channelTotal; ++c) {
            value(c, j) = at(c, j) * shortness;
            power += std::norm(at(c, j));
        }
        mPeakPower[j] = power;
    }

    std::fill(out.peakOf.begin(), out.peakOf.end(), -1);
    std::fill(out.advance.begin(), out.advance.end(), 0.0f);
    std::fill(out.peakOffset.begin(), out.peakOffset.end(), 0.0f);
    auto finePower = [&](int q) {
        float sum = 0.0f;
        for (int c = 0; c < channelTotal; ++c)
            sum += std::norm(mAnalysisSpectra[c][std::size_t(q)]);
        return sum;
    };
    for (int p = 1; p + 1 < mBins; ++p) {
        const float power = mPeakPower[p];
        if (!(power > mPeakPower[p - 1] && power >= mPeakPower[p + 1]) ||
            (p >= 2 && power < mPeakPower[p - 2]) || (p + 2 < mBins && power < mPeakPower[p + 2]))
            continue;
        float around = 0.0f;
        int count = 0;
        for (int j = std::max(0, p - kNeighbourhood);
             j <= std::min(mBins - 1, p + kNeighbourhood); ++j) {
            if (std::abs(j - p) > kMainLobe) {
                around += mPeakPower[j];
                ++count;
            }
        }
        if (power <= 1e-20f || power < kTonalRatio * around / float(std::max(count, 1)))
            continue;

        // The peak's frequency: the loudest zero-padded bin near it, refined by a parabola
        // through the log powers.
        int best = p * kFineFactor;
        for (int q = std::max(1, best - kFineFactor + 1);
             q <= std::min(fineSize / 2 - 1, best + kFineFactor - 1); ++q)
            if (finePower(q) > finePower(best))
                best = q;
        float offset = 0.0f;
        float peakCorrection = 1.0f; // the parabola's top against the loudest bin, in amplitude
        if (best > 0 && best < fineSize / 2) {
            const float below = std::log(finePower(best - 1) + 1e-30f);
            const float centre = std::log(finePower(best) + 1e-30f);
            const float above = std::log(finePower(best + 1) + 1e-30f);
            const float curvature = below - 2.0f * centre + above;
            if (curvature < 0.0f) {
                offset = std::clamp(0.5f * (below - above) / curvature, -0.5f, 0.5f);
                peakCorrection = std::exp(-0.125f * (below - above) * offset);
            }
        }
        const float finePosition = float(best) + offset;
        out.advance[p] = wrapPhase(kTwoPi * finePosition / float(fineSize) * float(mHop));

        // The bins around the peak follow it, each to its nearest peak.
        for (int j = std::max(0, p - kPeakRegion); j <= std::min(mBins - 1, p + kPeakRegion);
             ++j) {
            const int current = out.peakOf[j];
            if (current < 0 || std::abs(j - p) < std::abs(j - current))
                out.peakOf[j] = p;
        }

        mPeakFineBin[p] = best;
        mPeakPosition[p] = finePosition;
        mPeakCorrection[p] = peakCorrection;
    }

    if (length < mFftSize) {
        // A short window's peaks are broad and, sustained frame after frame, would throb:
        // rebuild each as the peak a full window of that sine would show, summing neighbours'.
        for (int j = 0; j < mBins; ++j)
            if (out.peakOf[j] >= 0)
                for (int c = 0; c < channelTotal; ++c)
                    value(c, j) = 0.0f;
        const double windowSum = 0.5 * length;
        for (int p = 0; p < mBins; ++p) {
            if (out.peakOf[p] != p)
                continue;
            const double peakBin = double(mPeakPosition[p]) / kFineFactor;
            for (int j = std::max(0, p - kPeakRegion); j <= std::min(mBins - 1, p + kPeakRegion);
                 ++j) {
                if (out.peakOf[j] < 0)
                    continue;
                const std::complex<double> lobe = hannLobe(peakBin - j, mFftSize);
                for (int c = 0; c < channelTotal; ++c) {
                    // The zero-padded peak bin holds (amplitude / 2) × windowSum; the lobe
                    // wants amplitude / 2.
                    const std::complex<double> z = mAnalysisSpectra[c][std::size_t(mPeakFineBin[p])];
                    value(c, j) += std::complex<float>(z * double(mPeakCorrection[p]) /
                                                       windowSum * lobe);
                }
            }
        }
    }

    for (int j = 0; j < mBins; ++j) {
        float power = 0.0f;
        std::complex<float> sum = 0.0f;
        int loudest = 0;
        for (int c = 0; c < channelTotal; ++c) {
            const float p = std::norm(value(c, j));
            if (p > std::norm(value(loudest, j)))
                loudest = c;
            power += p;
            sum += value(c, j);
        }
        // Channels that cancel leave the sum's phase meaningless: follow the loudest instead.
        mReference[j] = std::norm(sum) >= 0.01f * power ? sum : value(loudest, j);
    }

    const float tonalScale = kTonalGain / float(mFftSize);
    const float noiseScale = kNoiseGain / float(mFftSize);
    for (int j = 0; j < mBins; ++j) {
        const int peak = out.peakOf[j];
        const float referencePhase = std::arg(mReference[j]);
        if (peak >= 0)
            out.peakOffset[j] = wrapPhase(referencePhase - std::arg(mReference[peak]));
        const std::complex<float> toReference =
            std::polar(peak >= 0 ? tonalScale : noiseScale, -referencePhase);
        for (int c = 0; c < channelTotal; ++c)
            out.coefficients[std::size_t(c) * mBins + j] = value(c, j) * toReference;
    }
    out.valid = true;
}

VELL_RT void Freezer::reset() noexcept
{
    for (auto& accumulator : mAccumulator)
        std::fill(accumulator.begin(), accumulator.end(), 0.0f);
    for (auto& ring : mRing)
        std::fill(ring.begin(), ring.end(), 0.0f);
    std::fill(mPhase.begin(), mPhase.end(), 0.0f);
    mRandom = 0x9E3779B9u;
    // Start far enough in that the resampler's widest kernel finds (silent) history.
    static_assert(kMaxPitchShift / 12.0f <= 2.0f, "the kernel table is sized for ratios up to 4");
    const int lead = kZeroCrossings * kMaxRatio;
    mWritten = lead;
    mReadIndex = lead;
    mReadFraction = 0.0;
}

VELL_RT float Freezer::uniformPhase() noexcept
{
    // xorshift32: cheap, allocation-free and reproducible.
    mRandom ^= mRandom << 13;
    mRandom ^= mRandom >> 17;
    mRandom ^= mRandom << 5;
    return float(mRandom >> 8) * (kTwoPi / 16777216.0f) - kPi;
}

VELL_RT void Freezer::synthesiseFrame() noexcept
{
    const FrozenSpectrum& spectrum = mSpectra.read();
    const int channelTotal = channelCount();

    if (spectrum.valid) {
        for (int j = 0; j < mBins; ++j)
            if (spectrum.peakOf[j] == j)
                mPhase[j] = wrapPhase(mPhase[j] + spectrum.advance[j]);
        for (int j = 0; j < mBins; ++j) {
            const int peak = spectrum.peakOf[j];
            float phase;
            if (peak < 0)
                phase = uniformPhase();
            else if (peak == j)
                phase = mPhase[j];
            else
                phase = wrapPhase(mPhase[peak] + spectrum.peakOffset[j]);
            if (peak != j)
                mPhase[j] = phase;
            mRotation[j] = {std::cos(phase), std::sin(phase)};
        }
        for (int c = 0; c < channelTotal; ++c) {
            const std::complex<float>* coefficients =
                spectrum.coefficients.data() + std::size_t(c) * mBins;
            for (int j = 0; j < mBins; ++j)
                mSynthesisSpectrum[j] = coefficients[j] * mRotation[j];
            mFft.inverse(mSynthesisSpectrum.data(), mSynthesisFrame.data());
            float* accumulator = mAccumulator[c].data();
            for (int i = 0; i < mFftSize; ++i)
                accumulator[i] += mSynthesisFrame[i] * mWindow[i];
        }
    }

    // The first hop is complete: move it to the ring and slide the accumulator on.
    for (int c = 0; c < channelTotal; ++c) {
        float* accumulator = mAccumulator[c].data();
        float* ring = mRing[c].data();
        for (int i = 0; i < mHop; ++i)
            ring[(mWritten + i) & (kRingSize - 1)] = accumulator[i];
        std::memmove(accumulator, accumulator + mHop,
                     std::size_t(mFftSize - mHop) * sizeof(float));
        std::fill(accumulator + (mFftSize - mHop), accumulator + mFftSize, 0.0f);
    }
    mWritten += mHop;
}

VELL_RT void Freezer::process(const float* const*, int, float* const* output,
                              int outputFrames) noexcept
{
    if (output == nullptr || outputFrames <= 0)
        return;
    const int channelTotal = channelCount();
    const double rate = std::exp2(double(mSemitones.load()) / 12.0);
    // Reading faster than the sound was made moves its content up: cut what would pass Nyquist.
    const double cutoff = rate > 1.0 ? 1.0 / rate : 1.0;
    const int reach = static_cast<int>(std::ceil(kZeroCrossings / cutoff));
    float weights[kMaxTaps];

    for (int n = 0; n < outputFrames; ++n) {
        while (mWritten <= mReadIndex + reach)
            synthesiseFrame();
        if (mReadFraction == 0.0 && rate == 1.0) {
            for (int c = 0; c < channelTotal; ++c)
                output[c][n] = mRing[c][mReadIndex & (kRingSize - 1)];
        } else {
            const std::int64_t first = mReadIndex - reach + 1;
            const int taps = 2 * reach;
            for (int t = 0; t < taps; ++t) {
                const double distance =
                    std::abs(double(mReadIndex - (first + t)) + mReadFraction) * cutoff;
                const double position = distance * kKernelResolution;
                const int index = static_cast<int>(position);
                float weight = 0.0f;
                if (index + 1 < static_cast<int>(mKernel.size())) {
                    const float fraction = static_cast<float>(position - index);
                    weight = mKernel[index] + fraction * (mKernel[index + 1] - mKernel[index]);
                }
                weights[t] = weight * static_cast<float>(cutoff);
            }
            for (int c = 0; c < channelTotal; ++c) {
                const float* ring = mRing[c].data();
                float sum = 0.0f;
                for (int t = 0; t < taps; ++t)
                    sum += weights[t] * ring[(first + t) & (kRingSize - 1)];
                output[c][n] = sum;
            }
        }
        mReadFraction += rate;
        const double whole = std::floor(mReadFraction);
        mReadIndex += static_cast<std::int64_t>(whole);
        mReadFraction -= whole;
    }
}

} // namespace vell::BRIXEffect
