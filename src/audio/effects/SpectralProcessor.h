// Base of the spectral effects: a block processor over non-interleaved float channels.
#pragma once

#include "rt/Realtime.h"

namespace vell::BRIXEffect {

/// An effect that turns blocks of non-interleaved float audio into blocks of output.
/// Made on a control thread; reset() and process() then run on one processing thread at a time.
class SpectralProcessor {
public:
    virtual ~SpectralProcessor() = default;
    SpectralProcessor(const SpectralProcessor&) = delete;
    SpectralProcessor& operator=(const SpectralProcessor&) = delete;

    int sampleRate() const noexcept { return mSampleRate; }
    int channelCount() const noexcept { return mChannels; }

    /// Clears the effect's history. Thread: processing. Wait-free, no allocation.
    VELL_RT virtual void reset() noexcept = 0;

    /// Processes inputFrames frames of input (one pointer per channel; null with 0 frames for
    /// no input) and writes outputFrames frames of output (one pointer per channel). What the
    /// frame counts may be is the effect's. Thread: processing. Wait-free, no allocation.
    VELL_RT virtual void process(const float* const* input, int inputFrames, float* const* output,
                                 int outputFrames) noexcept = 0;

protected:
    SpectralProcessor(int sampleRate, int channels) : mSampleRate(sampleRate), mChannels(channels)
    {
    }

private:
    int mSampleRate;
    int mChannels;
};

} // namespace vell::BRIXEffect
