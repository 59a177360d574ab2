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
        // Crisp transients, although smooth ones would skip the phase resets: in R2 a smooth
        // stretcher keeps phase state across reset(), so after playing at one factor it plays
        // steady tones up to 5 dB weaker at another; crisp resets phases at the start, and with
        // the short window and independent phases it is also the cheapest combination.
        return common | RB::OptionEngineFaster | RB::OptionWindowShort |
               RB::OptionPhaseIndependent | RB::OptionTransientsCrisp |
               RB::OptionDetectorCompound | RB::OptionSmoothingOff | RB::OptionPitchHighSpeed;
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
