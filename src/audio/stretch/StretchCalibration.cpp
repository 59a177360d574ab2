// Interpolation in the measured onset offsets (StretchCalibrationTable.inc).
#include "audio/stretch/StretchCalibration.h"

#include <algorithm>
#include <cmath>

namespace vell::detail {
namespace {

using Grid = StretchCalibrationGrid;

/// [level][scale][time step][pitch step], output frames.
using Table = float[kStretchLevelCount][Grid::kScales][Grid::kTimeSteps][Grid::kPitchSteps];

constexpr Table kOnsetOffsets = {
#include "audio/stretch/StretchCalibrationTable.inc"
};

/// Position of a factor on the grid axis: steps from the first point, clamped to the axis.
double axisPosition(double factor, int stepsPerOctave, int steps) noexcept
{
    const double half = (steps - 1) / 2.0;
    const double position = std::log2(factor) * stepsPerOctave + half;
    if (!(position > 0.0)) {
        return 0.0;
    }
    return std::min(position, double(steps - 1));
}

double lookUp(const float (&grid)[Grid::kTimeSteps][Grid::kPitchSteps], double timeFactor,
              double pitchFactor) noexcept
{
    const double t = axisPosition(timeFactor, Grid::kTimeStepsPerOctave, Grid::kTimeSteps);
    const double p = axisPosition(pitchFactor, Grid::kPitchStepsPerOctave, Grid::kPitchSteps);
    const int t0 = std::min(int(t), Grid::kTimeSteps - 2);
    const int p0 = std::min(int(p), Grid::kPitchSteps - 2);
    const double ft = t - t0;
    const double fp = p - p0;
    const double low = grid[t0][p0] * (1.0 - fp) + grid[t0][p0 + 1] * fp;
    const double high = grid[t0 + 1][p0] * (1.0 - fp) + grid[t0 + 1][p0 + 1] * fp;
    return low * (1.0 - ft) + high * ft;
}

} // namespace

double stretchOnsetOffset(StretchLevel level, double windowRatio, double timeFactor,
                          double pitchFactor) noexcept
{
    const int levelIndex = std::clamp(int(level), 0, kStretchLevelCount - 1);
    // Ratio 1 has table 0, ratio 2 table 1; other ratios use the nearest table, scaled, since the
    // windows (and with them the offsets) grow with the sample rate.
    const int tableIndex = windowRatio >= 1.5 ? 1 : 0;
    const double tableRatio = tableIndex == 1 ? 2.0 : 1.0;
    const double offset = lookUp(kOnsetOffsets[levelIndex][tableIndex], timeFactor, pitchFactor);
    return offset * (windowRatio / tableRatio);
}

} // namespace vell::detail
