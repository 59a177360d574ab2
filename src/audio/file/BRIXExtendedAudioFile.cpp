// An audio file decoded once into memory: creation, position and reads.
#include "VellAudio/BRIXExtendedAudioFile.h"

#include "audio/file/AudioFileDecoder.h"
#include "audio/file/AudioFileStorage.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace vell {

BRIXExtendedAudioFile::BRIXExtendedAudioFile() = default;
BRIXExtendedAudioFile::~BRIXExtendedAudioFile() = default;

std::unique_ptr<BRIXExtendedAudioFile> BRIXExtendedAudioFile::create(
    const std::filesystem::path& path, Error* outError, ProgressCallback progress)
{
    return detail::AudioFileDecoder::open(path, outError, std::move(progress));
}

std::unique_ptr<BRIXExtendedAudioFile> BRIXExtendedAudioFile::createWithSamples(
    std::vector<std::vector<float>> channels, double sampleRate)
{
    if (!(sampleRate > 0) || !std::isfinite(sampleRate) ||
        channels.size() > AudioBufferList::kMaxBuffers) {
        return nullptr;
    }
    std::unique_ptr<BRIXExtendedAudioFile> file(new BRIXExtendedAudioFile);
    std::size_t frames = channels.empty() ? 0 : channels.front().size();
    for (const auto& channel : channels) {
        frames = std::min(frames, channel.size());
    }
    file->mStorage = std::make_unique<Storage>();
    file->mStorage->vectors = std::move(channels);
    for (const auto& channel : file->mStorage->vectors) {
        file->mChannels.push_back(channel.data());
    }
    file->mFrameCount = Frame(frames);
    file->mSampleRate = sampleRate;
    file->mSourceFormat.container = "memory";
    file->mSourceFormat.codec = "pcm_f32";
    file->mSourceFormat.channels = static_cast<std::uint32_t>(file->mChannels.size());
    file->mSourceFormat.bitsPerSample = 32;
    return file;
}

AudioStreamBasicDescription BRIXExtendedAudioFile::clientFormat() const noexcept
{
    return makeFloatNonInterleavedFormat(mSampleRate, channelCount());
}

bool BRIXExtendedAudioFile::seekToFrame(Frame frame) noexcept
{
    if (frame < 0 || frame > mFrameCount) {
        return false;
    }
    mReadFrame = frame;
    return true;
}

bool BRIXExtendedAudioFile::readIntoAudioBufferList(AudioBufferList* ioData, Frame startFrame,
                                                    std::uint32_t* outFramesRead) noexcept
{
    if (outFramesRead) {
        *outFramesRead = 0;
    }
    if (!ioData || ioData->mNumberBuffers == 0 ||
        ioData->mNumberBuffers > AudioBufferList::kMaxBuffers || startFrame < 0) {
        return false;
    }
    std::uint32_t capacity = ioData->mBuffers[0].mDataByteSize / sizeof(float);
    for (std::uint32_t i = 0; i < ioData->mNumberBuffers; ++i) {
        const AudioBuffer& buffer = ioData->mBuffers[i];
        if (!buffer.mData && buffer.mDataByteSize > 0) {
            return false;
        }
        capacity = std::min<std::uint32_t>(capacity, buffer.mDataByteSize / sizeof(float));
    }

    const Frame start = std::min(startFrame, mFrameCount);
    const auto frames = static_cast<std::uint32_t>(std::min<Frame>(capacity, mFrameCount - start));
    for (std::uint32_t i = 0; i < ioData->mNumberBuffers; ++i) {
        AudioBuffer& buffer = ioData->mBuffers[i];
        if (frames > 0) {
            if (mChannels.empty()) {
                std::memset(buffer.mData, 0, frames * sizeof(float));
            } else {
                const float* source = mChannels[std::min<std::size_t>(i, mChannels.size() - 1)];
                std::memcpy(buffer.mData, source + start, frames * sizeof(float));
            }
        }
        buffer.mDataByteSize = frames * sizeof(float);
    }
    mReadFrame = start + frames;
    if (outFramesRead) {
        *outFramesRead = frames;
    }
    return true;
}

} // namespace vell
