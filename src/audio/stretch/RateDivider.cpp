// The rate divider's Kaiser-windowed sinc and its two polyphase directions.
#include "audio/stretch/RateDivider.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numbers>

namespace vell::detail {
namespace {

/// Kaiser window shape for about 90 dB of stop-band attenuation.
constexpr double kKaiserBeta = 9.0;

double besselI0(double x)
{
    double sum = 1.0, term = 1.0;
    for (int k = 1; k < 64 && term > 1e-12 * sum; ++k) {
        term *= (x / (2.0 * k)) * (x / (2.0 * k));
        sum += term;
    }
    return sum;
}

} // namespace

RateDividerFilter::RateDividerFilter(int factor) : mFactor(std::max(factor, 1))
{
    const int half = kHalfLength * mFactor;
    const int count = 2 * half + 1;
    // Cut-off halfway between the pass-band edge (5/12) and the stop-band edge (1/2) of the low
    // rate, in cycles per frame of the high one.
    const double cutoff = (5.0 / 12.0 + 0.5) / 2.0 / double(mFactor);
    const double omega = 2.0 * std::numbers::pi * cutoff;
    mTaps.resize(std::size_t(count));
    double sum = 0.0;
    for (int i = 0; i < count; ++i) {
        const double t = double(i - half);
        const double sinc = t == 0.0 ? 1.0 : std::sin(omega * t) / (omega * t);
        const double r = t / double(half);
        const double window = besselI0(kKaiserBeta * std::sqrt(std::max(0.0, 1.0 - r * r))) /
                              besselI0(kKaiserBeta);
        const double tap = sinc * window;
        mTaps[std::size_t(i)] = float(tap);
        sum += tap;
    }
    for (float& tap : mTaps) {
        tap = float(tap / sum); // unity gain at 0 Hz
    }
}

Decimator::Decimator(int factor, int channels, long maxOutputFrames)
    : mFilter(factor), mMaxOutputFrames(maxOutputFrames)
{
    const auto size = std::size_t(mFilter.taps() - 1 + maxOutputFrames * mFilter.factor());
    mWindow.assign(std::size_t(channels), std::vector<float>(size, 0.0f));
}

void Decimator::reset() noexcept
{
    for (auto& window : mWindow) {
        std::fill(window.begin(), window.end(), 0.0f);
    }
}

void Decimator::process(const float* const* input, float* const* output, long frames) noexcept
{
    const int k = mFilter.factor();
    const int taps = mFilter.taps();
    const float* h = mFilter.coefficients();
    frames = std::min(frames, mMaxOutputFrames);
    const long in = frames * k;
    for (std::size_t c = 0; c < mWindow.size(); ++c) {
        float* window = mWindow[c].data();
        std::memcpy(window + taps - 1, input[c], std::size_t(in) * sizeof(float));
        // Output s is centred on frame k x s - delay: its span ends at the first frame of group s.
        for (long s = 0; s < frames; ++s) {
            const float* x = window + s * k; // the oldest frame of the span
            double acc = 0.0;
            for (int j = 0; j < taps; ++j) {
                acc += double(h[j]) * double(x[j]);
            }
            output[c][s] = float(acc);
        }
        std::memmove(window, window + in, std::size_t(taps - 1) * sizeof(float));
    }
}

Interpolator::Interpolator(int factor, int channels, long maxInputFrames)
    : mFilter(factor), mMaxInputFrames(maxInputFrames)
{
    const int k = mFilter.factor();
    const int taps = mFilter.taps();
    mHistory = (taps + k - 1) / k;
    mBranches.assign(std::size_t(k), std::vector<float>(std::size_t(mHistory), 0.0f));
    for (int p = 0; p < k; ++p) {
        for (int i = 0; i < mHistory; ++i) {
            const int tap = p + i * k;
            mBranches[std::size_t(p)][std::size_t(i)] =
                tap < taps ? mFilter.coefficients()[tap] * float(k) : 0.0f;
        }
    }
    mWindow.assign(std::size_t(channels),
                   std::vector<float>(std::size_t(mHistory + maxInputFrames), 0.0f));
}

void Interpolator::reset() noexcept
{
    for (auto& window : mWindow) {
        std::fill(window.begin(), window.end(), 0.0f);
    }
}

void Interpolator::process(const float* const* input, float* const* output, long frames) noexcept
{
    const int k = mFilter.factor();
    frames = std::min(frames, mMaxInputFrames);
    for (std::size_t c = 0; c < mWindow.size(); ++c) {
        float* window = mWindow[c].data();
        std::memcpy(window + mHistory, input[c], std::size_t(frames) * sizeof(float));
        float* out = output[c];
        // Output n = i x k + p: branch p over input frames i, i - 1, ... (newest first).
        for (long i = 0; i < frames; ++i) {
            const float* newest = window + mHistory + i;
            for (int p = 0; p < k; ++p) {
                const float* branch = mBranches[std::size_t(p)].data();
                double acc = 0.0;
                for (int j = 0; j < mHistory; ++j) {
                    acc += double(branch[j]) * double(newest[-j]);
                }
                out[i * k + p] = float(acc);
            }
        }
        std::memmove(window, window + frames, std::size_t(mHistory) * sizeof(float));
    }
}

} // namespace vell::detail
