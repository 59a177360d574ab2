// Render procedures and signal measurements shared by the device tests.
#pragma once

#include "VellAudio/AudioTypes.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <vector>

namespace vell::test {

/// What a render procedure was asked for: frames, calls, the largest request, and whether the
/// time stamps ran on from 0 without a gap. Real-time safe.
struct RenderRecord {
    std::atomic<std::uint64_t> frames{0};
    std::atomic<std::uint32_t> calls{0};
    std::atomic<std::uint32_t> largestRequest{0};
    std::atomic<bool> timeStampsContiguous{true};
    double nextSampleTime = 0;

    void note(const AudioTimeStamp& timeStamp, std::uint32_t frameCount) noexcept
    {
        if (timeStamp.mSampleTime != nextSampleTime ||
            (timeStamp.mFlags & kAudioTimeStampSampleTimeValid) == 0) {
            timeStampsContiguous = false;
        }
        nextSampleTime = timeStamp.mSampleTime + frameCount;
        frames += frameCount;
        ++calls;
        largestRequest = std::max(largestRequest.load(), frameCount);
    }
};

/// A sine on every channel.
struct SineSource : RenderRecord {
    double frequency = 1000;
    double sampleRate = 44100;
    float amplitude = 0.5f;
    double phase = 0;

    static void render(void* context, float* const* channels, std::uint32_t channelCount,
                       std::uint32_t frameCount, const AudioTimeStamp& timeStamp) noexcept
    {
        auto* self = static_cast<SineSource*>(context);
        self->note(timeStamp, frameCount);
        const double step = 2 * M_PI * self->frequency / self->sampleRate;
        for (std::uint32_t i = 0; i < frameCount; ++i) {
            const float value = self->amplitude * static_cast<float>(std::sin(self->phase));
            self->phase = std::fmod(self->phase + step, 2 * M_PI);
            for (std::uint32_t c = 0; c < channelCount; ++c) {
                channels[c][i] = value;
            }
        }
    }
};

/// The frequency of a steady tone, from its rising zero crossings (interpolated).
inline double zeroCrossingFrequency(const std::vector<float>& samples, double sampleRate)
{
    double first = -1, last = -1;
    int crossings = 0;
    for (std::size_t i = 1; i < samples.size(); ++i) {
        if (samples[i - 1] < 0 && samples[i] >= 0) {
            last = static_cast<double>(i - 1) + samples[i - 1] / (samples[i - 1] - samples[i]);
            crossings += first < 0 ? 0 : 1;
            first = first < 0 ? last : first;
        }
    }
    return crossings > 0 ? crossings * sampleRate / (last - first) : 0.0;
}

inline float peakOf(const std::vector<float>& samples)
{
    float peak = 0;
    for (float s : samples) {
        peak = std::max(peak, std::fabs(s));
    }
    return peak;
}

} // namespace vell::test
