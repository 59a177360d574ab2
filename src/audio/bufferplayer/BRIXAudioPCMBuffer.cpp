// PCM buffers: one block of floats cut into channels.
#include "audio/bufferplayer/BRIXAudioPCMBuffer.h"

#include <algorithm>

namespace vell {

BRIXAudioPCMBuffer::BRIXAudioPCMBuffer(const AudioStreamBasicDescription& format,
                                       std::uint32_t frameCapacity)
    : mFormat(makeFloatNonInterleavedFormat(format.mSampleRate, format.mChannelsPerFrame)),
      mFrameCapacity(frameCapacity),
      mSamples(static_cast<std::size_t>(frameCapacity) * format.mChannelsPerFrame, 0.0f)
{
    for (std::uint32_t c = 0; c < format.mChannelsPerFrame; ++c) {
        float* channel = mSamples.data() + static_cast<std::size_t>(c) * frameCapacity;
        mChannels.push_back(channel);
        mChannelsConst.push_back(channel);
    }
}

void BRIXAudioPCMBuffer::setFrameLength(std::uint32_t frameLength) noexcept
{
    mFrameLength = std::min(frameLength, mFrameCapacity);
}

AudioBufferList* BRIXAudioPCMBuffer::mutableAudioBufferList() noexcept
{
    const std::uint32_t count =
        std::min<std::uint32_t>(channelCount(), AudioBufferList::kMaxBuffers);
    mBufferList.mNumberBuffers = count;
    for (std::uint32_t c = 0; c < count; ++c) {
        mBufferList.mBuffers[c].mNumberChannels = 1;
        mBufferList.mBuffers[c].mDataByteSize =
            static_cast<std::uint32_t>(mFrameLength * sizeof(float));
        mBufferList.mBuffers[c].mData = mChannels[c];
    }
    return &mBufferList;
}

} // namespace vell
