// The isolation engine as a spectral effect, for offline use (the freezer's window).
#include "audio/effects/Isolator.h"

#include <algorithm>
#include <stdexcept>

namespace vell::BRIXEffect {

Isolator::Isolator(int sampleRate, int channels, int blockSize)
    : SpectralProcessor(sampleRate, channels), mEngine(sampleRate, channels),
      mBlockSize(blockSize)
{
    if (blockSize < 1)
        throw std::invalid_argument("isolator: the block size must be positive");
    mSilence.assign(static_cast<std::size_t>(blockSize), 0.0f);
    mSilentChannels.assign(static_cast<std::size_t>(channels), mSilence.data());
}

void Isolator::copySettingsFrom(const TessalyInstance* instance) noexcept
{
    if (instance == nullptr)
        return;
    setStartFrequencyHz(TessalyGetStartFrequencyHz(instance));
    setEndFrequencyHz(TessalyGetEndFrequencyHz(instance));
    setMute(TessalyGetMute(instance));
    setPan(TessalyPan(instance));
    setPanWidth(TessalyPanWidth(instance));
    bypass = TessalyGetBypass(instance);
}

VELL_RT void Isolator::reset() noexcept
{
    mEngine.reset();
}

VELL_RT void Isolator::process(const float* const* input, int inputFrames, float* const* output,
                               int outputFrames) noexcept
{
    if (output == nullptr || outputFrames <= 0)
        return;
    const bool haveInput = input != nullptr && inputFrames > 0;
    const int frames = std::min(haveInput ? std::min(inputFrames, outputFrames) : outputFrames,
                                mBlockSize);
    mEngine.setBypass(bypass);
    mEngine.process(haveInput ? input : mSilentChannels.data(), output, frames);
    for (int c = 0; c < channelCount(); ++c)
        std::fill(output[c] + frames, output[c] + outputFrames, 0.0f);
}

} // namespace vell::BRIXEffect
