// The isolation engine as a spectral effect, for offline use (the freezer's window).
#pragma once

#include "audio/effects/SpectralProcessor.h"
#include "isolation/IsolationEngine.h"

#include <VellAudio/TessalyCore.h>

#include <vector>

namespace vell::BRIXEffect {

/// Keeps (or, muted, removes) the audio in a region of the stereo field and a frequency band;
/// the same engine and settings as the TessalyCore C interface (see VellAudio/TessalyCore.h for
/// what the settings mean). The output trails the input by latency() frames.
class Isolator final : public SpectralProcessor {
public:
    /// blockSize: the most frames one process() call handles. Throws std::invalid_argument for
    /// a bad rate, channel count or block size, std::bad_alloc when memory is short.
    Isolator(int sampleRate, int channels, int blockSize);

    /// Passes the input through unchanged (delayed by the latency). Read at every process().
    bool bypass = true;

    float startFrequencyHz() const noexcept { return mEngine.startFrequencyHz(); }
    void setStartFrequencyHz(float hz) noexcept { mEngine.setStartFrequencyHz(hz); }
    float endFrequencyHz() const noexcept { return mEngine.endFrequencyHz(); }
    void setEndFrequencyHz(float hz) noexcept { mEngine.setEndFrequencyHz(hz); }
    bool mute() const noexcept { return mEngine.isMuted(); }
    void setMute(bool mute) noexcept { mEngine.setMute(mute); }
    float pan() const noexcept { return mEngine.pan(); }
    void setPan(float pan) noexcept { mEngine.setPan(pan); }
    float panWidth() const noexcept { return mEngine.panWidth(); }
    void setPanWidth(float width) noexcept { mEngine.setPanWidth(width); }

    /// Copies start and end frequency, mute, pan, pan width and then bypass from an engine
    /// instance (as the freezer does with the playback engine's settings). Thread: control.
    void copySettingsFrom(const TessalyInstance* instance) noexcept;

    int blockSize() const noexcept { return mBlockSize; }
    int latency() const noexcept { return IsolationEngine::kLatency; }

    VELL_RT void reset() noexcept override;

    /// Processes min(inputFrames, outputFrames) frames, at most blockSize() (the rest of the
    /// output is zeroed). Input and output may be the same buffers. With no input (null or
    /// 0 frames) the engine is fed silence, which flushes what it still holds.
    VELL_RT void process(const float* const* input, int inputFrames, float* const* output,
                         int outputFrames) noexcept override;

private:
    IsolationEngine mEngine;
    int mBlockSize;
    std::vector<float> mSilence;
    std::vector<const float*> mSilentChannels;
};

} // namespace vell::BRIXEffect
