// The time-stretcher's C-style interface: create with a pull callback, process, reset, and the
// time-factor, pitch-factor and formant properties. Implemented over Rubber Band (Stretcher.h).
#pragma once

#include "audio/stretch/StretchLevel.h"

#include <cstdint>

namespace vell {

/// Opaque stretcher handle.
struct DiracInstance;

/// Pitch factor (target frequency / source frequency), 1 = unchanged. Default 1.
inline constexpr long kDiracPropertyPitchFactor = 100;
/// Time factor (output duration / input duration), 1 = normal speed, 2 = half speed. Default 1.
inline constexpr long kDiracPropertyTimeFactor = 101;
/// Formant preservation while transposing: non-zero keeps the spectral envelope in place
/// (voices do not sound chipmunk-like), 0 shifts it with the pitch. Default 0.
inline constexpr long kDiracPropertyPreserveFormants = 110;

/// Supplies input: fill `frames` frames into channelData[0 .. channels) (non-interleaved float)
/// and return how many were supplied; the stretcher pads a short block with silence. Called from
/// inside DiracProcess (so on the render thread), always with a whole block: see DiracProcess.
using DiracInputCallback = long (*)(float** channelData, long frames, void* owner) noexcept;

/// Creates a stretcher for channelCount non-interleaved float channels at sampleRate.
///
/// (lambda, quality) choose the level (StretchLevel.h: 303/206 best, 300/206 good, 300/200 low
/// CPU; any other pair is the good level). The stretcher starts at time and pitch factor 1 and
/// is ready for DiracProcess at once. maxFramesPerCall is the largest frame count one
/// DiracProcess call will ask for (larger calls work, in pieces of this size). Returns null for
/// no channels, more than kDiracMaxChannels, a sample rate outside [8000, 384000] or no
/// callback. Thread: control (allocates, takes tens of milliseconds).
DiracInstance* DiracCreate(long lambda, long quality, long channelCount, double sampleRate,
                           DiracInputCallback callback, void* owner, long maxFramesPerCall = 4096);

/// Frees the stretcher. Thread: control, with no DiracProcess running.
void DiracDestroy(DiracInstance* instance);

/// Writes `frames` output frames into channelData[0 .. channels), calling the input callback
/// whenever more input is needed. Returns frames (0 for a null instance or frames <= 0).
///
/// Timing: the stretcher's own latency is hidden. After a reset, output frame k carries input
/// frame k x rate = k / timeFactor, where input frame 0 is the first frame the callback
/// supplies after the reset; a transient at input frame F is heard at output frame
/// F x timeFactor (within 1 ms on average at the best level at 44.1/48 kHz; StretchCalibration.h
/// says what each level reaches). A time-factor change takes effect at the first DiracProcess
/// call that starts after the new value became visible (at the latest, after DiracSetProperty
/// returned): if that call starts at output frame K0 and K0 carried input frame I0, output frame
/// k >= K0 carries I0 + (k - K0) / newTimeFactor, exactly as the engine's frame bookkeeping
/// assumes. The stretcher reaches that mapping by cross-fading over 20 ms into a second
/// stretcher primed at the exact position (the hand-over is complete 25 to 50 ms after the
/// change); until then the previous mapping continues. Pitch and formant changes cross-fade
/// the same way and leave the timing alone.
///
/// Input is pulled in whole blocks of 4096 to 16384 frames (twice that at 88.2 and 96 kHz), at
/// least the stretcher's look-ahead at the current factors, so that at time factors 0.25 .. 4
/// at most three pulled blocks are waiting to be heard at any time (the engine's range
/// tracker has three slots).
///
/// Thread: render (one thread at a time). Wait-free, no allocation, no locks, no system calls.
long DiracProcess(float** channelData, long frames, DiracInstance* instance) noexcept;

/// Restarts the stretcher at a new input position: the next DiracProcess call pulls fresh input
/// and its first output frame carries the first new input frame. With clear set the old sound
/// stops at once; without it the old sound fades out over about 20 ms under the new one.
/// Takes effect at the start of the next DiracProcess call. Thread: control, any thread but the
/// render thread (serialised with DiracSetProperty; may allocate).
void DiracReset(bool clear, DiracInstance* instance);

/// Sets a property (see the kDiracProperty constants). Values are clamped to the supported
/// range: time factor [1/8, 8], pitch factor [1/4, 4]. Returns 0, or -1 for an unknown property,
/// a value that is not a positive finite number or a null instance. Setting an unchanged value
/// does nothing. Thread: control, any thread but the render thread (may allocate).
long DiracSetProperty(long property, long double value, DiracInstance* instance);

/// The property's current value as last set (clamped), or 0 for an unknown property or a null
/// instance. Thread: any, including render. Wait-free.
long double DiracGetProperty(long property, const DiracInstance* instance) noexcept;

/// How many restarts (DiracReset) the stretcher has applied. It changes at the start of the
/// DiracProcess call that applies a reset, before that call pulls its first input, so the input
/// callback can tell that the frames it supplies now start a new time line. Thread: any,
/// including render. Wait-free.
std::uint64_t DiracGetRestartCount(const DiracInstance* instance) noexcept;

} // namespace vell
