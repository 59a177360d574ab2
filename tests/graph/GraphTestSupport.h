// Helpers for the graph tests: a graph built around a generic output, pulled slice by slice on
// the test's thread, and small signal measurements.
#pragma once

#include "audio/graph/AUGraph.h"
#include "audio/graph/AudioUnitInstance.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <functional>
#include <numbers>
#include <vector>

namespace vell::test {

inline constexpr AudioComponentDescription kMixerDescription{
    kAudioUnitType_Mixer, kAudioUnitSubType_MultiChannelMixer, kAudioUnitManufacturer_System, 0,
    0};
inline constexpr AudioComponentDescription kSamplerDescription{
    kAudioUnitType_MusicDevice, kAudioUnitSubType_Sampler, kAudioUnitManufacturer_System, 0, 0};
inline constexpr AudioComponentDescription kLimiterDescription{
    kAudioUnitType_Effect, kAudioUnitSubType_PeakLimiter, kAudioUnitManufacturer_System, 0, 0};
inline constexpr AudioComponentDescription kGenericOutputDescription{
    kAudioUnitType_Output, kAudioUnitSubType_GenericOutput, kAudioUnitManufacturer_System, 0, 0};
inline constexpr AudioComponentDescription kDefaultOutputDescription{
    kAudioUnitType_Output, kAudioUnitSubType_DefaultOutput, kAudioUnitManufacturer_System, 0, 0};

/// Planar audio: one vector per channel.
using Channels = std::vector<std::vector<float>>;

/// Owns a graph; disposes of it at the end of the test.
class GraphHolder {
public:
    GraphHolder() { EXPECT_EQ(NewAUGraph(&mGraph), noErr); }
    ~GraphHolder()
    {
        if (mGraph) {
            DisposeAUGraph(mGraph);
        }
    }
    GraphHolder(const GraphHolder&) = delete;
    GraphHolder& operator=(const GraphHolder&) = delete;

    AUGraph get() const { return mGraph; }
    operator AUGraph() const { return mGraph; }

    AUNode add(const AudioComponentDescription& description)
    {
        AUNode node = 0;
        EXPECT_EQ(AUGraphAddNode(mGraph, &description, &node), noErr);
        return node;
    }

    AudioUnit unit(AUNode node) const
    {
        AudioUnit unit = nullptr;
        EXPECT_EQ(AUGraphNodeInfo(mGraph, node, nullptr, &unit), noErr);
        return unit;
    }

private:
    AUGraph mGraph = nullptr;
};

inline void setFormat(AudioUnit unit, AudioUnitScope scope, AudioUnitElement element,
                      double rate, std::uint32_t channels)
{
    const AudioStreamBasicDescription format = makeFloatNonInterleavedFormat(rate, channels);
    ASSERT_EQ(AudioUnitSetProperty(unit, kAudioUnitProperty_StreamFormat, scope, element, &format,
                                   sizeof(format)),
              noErr);
}

inline void setMaxFrames(AudioUnit unit, std::uint32_t frames)
{
    ASSERT_EQ(AudioUnitSetProperty(unit, kAudioUnitProperty_MaximumFramesPerSlice,
                                   kAudioUnitScope_Global, 0, &frames, sizeof(frames)),
              noErr);
}

/// Pulls an output unit for total frames in slices of sliceFrames and returns what it made.
/// beforeSlice(sliceIndex, firstFrame) runs before each slice.
inline Channels pull(AudioUnit output, std::uint32_t channels, std::uint32_t total,
                     std::uint32_t sliceFrames,
                     const std::function<void(std::uint32_t, std::uint32_t)>& beforeSlice = {})
{
    Channels result(channels, std::vector<float>(total, 0.0f));
    std::uint32_t done = 0;
    AudioTimeStamp stamp;
    stamp.mFlags = kAudioTimeStampSampleTimeValid;
    for (std::uint32_t slice = 0; done < total; ++slice) {
        const std::uint32_t n = std::min(sliceFrames, total - done);
        if (beforeSlice) {
            beforeSlice(slice, done);
        }
        AudioBufferList list;
        list.mNumberBuffers = channels;
        for (std::uint32_t c = 0; c < channels; ++c) {
            list.mBuffers[c].mNumberChannels = 1;
            list.mBuffers[c].mDataByteSize = n * sizeof(float);
            list.mBuffers[c].mData = result[c].data() + done;
        }
        AudioUnitRenderActionFlags flags = 0;
        stamp.mSampleTime = done;
        const OSStatus status = AudioUnitRender(output, &flags, &stamp, 0, n, &list);
        EXPECT_EQ(status, noErr) << "slice " << slice;
        if (status != noErr) {
            break;
        }
        done += n;
    }
    return result;
}

/// Index of the first sample whose magnitude exceeds threshold, or -1.
inline long firstAbove(const std::vector<float>& samples, float threshold, std::size_t from = 0)
{
    for (std::size_t i = from; i < samples.size(); ++i) {
        if (std::fabs(samples[i]) > threshold) {
            return long(i);
        }
    }
    return -1;
}

inline double rms(const std::vector<float>& samples, std::size_t begin, std::size_t end)
{
    double sum = 0;
    end = std::min(end, samples.size());
    if (end <= begin) {
        return 0;
    }
    for (std::size_t i = begin; i < end; ++i) {
        sum += double(samples[i]) * samples[i];
    }
    return std::sqrt(sum / double(end - begin));
}

inline float peak(const std::vector<float>& samples)
{
    float p = 0;
    for (float s : samples) {
        p = std::max(p, std::fabs(s));
    }
    return p;
}

/// Magnitude of the Hann-windowed spectrum of samples[begin, end) at frequency hz.
inline double magnitudeAt(const std::vector<float>& samples, std::size_t begin, std::size_t end,
                          double rate, double hz)
{
    const std::size_t n = end - begin;
    double re = 0;
    double im = 0;
    for (std::size_t i = 0; i < n; ++i) {
        const double window = 0.5 - 0.5 * std::cos(2 * std::numbers::pi * double(i) / double(n));
        const double phase = 2 * std::numbers::pi * hz * double(i) / rate;
        re += window * samples[begin + i] * std::cos(phase);
        im -= window * samples[begin + i] * std::sin(phase);
    }
    return std::hypot(re, im);
}

/// The MIDI pitch (fractional) whose frequency has the strongest spectrum in [low, high] MIDI,
/// searched in steps of one cent.
inline double strongestPitch(const std::vector<float>& samples, std::size_t begin,
                             std::size_t end, double rate, double lowPitch, double highPitch)
{
    double best = lowPitch;
    double bestMagnitude = -1;
    for (double p = lowPitch; p <= highPitch; p += 0.01) {
        const double hz = 440.0 * std::pow(2.0, (p - 69.0) / 12.0);
        const double m = magnitudeAt(samples, begin, end, rate, hz);
        if (m > bestMagnitude) {
            bestMagnitude = m;
            best = p;
        }
    }
    return best;
}

} // namespace vell::test
