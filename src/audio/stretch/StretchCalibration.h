// Measured timing of each level: where a transient comes out of Rubber Band, relative to where it
// belongs, when the stretcher is padded and trimmed as Rubber Band advises.
#pragma once

#include "audio/stretch/StretchLevel.h"

namespace vell::detail {

/// The grid the offsets were measured on: time factors 2^(i/4), i = -8 .. 8 (0.25 .. 4) and pitch
/// factors 2^(j/6), j = -6 .. 6 (0.5 .. 2), for the window sizes Rubber Band uses at 44.1 and
/// 48 kHz (window scale 1) and at 88.2 and 96 kHz (window scale 2).
struct StretchCalibrationGrid {
    static constexpr int kTimeSteps = 17;
    static constexpr int kPitchSteps = 13;
    static constexpr int kTimeStepsPerOctave = 4;
    static constexpr int kPitchStepsPerOctave = 6;
    static constexpr int kScales = 2;
};

/// The mean onset offset in output frames (negative: the transient comes early) of a click
/// stretched at (timeFactor, pitchFactor) by a level after Rubber Band's own start pad and start
/// delay. Bilinear in (log timeFactor, log pitchFactor) between grid points; factors outside the
/// grid take the nearest edge. windowRatio is the level's window size relative to 44.1 kHz (a
/// power of two; ratios without a table use the nearest one, scaled). Thread: any. Wait-free.
double stretchOnsetOffset(StretchLevel level, double windowRatio, double timeFactor,
                          double pitchFactor) noexcept;

} // namespace vell::detail
