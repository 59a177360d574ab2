// Spectral freeze: sustains the spectrum of a short window indefinitely, optionally transposed.
#pragma once

#include "audio/effects/SpectralProcessor.h"
#include "isolation/Fftw.h"
#include "rt/TripleBuffer.h"

#include <atomic>
#include <complex>
#include <cstdint>
#include <vector>

namespace vell::BRIXEffect {

/// Holds the sound of a window for as long as it is asked to.
///
/// setFrozenWindow() analyses the window (Hann, fftSize points) into its tonal peaks and its
/// noise. Synthesis overlap-adds frames a quarter of fftSize apart: the bins around each tonal
/// peak keep the window's relative phases and advance at the peak's measured frequency, so a
/// held note stays one steady note; every other bin gets a fresh random phase each frame, so
/// noise and texture never repeat. The frames' windows make every change (a new window, the
/// start) a smooth cross-fade over fftSize samples. Tonal and noise bins are scaled so the
/// frozen sound has the window's level, indefinitely.
///
/// The pitch shift resamples the sustained sound (a windowed-sinc interpolator, anti-aliased
/// when shifting up): the sound is stationary, so reading it faster or slower changes only its
/// pitch, and exactly by the asked ratio.
///
/// Threads: process() and reset() run on one synthesis thread. setFrozenWindow() runs on one
/// control thread at a time and may run while the synthesis thread is inside process(): the
/// analysed window is handed over through a triple buffer, and synthesis picks up the newest
/// one at its next frame. pitchShift() may be called from any thread.
class Freezer final : public SpectralProcessor {
public:
    static constexpr int kDefaultFftSize = 4096;
    /// The pitch shift is clamped to ± this many semitones.
    static constexpr float kMaxPitchShift = 24.0f;

    /// fftSize: the analysis length, a power of two from 256 to 32768. Throws
    /// std::invalid_argument for bad arguments, std::bad_alloc when memory is short.
    Freezer(int sampleRate, int channels, int fftSize = kDefaultFftSize);
    ~Freezer() override;

    int fftSize() const noexcept { return mFftSize; }

    /// Takes frames frames of each of channelCount() channels (de-interleaved) as the sound to
    /// sustain: the first fftSize() of them, or all when fewer. Frames <= 0 or null pointers
    /// are ignored. Thread: control (one at a time); safe beside process(). No allocation.
    void setFrozenWindow(const float* const* channels, int frames) noexcept;

    /// Sets the pitch shift of the frozen sound in semitones (clamped to ±kMaxPitchShift;
    /// NaN ignored). Thread: any. Wait-free.
    VELL_RT void pitchShift(float semitones) noexcept;
    VELL_RT float pitchShiftSemitones() const noexcept { return mSemitones.load(); }

    /// Restarts the synthesis from silence (it fades in over fftSize samples). The frozen window
    /// and the pitch shift stay. Thread: synthesis. Wait-free, no allocation.
    VELL_RT void reset() noexcept override;

    /// Writes outputFrames frames of frozen sound into output (silence until a window was set).
    /// The input is not used: pass null and 0. Thread: synthesis. Wait-free, no allocation.
    VELL_RT void process(const float* const* input, int inputFrames, float* const* output,
                         int outputFrames) noexcept override;

private:
    /// The analysis of one window, handed from setFrozenWindow() to the synthesis thread.
    struct FrozenSpectrum {
        bool valid = false;
        /// Per channel and bin: magnitude (with the synthesis scaling) and the phase of the
        /// channel relative to the bin's reference, as one complex coefficient.
        std::vector<std::complex<float>> coefficients; // channels × bins
        /// Per bin: the tonal peak whose phase the bin follows, or -1 for a noise bin.
        std::vector<int> peakOf;
        /// Per bin: the reference phase relative to its peak's (tonal bins).
        std::vector<float> peakOffset;
        /// Per peak bin: phase advance per hop at the peak's measured frequency; else 0.
        std::vector<float> advance;
    };

    static FrozenSpectrum emptySpectrum(int bins, int channels);
    void analyse(const float* const* channels, int frames, FrozenSpectrum& out) noexcept;
    VELL_RT void synthesiseFrame() noexcept;
    VELL_RT float uniformPhase() noexcept;

    int mFftSize;
    int mHop;
    int mBins;
    std::atomic<float> mSemitones{0.0f};
    VELL_STATIC_ASSERT_LOCK_FREE(float);

    // Analysis (control thread).
    detail::RealFft mFineFft; // 4 × fftSize, zero-padded: measures peak frequencies finely
    detail::FftwArray<float> mAnalysisFrame;
    std::vector<detail::FftwArray<std::complex<float>>> mAnalysisSpectra;
    std::vector<float> mPeakPower;
    std::vector<std::complex<float>> mReference;
    std::vector<std::complex<float>> mBinValue; // channels × bins: the spectrum to sustain
    std::vector<int> mPeakFineBin;      // per peak bin: its loudest zero-padded bin
    std::vector<float> mPeakPosition;   // per peak bin: its frequency in zero-padded bins
    std::vector<float> mPeakCorrection; // per peak bin: interpolated over loudest amplitude
    std::vector<float> mAnalysisWindow; // Hann of fftSize
    TripleBuffer<FrozenSpectrum> mSpectra;

    // Synthesis (synthesis thread).
    detail::RealFft mFft;
    std::vector<float> mWindow; // Hann of fftSize
    std::vector<float> mPhase;  // reference phase of every bin in the last frame
    std::vector<std::complex<float>> mRotation;
    detail::FftwArray<std::complex<float>> mSynthesisSpectrum;
    detail::FftwArray<float> mSynthesisFrame;
    std::vector<std::vector<float>> mAccumulator; // fftSize per channel
    std::uint32_t mRandom = 1;

    // Sustained sound at the original pitch, as a ring read by the resampler.
    static constexpr int kRingSize = 1 << 14;
    std::vector<std::vector<float>> mRing;
    std::int64_t mWritten = 0;   // samples of the sustained sound made so far
    std::int64_t mReadIndex = 0; // integer part of the resampler's read position
    double mReadFraction = 0.0;  // and its fraction
    std::vector<float> mKernel;  // windowed sinc, sampled finely from 0 to its last zero crossing
};

} // namespace vell::BRIXEffect
