// An audio file decoded once, fully, into memory as non-interleaved 32-bit float.
#pragma once

#include "VellAudio/AudioTypes.h"
#include "VellAudio/Error.h"
#include "VellAudio/Types.h"

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace vell {

namespace detail {
class AudioFileDecoder;
}

/// Decodes every music format FFmpeg reads (MP3, AAC, ALAC, FLAC, WAV, AIFF, Vorbis, Opus, WMA,
/// AC-3, DTS, WavPack, DSD...), and the audio track of video files, at open. The client format is
/// non-interleaved float at the file's own sample rate (88.2 kHz for DSD) with two channels (mono
/// duplicated, more than two folded down). Frame counts are exact: encoder delay and padding are
/// removed where the file says how much there is.
///
/// Thread safety: after creation the samples never change; any thread may read them, and the
/// render thread may call `channelData` and `frameCount`. `seekToFrame` and
/// `readIntoAudioBufferList` keep a read position and belong to one thread at a time.
class BRIXExtendedAudioFile {
public:
    /// Called on the opening thread now and then while decoding with the fraction done (0 first,
    /// 1 last); return false to cancel.
    using ProgressCallback = std::function<bool(double fractionDone)>;

    /// Opens and decodes a file. On failure returns null, logs the error once and fills
    /// *outError with a user error ("BRIXVellErrorDomain", code 0, description "Bad Audio File")
    /// whose failure reason says what is wrong. Never throws.
    static std::unique_ptr<BRIXExtendedAudioFile> create(const std::filesystem::path& path,
                                                         Error* outError = nullptr,
                                                         ProgressCallback progress = {});

    /// Wraps samples already in memory (one vector per channel, up to 8; channels longer than
    /// the shortest are cut to it). Keeps the channel count given. For synthetic audio and
    /// tests. Returns null for a sample rate that is not positive or more than 8 channels.
    static std::unique_ptr<BRIXExtendedAudioFile> createWithSamples(
        std::vector<std::vector<float>> channels, double sampleRate);

    ~BRIXExtendedAudioFile();
    BRIXExtendedAudioFile(const BRIXExtendedAudioFile&) = delete;
    BRIXExtendedAudioFile& operator=(const BRIXExtendedAudioFile&) = delete;

    const std::filesystem::path& path() const noexcept { return mPath; }
    /// Exact number of frames after gapless trimming.
    Frame frameCount() const noexcept { return mFrameCount; }
    double sampleRate() const noexcept { return mSampleRate; }
    /// Channels of the client format (2 for any decoded file).
    std::uint32_t channelCount() const noexcept { return static_cast<std::uint32_t>(mChannels.size()); }
    /// The client format.
    AudioStreamBasicDescription clientFormat() const noexcept;
    double duration() const noexcept { return mSampleRate > 0 ? double(mFrameCount) / mSampleRate : 0; }

    /// What the file is: container and codec names, the source's channel count and bit depth
    /// (0 when not fixed) and bit rate (0 when unknown).
    struct SourceFormat {
        std::string container;
        std::string codec;
        std::uint32_t channels = 0;
        std::uint32_t bitsPerSample = 0;
        std::int64_t bitRate = 0;
    };
    const SourceFormat& sourceFormat() const noexcept { return mSourceFormat; }

    /// The decoded samples of one channel. Thread: any, including render. Wait-free.
    std::span<const float> channelData(std::uint32_t channel) const noexcept
    {
        return channel < mChannels.size()
                   ? std::span<const float>(mChannels[channel], std::size_t(mFrameCount))
                   : std::span<const float>();
    }

    /// Moves the read position. Frames outside [0, frameCount] fail with false and leave it.
    bool seekToFrame(Frame frame) noexcept;
    Frame currentFrame() const noexcept { return mReadFrame; }

    /// Reads up to the capacity of ioData's buffers (the smallest mDataByteSize / 4 frames)
    /// starting at startFrame into its non-interleaved float buffers, sets mDataByteSize to what
    /// was written, reports the frames read (fewer at the end of the file, 0 at or past it) and
    /// moves the read position past them. Buffers beyond the file's channels get its last
    /// channel. Returns false (and reads nothing) for a negative start frame or a bad buffer
    /// list (no buffers, more than kMaxBuffers, or a null buffer). Wait-free, no allocation.
    bool readIntoAudioBufferList(AudioBufferList* ioData, Frame startFrame,
                                 std::uint32_t* outFramesRead) noexcept;

private:
    struct Storage;

    BRIXExtendedAudioFile();

    std::filesystem::path mPath;
    /// Owns the samples (vectors handed in, or the decoder's buffers).
    std::unique_ptr<Storage> mStorage;
    /// One pointer per client channel, each to mFrameCount samples (channels may share one).
    std::vector<const float*> mChannels;
    Frame mFrameCount = 0;
    double mSampleRate = 0;
    Frame mReadFrame = 0;
    SourceFormat mSourceFormat;

    friend class detail::AudioFileDecoder;
};

} // namespace vell
