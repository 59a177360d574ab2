// The engine's main mixer: sums the player nodes and applies the output volume.
#pragma once

#include "rt/Realtime.h"

#include <algorithm>
#include <atomic>
#include <cmath>

namespace vell {

class BRIXAudioMixerNode {
public:
    /// The gain applied to the mix, 1.0 at first. Thread: any.
    float outputVolume() const noexcept { return mOutputVolume.load(); }
    /// Negative and non-finite volumes become 0. Thread: any.
    void setOutputVolume(float volume) noexcept
    {
        mOutputVolume.store(std::isfinite(volume) ? std::max(volume, 0.0f) : 0.0f);
    }

private:
    std::atomic<float> mOutputVolume{1.0f};
    VELL_STATIC_ASSERT_LOCK_FREE(float);
};

} // namespace vell
