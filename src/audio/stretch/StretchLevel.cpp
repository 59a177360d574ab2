// Rubber Band options of each quality level.
#include "audio/stretch/StretchLevel.h"

#include <rubberband/RubberBandStretcher.h>

namespace vell {

int rubberBandOptionsFor(StretchLevel level) noexcept
{
    using RB = RubberBand::RubberBandStretcher;
    const int common = RB::OptionProcessRealTime | RB::OptionThreadingNever |
                       RB::OptionChannelsApart | RB::OptionFormantShifted;
    switch (level) {
    case StretchLevel::best:
        return common | RB::OptionEngineFiner;
    case StretchLevel::lowCPU:
        return common | RB::OptionEngineFaster | RB::OptionWindowShort |
               RB::OptionPhaseIndependent | RB::OptionTransientsSmooth |
               RB::OptionSmoothingOff | RB::OptionPitchHighSpeed;
    case StretchLevel::good:
        break;
    }
    return common | RB::OptionEngineFaster | RB::OptionTransientsCrisp |
           RB::OptionDetectorCompound | RB::OptionPhaseLaminar | RB::OptionWindowStandard |
           RB::OptionSmoothingOff | RB::OptionPitchHighSpeed;
}

const char* stretchLevelName(StretchLevel level) noexcept
{
    switch (level) {
    case StretchLevel::best:
        return "best";
    case StretchLevel::lowCPU:
        return "low CPU";
    case StretchLevel::good:
        break;
    }
    return "good";
}

} // namespace vell
