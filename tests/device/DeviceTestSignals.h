// Render procedures and signal measurements shared by the device tests.
#pragma once

#include "VellAudio/AudioTypes.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>
#include <vector>

namespace vell::test {

/// A sine on every channel, with a record of what the device asked for. Real-time safe.
struct SineSource {
    double frequency = 1000;
    double sampleRate = 44100;
    float amplitude = 0.5f;
    double phase = 0;
    std::atomic<std::uint64_t> frames{0};
    std::atomic<std::uint32_t> calls{0};
    std::atomic<std::uint32_t> largestRequest{0};
    std::atomic<bool> timeStampsContiguous{true};
    double nextSampleTime = 0;

    static void render(void* context, float* const* channels, std::uint32_t channelCount,
                       std::uint32_t frameCount, const AudioTimeStamp& timeStamp) noexcept
    {
        auto* self = static_cast<SineSource*>(context);
        if (timeStamp.mSampleTime != self->nextSampleTime ||
            (timeStamp.mFlags & kAudioTimeStampSampleTimeValid) == 0) {
            self->timeStampsContiguous = false;
        }
        self->nextSampleTime = timeStamp.mSampleTime + frameCount;
        const double step = 2 * M_PI * self->frequency / self->sampleRate;
        for (std::uint32_t i = 0; i < frameCount; ++i) {
            const float value = self->amplitude * static_cast<float>(std::sin(self->phase));
            self->phase = std::fmod(self->phase + step, 2 * M_PI);
            for (std::uint32_t c = 0; c < channelCount; ++c) {
                channels[c][i] = value;
            }
        }
        self->frames += frameCount;
        ++self->calls;
        if (frameCount > self->largestRequest) {
            self->largestRequest = frameCount;
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
            const double at =
                static_cast<double>(i - 1) + samples[i - 1] / (samples[i - 1] - samples[i]);
            if (first < 0) {
                first = at;
            } else {
                ++crossings;
            }
            last = at;
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
