// Stereo-position and frequency-band isolation by short-time Fourier masking.
#pragma once

#include "isolation/Fftw.h"
#include "rt/Realtime.h"
#include "rt/TripleBuffer.h"

#include <array>
#include <atomic>
#include <complex>
#include <mutex>
#include <vector>

namespace vell {

/// The isolation engine behind the TessalyCore C interface and BRIXEffect::Isolator.
///
/// Each frame of kFftSize samples (hop kHopSize, square-root Hann analysis and synthesis windows,
/// which overlap-add to exactly the input) is transformed; every bin gets a position in the
/// stereo field from the left and right magnitudes (the constant-power pan law inverted:
/// position = atan2(|R|, |L|) × 2 / π, so 0 is hard left, 0.5 centre, 1 hard right) and a gain
/// from where that position and the bin's frequency fall relative to the selection. Positions and
/// gains are smoothed over time and neighbouring bins so the mask does not flicker (no "musical
/// noise"). The selection has soft edges in position and frequency.
///
/// Latency is kFftSize frames whatever the settings; bypass outputs the input delayed by the same
/// amount, and switching it while running cross-fades through the overlapping frames (one frame,
/// kFftSize samples), so nothing clicks or jumps in time.
///
/// Thread safety: the setters and getters may be called from any thread while process() runs
/// on the render thread (the settings are atomics, read once per frame). copySpectrum() and
/// copyPowerSpread() may be called from any thread but the render thread. reset() and the
/// constructor must not overlap process().
class IsolationEngine {
public:
    static constexpr int kFftSize = 4096;
    static constexpr int kHopSize = kFftSize / 4;
    static constexpr int kBinCount = kFftSize / 2 + 1;
    static constexpr int kLatency = kFftSize;
    /// Bins of the published spectrum: 0 Hz up to (not including) Nyquist.
    static constexpr int kSpectrumLength = kFftSize / 2;
    /// Slots of the published power spread across the stereo field.
    static constexpr int kPowerSpreadLength = 128;
    /// A start frequency at or below this leaves the band open at the bottom.
    static constexpr float kLowestFrequencyHz = 20.0f;
    static constexpr int kMaxChannels = 16;

    /// Throws std::invalid_argument for a sample rate <= 0 or channels outside 1...kMaxChannels,
    /// std::bad_alloc when memory or an FFT plan cannot be had.
    IsolationEngine(double sampleRate, int channels);
    ~IsolationEngine();
    IsolationEngine(const IsolationEngine&) = delete;
    IsolationEngine& operator=(const IsolationEngine&) = delete;

    double sampleRate() const noexcept { return mSampleRate; }
    int channelCount() const noexcept { return mChannels; }

    // Settings. Values are sanitised: pan and width clamp to 0...1, frequencies to >= 0; a NaN
    // leaves the setting unchanged. Thread: any. Wait-free.
    VELL_RT bool isBypassed() const noexcept { return mBypass.load(); }
    VELL_RT void setBypass(bool bypass) noexcept { mBypass.store(bypass); }
    /// Whether a bypassed engine goes on analysing its input (on by default); see
    /// TessalySetAnalysisWhileBypassed.
    VELL_RT bool analysesWhileBypassed() const noexcept { return mAnalyseBypassed.load(); }
    VELL_RT void setAnalysesWhileBypassed(bool on) noexcept { mAnalyseBypassed.store(on); }
    VELL_RT bool isMuted() const noexcept { return mMute.load(); }
    VELL_RT void setMute(bool mute) noexcept { mMute.store(mute); }
    VELL_RT float pan() const noexcept { return mPan.load(); }
    VELL_RT void setPan(float pan) noexcept;
    VELL_RT float panWidth() const noexcept { return mWidth.load(); }
    VELL_RT void setPanWidth(float width) noexcept;
    VELL_RT float startFrequencyHz() const noexcept { return mStartHz.load(); }
    VELL_RT void setStartFrequencyHz(float hz) noexcept;
    VELL_RT float endFrequencyHz() const noexcept { return mEndHz.load(); }
    VELL_RT void setEndFrequencyHz(float hz) noexcept;

    /// Forgets all history: the next output is silence for kLatency frames followed by the
    /// processed input. Thread: the one that calls process(), or any while process() is not
    /// running. Wait-free, no allocation.
    VELL_RT void reset() noexcept;

    /// Processes frames frames of every channel. input and output may be the same buffers (in
    /// place) but must not otherwise overlap. Any frame count works.
    /// Thread: render. Wait-free, no allocation.
    VELL_RT void process(const float* const* input, float* const* output, int frames) noexcept;

    /// Copies the newest magnitude spectrum of the isolated output (unnormalised FFT magnitudes
    /// of the windowed frame, kSpectrumLength bins from 0 Hz) of the left and right channel (a
    /// mono engine gives the same to both). Writes min(length, kSpectrumLength) values to each
    /// non-null pointer and zeroes the rest up to length. Thread: any but render.
    void copySpectrum(float* left, float* right, int length);

    /// Copies the newest power spread: the input power (|L|² + |R|², smoothed like the mask's
    /// statistics) found at each position, the field 0...1 cut into length equal slots.
    /// Thread: any but render.
    void copyPowerSpread(float* spread, int length);

private:
    struct Snapshot {
        std::array<float, kSpectrumLength> left{};
        std::array<float, kSpectrumLength> right{};
        std::array<float, kPowerSpreadLength> spread{};
    };
    struct Settings {
        bool bypass;
        bool mute;
        float pan;
        float width;
        float startHz;
        float endHz;
    };

    VELL_RT void processFrame() noexcept;
    VELL_RT void updateStatistics() noexcept;
    VELL_RT void updateFrequencyMask(const Settings& settings) noexcept;
    VELL_RT void computeGains(const Settings& settings) noexcept;
    VELL_RT void publishSnapshot() noexcept;

    double mSampleRate;
    int mChannels;
    detail::RealFft mFft;

    std::atomic<bool> mBypass{true};
    std::atomic<bool> mAnalyseBypassed{true};
    std::atomic<bool> mMute{false};
    std::atomic<float> mPan{0.5f};
    std::atomic<float> mWidth{1.0f};
    std::atomic<float> mStartHz{kLowestFrequencyHz};
    std::atomic<float> mEndHz;
    VELL_STATIC_ASSERT_LOCK_FREE(bool);
    VELL_STATIC_ASSERT_LOCK_FREE(float);

    // Render-thread state, made at construction.
    std::vector<float> mAnalysisWindow;  // square-root Hann
    std::vector<float> mSynthesisWindow; // square-root Hann with the overlap-add and FFT scaling
    std::vector<float> mIdentityWindow;  // both windows and the scaling: the unmasked frame
    std::vector<std::vector<float>> mHistory;     // kFftSize + kHopSize input samples
    std::vector<std::vector<float>> mAccumulator; // kFftSize overlap-add samples
    detail::FftwArray<float> mFrame;
    std::vector<detail::FftwArray<std::complex<float>>> mSpectra; // kBinCount per channel
    std::vector<float> mRawLeft, mRawRight, mRawCross; // this frame's statistics per bin
    std::vector<float> mPowerLeft, mPowerRight, mCross; // smoothed statistics per bin
    std::vector<float> mPosition;    // per bin, from the smoothed statistics
    std::vector<float> mPhaseWeight; // per bin: 0 for content that belongs to no position
    std::vector<float> mFrequencyMask;
    std::vector<float> mGain;                          // smoothed per-bin gain
    float mStatisticsDecay;
    float mGainDecay;
    float mMaskStartHz = -1.0f; // band the frequency mask was made for
    float mMaskEndHz = -1.0f;
    int mFill = 0;        // samples of the current hop already taken
    int mIdentityRun = 0; // consecutive frames passed unmasked
    bool mStatisticsPrimed = false; // false: the next frame's statistics are taken as they are
    bool mGainPrimed = false;       // false: the next gains are taken without gliding

    // Spectrum and spread, from the render thread to readers. Readers take mReaderMutex among
    // themselves (the triple buffer has one reader side); the render thread never touches it.
    TripleBuffer<Snapshot> mSnapshots;
    std::mutex mReaderMutex;
};

} // namespace vell
