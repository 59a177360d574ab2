/* TessalyCore: isolates a part of the stereo field and a frequency band of running audio. */
#pragma once

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
#include <vector>
extern "C" {
#endif

/*
 * An isolation engine instance. It keeps (or, muted, removes) the audio that lies both inside a
 * region of the stereo field and inside a frequency band, and passes the rest through removed
 * (or, muted, kept).
 *
 * Settings and their meaning:
 *  - bypass: the output is the input unchanged, delayed by the latency. Switching it while
 *    running cross-fades over one analysis frame (4096 samples); nothing clicks and the timing
 *    does not move, since the processed and the bypassed signal share the same latency.
 *  - mute: removes the selection instead of keeping it.
 *  - pan: the centre of the selection in the stereo field: 0 hard left, 0.5 centre, 1 hard right.
 *    A source mixed with the constant-power pan law (left = cos(p·π/2), right = sin(p·π/2)) is
 *    found at p. Content that is out of phase between the channels lies at no position: a
 *    selection smaller than the whole field leaves it out.
 *  - pan width: the fraction of the field kept around pan, 0...1: the selection runs from
 *    pan − width/2 to pan + width/2, cut at the ends of the field; an edge at or past an end of
 *    the field is open (nothing lies beyond it). Pan 0.5 with width 1 selects the whole field.
 *    The edges are soft (about ±0.04).
 *  - start and end frequency, in Hz: the band. A start at or below 20 Hz leaves the band open at
 *    the bottom; an end at or above the Nyquist frequency leaves it open at the top. The edges
 *    are soft (about ±3 % of the edge frequency, at least 1.5 bins). A start above the end
 *    selects nothing.
 * Defaults: bypass on, mute off, pan 0.5, width 1, 20 Hz to the Nyquist frequency.
 * Pan and width are clamped to 0...1, frequencies to >= 0; a NaN leaves a setting unchanged.
 *
 * Threads: TessalyProcess runs on the render thread and is wait-free and allocation-free for any
 * block of 1...maximum frames. The getters and setters may be called from any thread while it
 * runs. TessalyGetIsolatedSpectrum and TessalyGetPannedPowerSpread may be called from any thread
 * but the render thread; they never hold up the render thread. TessalyCreate, TessalyDestroy
 * and TessalyReset must not overlap TessalyProcess.
 */
typedef struct TessalyInstance TessalyInstance;

/* Makes an engine for the given sample rate (Hz), channel count (1...16; channels 0 and 1 are
 * left and right, further channels follow the mask of that pair) and largest block. Returns NULL
 * when an argument is zero or out of range, or memory is short. */
TessalyInstance* TessalyCreate(uint32_t sampleRate, uint32_t channels, uint32_t maximumFrames);
void TessalyDestroy(TessalyInstance* instance);

/* Processes frames of non-interleaved float audio, one pointer per channel. Input and output
 * may be the same buffers. inFrames and outFrames must be equal and at most the maximum given at
 * creation. Returns 0, or -1 (output untouched) for bad arguments.
 * Thread: render. Wait-free, no allocation. */
int32_t TessalyProcess(TessalyInstance* instance, const float* const* in, uint32_t inFrames,
                       float* const* out, uint32_t outFrames);

/* Frames by which the output trails the input (4096), the same in every setting and for the
 * whole life of the instance. */
int32_t TessalyGetLatency(const TessalyInstance* instance);

/* Forgets the audio seen so far; the next output starts with latency frames of silence. */
void TessalyReset(TessalyInstance* instance);

bool TessalyGetBypass(const TessalyInstance* instance);
void TessalySetBypass(TessalyInstance* instance, bool bypass);
/* Whether a bypassed engine goes on analysing its input (default true). Off, a bypassed engine
 * runs no transforms: the spectrum and the power spread keep their last values, and when bypass
 * ends the field statistics start afresh from the incoming audio. The output is the same either
 * way. For rendering where nobody reads the spectrum (an export). */
bool TessalyGetAnalysisWhileBypassed(const TessalyInstance* instance);
void TessalySetAnalysisWhileBypassed(TessalyInstance* instance, bool analyse);
bool TessalyGetMute(const TessalyInstance* instance);
void TessalySetMute(TessalyInstance* instance, bool mute);
float TessalyPan(const TessalyInstance* instance);
void TessalySetPan(TessalyInstance* instance, float pan);
float TessalyPanWidth(const TessalyInstance* instance);
void TessalySetPanWidth(TessalyInstance* instance, float width);
float TessalyGetStartFrequencyHz(const TessalyInstance* instance);
void TessalySetStartFrequencyHz(TessalyInstance* instance, float hz);
float TessalyGetEndFrequencyHz(const TessalyInstance* instance);
void TessalySetEndFrequencyHz(TessalyInstance* instance, float hz);

uint32_t TessalyGetSampleRate(const TessalyInstance* instance);

/* Bins of the isolated spectrum per channel (2048), covering 0 Hz up to the Nyquist frequency:
 * bin i lies at i × sampleRate / 4096 Hz. */
uint32_t TessalyGetSpectrumLength(const TessalyInstance* instance);

/* Copies the newest magnitude spectrum of the output (what the selection lets through; the
 * input while bypassed) of the left and right channel into spectra[0] and spectra[1]. Values
 * are unnormalised FFT magnitudes of the newest 4096-sample frame under a square-root Hann
 * window: a full-scale sine reads about 1300 (+62 dB). Writes min(length, spectrum length) values to each buffer and zeroes the rest
 * up to length; a mono engine gives both buffers the same. Does nothing for a negative length.
 * Thread: any but render. */
void TessalyGetIsolatedSpectrum(TessalyInstance* instance, float* const* spectra, int32_t length);

/* Copies the newest power spread of the input: the power (|L|² + |R|² summed over bins,
 * smoothed over about 30 ms) found at each position of the stereo field, the field 0...1 cut
 * into length equal slots (slot 0 hard left). Thread: any but render. */
void TessalyGetPannedPowerSpread(TessalyInstance* instance, float* spread, int32_t length);

#ifdef __cplusplus
} /* extern "C" */

namespace vell {

/// A snapshot of where the power of an isolation engine's input lies across the stereo field.
class TessalyPannedPowerSpread {
public:
    /// length slots across the field (at least 1), all zero.
    explicit TessalyPannedPowerSpread(int length);

    /// Fills the snapshot from the newest analysis of the instance. Thread: any but render.
    void readFromTessalyInstance(TessalyInstance* instance);

    int length() const noexcept { return static_cast<int>(mPower.size()); }
    /// The power in each slot, slot 0 hard left, slot length − 1 hard right.
    const std::vector<float>& power() const noexcept { return mPower; }
    /// The centre of slot i in the field, 0...1.
    double positionOfSlot(int i) const noexcept { return (i + 0.5) / length(); }

private:
    std::vector<float> mPower;
};

} // namespace vell
#endif
