// The Dirac operations over the Rubber Band stretcher.
#include "audio/stretch/Dirac.h"

#include "audio/stretch/Stretcher.h"

#include <cmath>
#include <new>

namespace vell {

struct DiracInstance {
    std::unique_ptr<detail::Stretcher> stretcher;
};

namespace detail {

Stretcher* stretcherOf(DiracInstance* instance) noexcept
{
    return instance != nullptr ? instance->stretcher.get() : nullptr;
}

} // namespace detail

DiracInstance* DiracCreate(long lambda, long quality, long channelCount, double sampleRate,
                           DiracInputCallback callback, void* owner, long maxFramesPerCall)
{
    if (channelCount < 1 || channelCount > detail::Stretcher::kMaxChannels) {
        return nullptr;
    }
    detail::Stretcher::Config config;
    config.level = stretchLevelFor(lambda, quality);
    config.channels = int(channelCount);
    config.sampleRate = sampleRate;
    config.maxFramesPerCall = maxFramesPerCall;
    auto stretcher = detail::Stretcher::create(config, callback, owner);
    if (!stretcher) {
        return nullptr;
    }
    return new DiracInstance{std::move(stretcher)};
}

void DiracDestroy(DiracInstance* instance)
{
    delete instance;
}

long DiracProcess(float** channelData, long frames, DiracInstance* instance) noexcept
{
    if (instance == nullptr) {
        return 0;
    }
    return instance->stretcher->process(channelData, frames);
}

void DiracReset(bool clear, DiracInstance* instance)
{
    if (instance != nullptr) {
        instance->stretcher->reset(clear);
    }
}

long DiracSetProperty(long property, long double value, DiracInstance* instance)
{
    if (instance == nullptr || !std::isfinite(value)) {
        return -1;
    }
    detail::StretchParameters parameters = instance->stretcher->parameters();
    switch (property) {
    case kDiracPropertyTimeFactor:
        if (!(value > 0)) {
            return -1;
        }
        parameters.timeFactor = double(value);
        break;
    case kDiracPropertyPitchFactor:
        if (!(value > 0)) {
            return -1;
        }
        parameters.pitchFactor = double(value);
        break;
    case kDiracPropertyPreserveFormants:
        parameters.preserveFormants = value != 0;
        break;
    default:
        return -1;
    }
    instance->stretcher->setParameters(parameters);
    return 0;
}

long double DiracGetProperty(long property, const DiracInstance* instance) noexcept
{
    if (instance == nullptr) {
        return 0;
    }
    const detail::StretchParameters parameters = instance->stretcher->parameters();
    switch (property) {
    case kDiracPropertyTimeFactor:
        return parameters.timeFactor;
    case kDiracPropertyPitchFactor:
        return parameters.pitchFactor;
    case kDiracPropertyPreserveFormants:
        return parameters.preserveFormants ? 1 : 0;
    default:
        return 0;
    }
}

std::uint64_t DiracGetRestartCount(const DiracInstance* instance) noexcept
{
    return instance != nullptr ? instance->stretcher->restartCount() : 0;
}

} // namespace vell
