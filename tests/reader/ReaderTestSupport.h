// Shared helpers of the reader tests: ramp files whose samples name their frame, and waiting on
// conditions with a generous limit.
#pragma once

#include "VellAudio/BRIXExtendedAudioFile.h"
#include "audio/reader/BRIXAudioFileReader.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <memory>
#include <thread>
#include <vector>

namespace vell::test {

inline constexpr double kRate = 44100.0;

/// A stereo file whose left sample at frame f is f + offset and whose right sample is its
/// negative, so every copied value says which frame (and channel) it came from. Exact while
/// frames + offset stay below 2^24.
inline std::shared_ptr<BRIXExtendedAudioFile> makeRampFile(Frame frames, float offset = 0.0f,
                                                           std::uint32_t channels = 2)
{
    std::vector<std::vector<float>> samples(channels, std::vector<float>(std::size_t(frames)));
    for (Frame f = 0; f < frames; ++f) {
        for (std::uint32_t c = 0; c < channels; ++c) {
            samples[c][std::size_t(f)] = (c == 1 ? -1.0f : 1.0f) * (float(f) + offset);
        }
    }
    std::shared_ptr<BRIXExtendedAudioFile> file =
        BRIXExtendedAudioFile::createWithSamples(std::move(samples), kRate);
    return file;
}

inline std::unique_ptr<BRIXAudioFileReader> makeReader(std::shared_ptr<BRIXExtendedAudioFile> file,
                                                       std::uint32_t buffers,
                                                       std::uint32_t framesPerBuffer,
                                                       std::uint32_t channels = 2)
{
    auto reader = BRIXAudioFileReader::create(buffers, framesPerBuffer,
                                              makeFloatNonInterleavedFormat(kRate, channels));
    if (reader) {
        reader->setAudioFile(std::move(file));
    }
    return reader;
}

/// Polls pred until it holds or ten seconds pass; returns whether it held.
template <class Pred> bool waitFor(Pred&& pred)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!pred()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
}

/// Two channels of output with a sentinel in every sample not written.
struct StereoOut {
    explicit StereoOut(std::size_t frames)
        : left(frames, kSentinel), right(frames, kSentinel), pointers{left.data(), right.data()}
    {
    }
    void reset()
    {
        std::fill(left.begin(), left.end(), kSentinel);
        std::fill(right.begin(), right.end(), kSentinel);
    }
    static constexpr float kSentinel = -12345.5f;
    std::vector<float> left;
    std::vector<float> right;
    float* pointers[2];
};

/// A list of one-channel buffers over channels, each declared as big as its vector.
inline AudioBufferList bufferList(std::vector<std::vector<float>>& channels)
{
    AudioBufferList list;
    list.mNumberBuffers = std::uint32_t(channels.size());
    for (std::size_t c = 0; c < channels.size(); ++c) {
        list.mBuffers[c] = {1, std::uint32_t(channels[c].size() * sizeof(float)),
                            channels[c].data()};
    }
    return list;
}

/// One copy through the channel-pointer entry point.
inline std::uint32_t copyOnce(BRIXAudioFileReader& reader, StereoOut& out, std::uint32_t frames)
{
    std::uint32_t n = frames;
    BRIXAudioBufferQueueCopyIntoChannels(&reader, out.pointers, 2, &n);
    return n;
}

/// Reads frames frames as the render thread would (never waiting inside the reader), retrying
/// starved copies until all arrived, the stream ended or ten seconds passed. Returns the left
/// channel (frame numbers) and checks the right channel mirrors it.
inline std::vector<Frame> readFrames(BRIXAudioFileReader& reader, std::size_t frames,
                                     std::uint32_t chunk = 512)
{
    std::vector<Frame> result;
    StereoOut out(chunk);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (result.size() < frames) {
        const auto want = std::uint32_t(std::min<std::size_t>(chunk, frames - result.size()));
        out.reset();
        const std::uint32_t got = copyOnce(reader, out, want);
        for (std::uint32_t i = 0; i < got; ++i) {
            EXPECT_EQ(out.right[i], -out.left[i]) << "channels mixed up at " << result.size() + i;
            result.push_back(Frame(std::lround(out.left[i])));
        }
        if (got < want) {
            EXPECT_EQ(out.left[got], StereoOut::kSentinel) << "wrote past the frames it reported";
            if (BRIXAudioBufferQueueReachedEndOfStream(&reader) ||
                std::chrono::steady_clock::now() > deadline) {
                break;
            }
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
    }
    return result;
}

/// The frames reading should give: from start, step +1 or -1, wrapping inside [loopStart,
/// loopEnd) when loopEnd > loopStart.
inline std::vector<Frame> expectedFrames(Frame start, std::size_t count, bool reverse,
                                         Frame loopStart = 0, Frame loopEnd = 0)
{
    std::vector<Frame> frames;
    Frame f = start;
    for (std::size_t i = 0; i < count; ++i) {
        frames.push_back(f);
        f += reverse ? -1 : 1;
        if (loopEnd > loopStart) {
            if (!reverse && f >= loopEnd) {
                f = loopStart;
            } else if (reverse && f < loopStart) {
                f = loopEnd - 1;
            }
        }
    }
    return frames;
}

} // namespace vell::test
