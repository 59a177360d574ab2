// The stretcher's quality levels and how the (lambda, quality) constants choose them.
#pragma once

namespace vell {

/// Lambda constant of the best and good levels.
inline constexpr long kDiracLambdaStandard = 206;
/// Lambda constant of the low-CPU level.
inline constexpr long kDiracLambdaLowCPU = 200;
/// Quality constant of the good and low-CPU levels.
inline constexpr long kDiracQualityStandard = 300;
/// Quality constant of the best level.
inline constexpr long kDiracQualityBest = 303;

/// How a stretcher trades sound for CPU. The (quality, lambda) pairs map onto Rubber Band 3:
///
/// | quality | lambda | level  | Rubber Band engine and options                               |
/// |---------|--------|--------|--------------------------------------------------------------|
/// | 303     | 206    | best   | R3 "finer" (OptionEngineFiner), its defaults                 |
/// | 300     | 206    | good   | R2 "faster" with its standard settings: crisp transients,    |
/// |         |        |        | compound detector, laminar phase, standard window            |
/// | 300     | 200    | lowCPU | R2 with its cheapest settings: short window, independent     |
/// |         |        |        | phase (crisp transients: see rubberBandOptionsFor)           |
/// | other   | other  | good   | (fallback)                                                   |
///
/// Every level runs in real-time mode (OptionProcessRealTime), one thread, channels apart.
enum class StretchLevel { best = 0, good = 1, lowCPU = 2 };

inline constexpr int kStretchLevelCount = 3;

/// The level a (lambda, quality) pair names; unknown pairs give the good level.
constexpr StretchLevel stretchLevelFor(long lambda, long quality) noexcept
{
    if (quality == kDiracQualityBest && lambda == kDiracLambdaStandard) {
        return StretchLevel::best;
    }
    if (quality == kDiracQualityStandard && lambda == kDiracLambdaLowCPU) {
        return StretchLevel::lowCPU;
    }
    return StretchLevel::good;
}

/// The Rubber Band option flags of a level (RubberBandStretcher::Options), formants shifted.
int rubberBandOptionsFor(StretchLevel level) noexcept;

/// "best", "good" or "low CPU".
const char* stretchLevelName(StretchLevel level) noexcept;

} // namespace vell
