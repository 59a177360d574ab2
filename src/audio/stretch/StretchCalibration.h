// Measured timing of each level: where a transient comes out of Rubber Band, relative to where it
// belongs, when the stretcher is padded and trimmed as Rubber Band advises.
//
// Rubber Band's start pad and start delay alone leave clicks early or late by up to hundreds of
// milliseconds: R3 ignores the time factor in its start delay and the resampler's delay when
// pitch shifting, and R2 renders a transient in the hop that catches it. The stretcher takes
// the measured offset off as well (Stretcher.cpp). The table is regenerated with
// bench/stretch/calibrate.sh; `stretch_calibrate check LEVEL RATE` measures what is left.
// What is left, as the mean onset error of clicks at every hop phase (44.1/48 kHz, time factors
// 0.25 .. 4, pitch factors 0.5 .. 2):
// - best: within 1 ms at the grid's factors, 1.4 ms at worst between them. Single clicks
//   scatter around the mean: R3 resets its phases at the analysis frame that catches a
//   transient and so renders it unstretched relative to that frame. A click's error is a
//   sawtooth of its place within R3's input hop h (128 to 1024 frames, by the stretch):
//   (phi0 - phi) x (timeFactor - 1 / pitchFactor), where phi is the click's input frame modulo
//   h and phi0 a phase that depends on the factors. That is ±1.9 ms at time 0.5 or 2, ±4.3 ms at
//   time 4 and ±20 ms at time 0.25 with pitch 0.5 (h = 1024 there). Removing it would take a
//   frame grid aligned with every transient, that is a lane restarted and cross-faded at every
//   onset: more harm to the sound than a few milliseconds of timing.
// - good: within 1.5 ms, except about 5 ms around time 3 with pitch 1.33; single clicks up to
//   35 ms off at time 4, where R2 may render a click as two copies.
// - low CPU: within 1.2 ms, 3 ms around time 3 with pitch 1.33; single clicks up to 17 ms.
// At 88.2/96 kHz the R2 levels stay within 3.4 and 1.2 ms. R3 at those rates renders clicks
// stretched by more than about 1.5 as two copies half a window (43 ms) apart, so the best level
// runs it at half the rate there (Stretcher.h); its timing is then that of 44.1/48 kHz.
#pragma once

#include "audio/stretch/StretchLevel.h"

namespace vell::detail {

/// The grid the offsets were measured on: time factors 2^(i/4), i = -8 .. 8 (0.25 .. 4), and
/// pitch factors on three branches, because Rubber Band treats them differently: below 1 (it
/// resamples after stretching; 2^(j/6), j = -6 .. -1, and the factor just below 1), exactly 1
/// (no resampling) and above 1 (resampling first; the factor just above 1, then 2^(j/6),
/// j = 1 .. 6). Window scale 1 is what Rubber Band uses at 44.1 and 48 kHz, scale 2 at 88.2
/// and 96 kHz. The best level's scale-2 offsets are those of its divided rate (Rubber Band at
/// 48 kHz between the decimator and the interpolator), in 96 kHz frames.
struct StretchCalibrationGrid {
    static constexpr int kTimeSteps = 17;
    static constexpr int kTimeStepsPerOctave = 4;
    static constexpr int kBranchSteps = 7; ///< pitch columns below 1, and above 1
    static constexpr int kPitchSteps = 2 * kBranchSteps + 1;
    static constexpr int kUnityColumn = kBranchSteps;
    static constexpr int kScales = 2;

    static double timeFactor(int step) noexcept;
    /// The (rounded) pitch factor measured in a column.
    static double pitchFactor(int column) noexcept;
};

/// The mean onset offset in output frames (negative: the transient comes early) of a click
/// stretched at (timeFactor, pitchFactor) by a level after Rubber Band's own start pad and start
/// delay. Bilinear in (log timeFactor, log pitchFactor) between grid points of the pitch factor's
/// branch; factors outside the grid take the nearest edge. windowRatio: the level's window in
/// frames of the rate the offset is wanted at, relative to its window at 44.1 kHz (2 at 96 kHz,
/// also for the best level, which runs Rubber Band at 48 kHz there); a power of two, and ratios
/// without a table use the nearest one, scaled. Thread: any. Wait-free.
double stretchOnsetOffset(StretchLevel level, double windowRatio, double timeFactor,
                          double pitchFactor) noexcept;

} // namespace vell::detail
