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

/// Steps from the first grid point, clamped to the axis.
double timePosition(double timeFactor) noexcept
{
    const double position =
        std::log2(timeFactor) * Grid::kTimeStepsPerOctave + (Grid::kTimeSteps - 1) / 2.0;
    if (!(position > 0.0)) {
        return 0.0;
    }
    return std::min(position, double(Grid::kTimeSteps - 1));
}

/// Linear in the time position along one pitch column.
double alongTime(const float (&grid)[Grid::kTimeSteps][Grid::kPitchSteps], double t,
                 int column) noexcept
{
    const int t0 = std::min(int(t), Grid::kTimeSteps - 2);
    const double ft = t - t0;
    return grid[t0][column] * (1.0 - ft) + grid[t0 + 1][column] * ft;
}

double lookUp(const float (&grid)[Grid::kTimeSteps][Grid::kPitchSteps], double timeFactor,
              double pitchFactor) noexcept
{
    const double t = timePosition(timeFactor);
    if (pitchFactor == 1.0) {
        return alongTime(grid, t, Grid::kUnityColumn);
    }
    // Within a branch the columns sit at sixths of an octave, the one next to unity at 0.
    const double octaves = std::log2(pitchFactor);
    const bool above = octaves > 0.0;
    const double steps = std::min(std::fabs(octaves) * 6.0, double(Grid::kBranchSteps - 1));
    const int s0 = std::min(int(steps), Grid::kBranchSteps - 2);
    const double fs = steps - s0;
    const auto column = [&](int step) {
        return above ? Grid::kUnityColumn + 1 + step : Grid::kUnityColumn - 1 - step;
    };
    return alongTime(grid, t, column(s0)) * (1.0 - fs) + alongTime(grid, t, column(s0 + 1)) * fs;
}

} // namespace

double StretchCalibrationGrid::timeFactor(int step) noexcept
{
    return std::exp2(double(step - kTimeSteps / 2) / kTimeStepsPerOctave);
}

double StretchCalibrationGrid::pitchFactor(int column) noexcept
{
    // Just off unity: one rounding step of the pitch factor (see Stretcher::roundedPitchFactor).
    constexpr double kDenominator = 8192.0;
    if (column == kUnityColumn) {
        return 1.0;
    }
    if (column == kUnityColumn - 1) {
        return kDenominator / (kDenominator + 1.0);
    }
    if (column == kUnityColumn + 1) {
        return kDenominator / (kDenominator - 1.0);
    }
    const int sixths = column < kUnityColumn ? column - (kUnityColumn - 1) : column - (kUnityColumn + 1);
    return std::exp2(sixths / 6.0);
}

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
