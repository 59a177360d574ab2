// A PCM buffer: non-interleaved 32-bit float frames in a given format, with a fixed capacity and
// a frame length.
#pragma once

#include "VellAudio/AudioTypes.h"

#include <cstdint>
#include <vector>

namespace vell {

/// Thread: one thread at a time writes the samples and the length; once the buffer is
/// scheduled on a player, it belongs to the player until its completion handler runs.
class BRIXAudioPCMBuffer {
public:
    /// Room for frameCapacity frames of format's channels (float, one buffer per channel,
    /// whatever sample format the description names). The frame length starts at 0.
    BRIXAudioPCMBuffer(const AudioStreamBasicDescription& format, std::uint32_t frameCapacity);

    BRIXAudioPCMBuffer(const BRIXAudioPCMBuffer&) = delete;
    BRIXAudioPCMBuffer& operator=(const BRIXAudioPCMBuffer&) = delete;

    /// The format: the given one, as non-interleaved float.
    const AudioStreamBasicDescription& format() const noexcept { return mFormat; }
    std::uint32_t channelCount() const noexcept { return mFormat.mChannelsPerFrame; }
    std::uint32_t frameCapacity() const noexcept { return mFrameCapacity; }

    /// The frames that hold sound, from the start.
    std::uint32_t frameLength() const noexcept { return mFrameLength; }
    /// Sets the frame length, capped at the capacity.
    void setFrameLength(std::uint32_t frameLength) noexcept;

    /// One pointer per channel, each to frameCapacity floats.
    float* const* floatChannelData() noexcept { return mChannels.data(); }
    const float* const* floatChannelData() const noexcept { return mChannelsConst.data(); }

    /// The channels as a buffer list whose byte sizes cover the frame length (at most
    /// AudioBufferList::kMaxBuffers channels), for readers that fill buffer lists.
    AudioBufferList* mutableAudioBufferList() noexcept;

private:
    AudioStreamBasicDescription mFormat;
    std::uint32_t mFrameCapacity = 0;
    std::uint32_t mFrameLength = 0;
    std::vector<float> mSamples;
    std::vector<float*> mChannels;
    std::vector<const float*> mChannelsConst;
    AudioBufferList mBufferList;
};

} // namespace vell
