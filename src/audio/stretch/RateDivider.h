// Linear-phase FIR decimation and interpolation by a whole factor: lets a stretcher run at a
// fraction of a high sample rate and give its output back at the full rate.
#pragma once

#include "rt/Realtime.h"

#include <vector>

namespace vell::detail {

/// The low-pass filter both directions share: a Kaiser-windowed sinc that passes up to 5/12 of
/// the low rate (20 kHz at 48 kHz), stops from half of it (at least 90 dB down) and has
/// 2 x factor x kHalfLength + 1 taps, so that its delay is a whole number of low-rate frames.
class RateDividerFilter {
public:
    static constexpr int kHalfLength = 36;

    explicit RateDividerFilter(int factor);

    int factor() const noexcept { return mFactor; }
    int taps() const noexcept { return int(mTaps.size()); }
    /// The filter's delay in low-rate frames (kHalfLength).
    static constexpr long delayFrames() noexcept { return kHalfLength; }
    const float* coefficients() const noexcept { return mTaps.data(); }

private:
    int mFactor;
    std::vector<float> mTaps;
};

/// Low-pass and keep every factor-th frame. Output frame s stands for input frame
/// factor x (s - delayFrames()); reset() starts again from silence.
class Decimator {
public:
    Decimator(int factor, int channels, long maxOutputFrames);

    /// Reads factor x frames input frames per channel, writes frames. Thread: render.
    VELL_RT void process(const float* const* input, float* const* output, long frames) noexcept;
    VELL_RT void reset() noexcept;
    int factor() const noexcept { return mFilter.factor(); }

private:
    RateDividerFilter mFilter;
    long mMaxOutputFrames;
    /// Per channel: the taps - 1 newest input frames, then room for one call's input.
    std::vector<std::vector<float>> mWindow;
};

/// Put factor - 1 zeros between frames and low-pass. Output frame n stands for input frame
/// n / factor - delayFrames(); reset() starts again from silence.
class Interpolator {
public:
    Interpolator(int factor, int channels, long maxInputFrames);

    /// Reads frames input frames per channel, writes factor x frames. Thread: render.
    VELL_RT void process(const float* const* input, float* const* output, long frames) noexcept;
    VELL_RT void reset() noexcept;
    int factor() const noexcept { return mFilter.factor(); }

private:
    RateDividerFilter mFilter;
    long mMaxInputFrames;
    int mHistory; ///< input frames the filter spans
    /// Per channel: the mHistory newest input frames, then room for one call's input.
    std::vector<std::vector<float>> mWindow;
    /// The filter's polyphase branches: branch p holds taps p, p + factor, ..., times factor.
    std::vector<std::vector<float>> mBranches;
};

} // namespace vell::detail
