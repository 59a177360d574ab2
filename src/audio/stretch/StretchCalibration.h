// Measured timing of each level: where a transient comes out of Rubber Band, relative to where it
// belongs, when the stretcher is padded and trimmed as Rubber Band advises.
#pragma once

#include "audio/stretch/StretchLevel.h"

namespace vell::detail {

/// The grid the offsets were measured on: time factors 2^(i/4), i = -8 .. 8 (0.25 .. 4), and
/// pitch factors on three branches, because Rubber Band treats them differently: below 1 (it
/// resamples after stretching; 2^(j/6), j = -6 .. -1, and the factor just below 1), exactly 1
/// (no resampling) and above 1 (resampling first; the factor just above 1, then 2^(j/6),
/// j = 1 .. 6). Window scale 1 is what Rubber Band uses at 44.1 and 48 kHz, scale 2 at 88.2
/// and 96 kHz.
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
/// branch; factors outside the grid take the nearest edge. windowRatio is the level's window size relative to 44.1 kHz (a
/// power of two; ratios without a table use the nearest one, scaled). Thread: any. Wait-free.
double stretchOnsetOffset(StretchLevel level, double windowRatio, double timeFactor,
                          double pitchFactor) noexcept;

} // namespace vell::detail
