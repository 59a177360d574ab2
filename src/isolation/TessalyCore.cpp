// The C interface of the isolation engine and the power-spread snapshot.
#include <VellAudio/TessalyCore.h>

#include "isolation/IsolationEngine.h"

#include <algorithm>
#include <cmath>
#include <exception>
#include <memory>

struct TessalyInstance {
    TessalyInstance(uint32_t sampleRate, uint32_t channels, uint32_t maximumFrames)
        : mEngine(static_cast<double>(sampleRate), static_cast<int>(channels)),
          mSampleRate(sampleRate), mChannels(channels), mMaximumFrames(maximumFrames)
    {
    }

    vell::IsolationEngine mEngine;
    uint32_t mSampleRate;
    uint32_t mChannels;
    uint32_t mMaximumFrames;
};

extern "C" {

TessalyInstance* TessalyCreate(uint32_t sampleRate, uint32_t channels, uint32_t maximumFrames)
{
    if (sampleRate == 0 || channels == 0 ||
        channels > static_cast<uint32_t>(vell::IsolationEngine::kMaxChannels) ||
        maximumFrames == 0)
        return nullptr;
    try {
        return new TessalyInstance(sampleRate, channels, maximumFrames);
    } catch (const std::exception&) {
        return nullptr;
    }
}

void TessalyDestroy(TessalyInstance* instance)
{
    delete instance;
}

VELL_RT int32_t TessalyProcess(TessalyInstance* instance, const float* const* in,
                               uint32_t inFrames, float* const* out, uint32_t outFrames)
{
    if (instance == nullptr || in == nullptr || out == nullptr || inFrames != outFrames ||
        inFrames > instance->mMaximumFrames)
        return -1;
    for (uint32_t c = 0; c < instance->mChannels; ++c)
        if (in[c] == nullptr || out[c] == nullptr)
            return -1;
    instance->mEngine.process(in, out, static_cast<int>(inFrames));
    return 0;
}

int32_t TessalyGetLatency(const TessalyInstance*)
{
    return vell::IsolationEngine::kLatency;
}

void TessalyReset(TessalyInstance* instance)
{
    if (instance != nullptr)
        instance->mEngine.reset();
}

VELL_RT bool TessalyGetBypass(const TessalyInstance* instance)
{
    return instance->mEngine.isBypassed();
}

VELL_RT void TessalySetBypass(TessalyInstance* instance, bool bypass)
{
    instance->mEngine.setBypass(bypass);
}

VELL_RT bool TessalyGetAnalysisWhileBypassed(const TessalyInstance* instance)
{
    return instance->mEngine.analysesWhileBypassed();
}

VELL_RT void TessalySetAnalysisWhileBypassed(TessalyInstance* instance, bool analyse)
{
    instance->mEngine.setAnalysesWhileBypassed(analyse);
}

VELL_RT bool TessalyGetMute(const TessalyInstance* instance)
{
    return instance->mEngine.isMuted();
}

VELL_RT void TessalySetMute(TessalyInstance* instance, bool mute)
{
    instance->mEngine.setMute(mute);
}

VELL_RT float TessalyPan(const TessalyInstance* instance)
{
    return instance->mEngine.pan();
}

VELL_RT void TessalySetPan(TessalyInstance* instance, float pan)
{
    instance->mEngine.setPan(pan);
}

VELL_RT float TessalyPanWidth(const TessalyInstance* instance)
{
    return instance->mEngine.panWidth();
}

VELL_RT void TessalySetPanWidth(TessalyInstance* instance, float width)
{
    instance->mEngine.setPanWidth(width);
}

VELL_RT float TessalyGetStartFrequencyHz(const TessalyInstance* instance)
{
    return instance->mEngine.startFrequencyHz();
}

VELL_RT void TessalySetStartFrequencyHz(TessalyInstance* instance, float hz)
{
    instance->mEngine.setStartFrequencyHz(hz);
}

VELL_RT float TessalyGetEndFrequencyHz(const TessalyInstance* instance)
{
    return instance->mEngine.endFrequencyHz();
}

VELL_RT void TessalySetEndFrequencyHz(TessalyInstance* instance, float hz)
{
    instance->mEngine.setEndFrequencyHz(hz);
}

uint32_t TessalyGetSampleRate(const TessalyInstance* instance)
{
    return instance->mSampleRate;
}

uint32_t TessalyGetSpectrumLength(const TessalyInstance*)
{
    return vell::IsolationEngine::kSpectrumLength;
}

void TessalyGetIsolatedSpectrum(TessalyInstance* instance, float* const* spectra, int32_t length)
{
    if (instance == nullptr || spectra == nullptr || length < 0)
        return;
    instance->mEngine.copySpectrum(spectra[0], spectra[1], length);
}

void TessalyGetPannedPowerSpread(TessalyInstance* instance, float* spread, int32_t length)
{
    if (instance == nullptr || spread == nullptr || length <= 0)
        return;
    instance->mEngine.copyPowerSpread(spread, length);
}

} // extern "C"

namespace vell {

TessalyPannedPowerSpread::TessalyPannedPowerSpread(int length)
    : mPower(static_cast<std::size_t>(std::max(length, 1)), 0.0f)
{
}

void TessalyPannedPowerSpread::readFromTessalyInstance(TessalyInstance* instance)
{
    if (instance == nullptr) {
        std::fill(mPower.begin(), mPower.end(), 0.0f);
        return;
    }
    TessalyGetPannedPowerSpread(instance, mPower.data(), length());
}

} // namespace vell
