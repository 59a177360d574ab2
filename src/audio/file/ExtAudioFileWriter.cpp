// Writes AIFF and WAVE (16-bit PCM, headers written here) and M4A (FFmpeg's AAC encoder and MP4
// muxer) from non-interleaved float, converting rate and channels with libswresample.
#include "audio/file/ExtAudioFileWriter.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/audio_fifo.h>
#include <libavutil/channel_layout.h>
#include <libavutil/samplefmt.h>
#include <libswresample/swresample.h>
}

#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <memory>
#include <mutex>
#include <new>
#include <vector>

namespace vell {

namespace {

/// The graph's paramErr: a null or malformed argument.
constexpr OSStatus kParamErr = -50;
constexpr int kMinFileRate = 8000;
constexpr int kMaxFileRate = 384000;
constexpr double kMinClientRate = 1000;
constexpr double kMaxClientRate = 768000;
constexpr std::uint32_t kMaxChannels = AudioBufferList::kMaxBuffers;
/// Client frames converted per pass; conversion buffers are sized for this many.
constexpr int kChunkFrames = 4096;
/// Bytes of PCM gathered before a write to the file.
constexpr std::size_t kPcmBufferBytes = std::size_t(1) << 16;
constexpr int kIOBufferBytes = 1 << 16;
constexpr std::int64_t kAacBitRatePerChannel = 128000;
constexpr int kAacRates[] = {96000, 88200, 64000, 48000, 44100, 32000,
                             24000, 22050, 16000, 12000, 11025, 8000};

void silenceLibraryLogging()
{
    static std::once_flag once;
    std::call_once(once, [] { av_log_set_level(AV_LOG_QUIET); });
}

OSStatus statusFromErrno(int error) noexcept
{
    return error > 0 ? OSStatus(error) : kExtAudioFileError_WriteFailed;
}

bool isWholeRate(double rate, double low, double high) noexcept
{
    return std::isfinite(rate) && rate >= low && rate <= high && rate == std::floor(rate);
}

struct CodecContextFreer {
    void operator()(AVCodecContext* context) const noexcept { avcodec_free_context(&context); }
};
struct CodecParametersFreer {
    void operator()(AVCodecParameters* parameters) const noexcept
    {
        avcodec_parameters_free(&parameters);
    }
};
struct FormatContextFreer {
    void operator()(AVFormatContext* context) const noexcept { avformat_free_context(context); }
};
struct IOContextFreer {
    void operator()(AVIOContext* context) const noexcept
    {
        av_freep(&context->buffer);
        avio_context_free(&context);
    }
};
struct FrameFreer {
    void operator()(AVFrame* frame) const noexcept { av_frame_free(&frame); }
};
struct PacketFreer {
    void operator()(AVPacket* packet) const noexcept { av_packet_free(&packet); }
};
struct FifoFreer {
    void operator()(AVAudioFifo* fifo) const noexcept { av_audio_fifo_free(fifo); }
};
struct ResamplerFreer {
    void operator()(SwrContext* context) const noexcept { swr_free(&context); }
};

/// The output file: positioned writes whose failures are recorded rather than fatal. A write
/// past the file-size limit raises SIGXFSZ, which would end the process; it is blocked in this
/// thread around each write and a pending one taken back, so the write fails with EFBIG and the
/// process's signal handling is left as it was.
class FileOutput {
public:
    FileOutput() = default;
    ~FileOutput() { close(); }
    FileOutput(const FileOutput&) = delete;
    FileOutput& operator=(const FileOutput&) = delete;

    /// Creates (or with erase, truncates) the file; 0 or errno.
    int open(const char* path, bool erase) noexcept
    {
        const int flags = O_RDWR | O_CREAT | O_CLOEXEC | (erase ? O_TRUNC : O_EXCL);
        do {
            mDescriptor = ::open(path, flags, 0666);
        } while (mDescriptor < 0 && errno == EINTR);
        return mDescriptor < 0 ? errno : 0;
    }

    /// Writes size bytes at offset; returns how many reached the file (all unless it failed).
    std::size_t writeAt(std::int64_t offset, const std::uint8_t* data, std::size_t size) noexcept
    {
        sigset_t fileSizeSignal;
        sigset_t previous;
        sigemptyset(&fileSizeSignal);
        sigaddset(&fileSizeSignal, SIGXFSZ);
        pthread_sigmask(SIG_BLOCK, &fileSizeSignal, &previous);
        std::size_t written = 0;
        int error = 0;
        while (written < size) {
            const ssize_t n = ::pwrite(mDescriptor, data + written, size - written,
                                       off_t(offset + std::int64_t(written)));
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n <= 0) {
                error = n < 0 ? errno : EIO;
                break;
            }
            written += std::size_t(n);
        }
        if (error == EFBIG) {
            const timespec now{};
            while (sigtimedwait(&fileSizeSignal, nullptr, &now) == SIGXFSZ) {
            }
        }
        pthread_sigmask(SIG_SETMASK, &previous, nullptr);
        mEnd = std::max(mEnd, offset + std::int64_t(written));
        if (error != 0 && mError == 0) {
            mError = error;
        }
        return written;
    }

    bool readAt(std::int64_t offset, std::uint8_t* data, std::size_t size) const noexcept
    {
        std::size_t done = 0;
        while (done < size) {
            const ssize_t n =
                ::pread(mDescriptor, data + done, size - done, off_t(offset + std::int64_t(done)));
            if (n < 0 && errno == EINTR) {
                continue;
            }
            if (n <= 0) {
                return false;
            }
            done += std::size_t(n);
        }
        return true;
    }

    /// Cuts or extends the file to size; 0 or errno.
    int truncate(std::int64_t size) noexcept
    {
        if (::ftruncate(mDescriptor, off_t(size)) != 0) {
            return errno;
        }
        mEnd = size;
        return 0;
    }

    /// 0 or errno.
    int close() noexcept
    {
        if (mDescriptor < 0) {
            return 0;
        }
        // Deliberate: no retry on EINTR, the descriptor is gone either way on Linux.
        const int result = ::close(mDescriptor);
        mDescriptor = -1;
        return result == 0 ? 0 : errno;
    }

    /// The first errno of a failed write, or 0.
    int error() const noexcept { return mError; }
    void clearError() noexcept { mError = 0; }
    /// The end of what was written successfully: before a failure, every byte below it is on
    /// disk.
    std::int64_t end() const noexcept { return mEnd; }

private:
    int mDescriptor = -1;
    std::int64_t mEnd = 0;
    int mError = 0;
};

/// Where an AVIOContext writes: the file, or (for a dry run) nowhere, only counting.
struct IOTarget {
    FileOutput* file = nullptr;
    std::int64_t position = 0;
    std::int64_t end = 0;
};

#if LIBAVFORMAT_VERSION_MAJOR < 61
int writeIO(void* opaque, std::uint8_t* data, int size)
#else
int writeIO(void* opaque, const std::uint8_t* data, int size)
#endif
{
    auto* target = static_cast<IOTarget*>(opaque);
    std::size_t written = std::size_t(size);
    if (target->file) {
        if (target->file->error() != 0) {
            return AVERROR(target->file->error());
        }
        written = target->file->writeAt(target->position, data, std::size_t(size));
    }
    target->position += std::int64_t(written);
    target->end = std::max(target->end, target->position);
    if (written < std::size_t(size)) {
        return AVERROR(target->file->error());
    }
    return size;
}

std::int64_t seekIO(void* opaque, std::int64_t offset, int whence)
{
    auto* target = static_cast<IOTarget*>(opaque);
    switch (whence & ~AVSEEK_FORCE) {
    case AVSEEK_SIZE:
        return target->end;
    case SEEK_SET:
        break;
    case SEEK_CUR:
        offset += target->position;
        break;
    case SEEK_END:
        offset += target->end;
        break;
    default:
        return AVERROR(EINVAL);
    }
    if (offset < 0) {
        return AVERROR(EINVAL);
    }
    target->position = offset;
    return offset;
}

/// An MP4 muxer writing through an IOTarget.
struct Muxer {
    std::unique_ptr<AVIOContext, IOContextFreer> io;
    std::unique_ptr<AVFormatContext, FormatContextFreer> format;

    /// Sets up one audio stream with these parameters and writes the header.
    OSStatus open(const AVCodecParameters* parameters, IOTarget* target)
    {
        AVFormatContext* context = nullptr;
        if (avformat_alloc_output_context2(&context, nullptr, "ipod", nullptr) < 0 || !context) {
            return kExtAudioFileError_WriteFailed;
        }
        format.reset(context);
        AVStream* stream = avformat_new_stream(context, nullptr);
        if (!stream || avcodec_parameters_copy(stream->codecpar, parameters) < 0) {
            return kExtAudioFileError_WriteFailed;
        }
        stream->time_base = AVRational{1, parameters->sample_rate};
        auto* buffer = static_cast<std::uint8_t*>(av_malloc(kIOBufferBytes));
        if (!buffer) {
            return kExtAudioFileError_WriteFailed;
        }
        io.reset(avio_alloc_context(buffer, kIOBufferBytes, 1, target, nullptr, writeIO, seekIO));
        if (!io) {
            av_free(buffer);
            return kExtAudioFileError_WriteFailed;
        }
        context->pb = io.get();
        context->flags |= AVFMT_FLAG_CUSTOM_IO;
        if (avformat_write_header(context, nullptr) < 0) {
            return target->file && target->file->error() ? statusFromErrno(target->file->error())
                                                         : kExtAudioFileError_WriteFailed;
        }
        return noErr;
    }

    AVStream* stream() const noexcept { return format->streams[0]; }
};

void putLE16(std::uint8_t*& p, std::uint32_t v)
{
    *p++ = std::uint8_t(v);
    *p++ = std::uint8_t(v >> 8);
}
void putLE32(std::uint8_t*& p, std::uint32_t v)
{
    putLE16(p, v & 0xFFFF);
    putLE16(p, v >> 16);
}
void putBE16(std::uint8_t*& p, std::uint32_t v)
{
    *p++ = std::uint8_t(v >> 8);
    *p++ = std::uint8_t(v);
}
void putBE32(std::uint8_t*& p, std::uint32_t v)
{
    putBE16(p, v >> 16);
    putBE16(p, v & 0xFFFF);
}
void putTag(std::uint8_t*& p, const char (&tag)[5])
{
    std::memcpy(p, tag, 4);
    p += 4;
}

/// An 80-bit IEEE extended number, as AIFF stores its sample rate.
void putExtended(std::uint8_t*& p, double value)
{
    int exponent = 0;
    const double mantissa = std::frexp(value, &exponent); // value = mantissa * 2^exponent
    putBE16(p, std::uint32_t(16383 + exponent - 1));
    const auto bits = std::uint64_t(std::ldexp(mantissa, 64));
    putBE32(p, std::uint32_t(bits >> 32));
    putBE32(p, std::uint32_t(bits));
}

bool validPcmFileFormat(const AudioStreamBasicDescription& f, bool bigEndian) noexcept
{
    constexpr std::uint32_t kShape = kAudioFormatFlagIsFloat | kAudioFormatFlagIsBigEndian |
                                     kAudioFormatFlagIsSignedInteger |
                                     kAudioFormatFlagIsNonInterleaved;
    const std::uint32_t wanted =
        kAudioFormatFlagIsSignedInteger | (bigEndian ? kAudioFormatFlagIsBigEndian : 0);
    const std::uint32_t frameBytes = 2 * f.mChannelsPerFrame;
    return f.mFormatID == kAudioFormatLinearPCM && (f.mFormatFlags & kShape) == wanted &&
           f.mBitsPerChannel == 16 && f.mChannelsPerFrame >= 1 &&
           f.mChannelsPerFrame <= kMaxChannels &&
           isWholeRate(f.mSampleRate, kMinFileRate, kMaxFileRate) &&
           (f.mBytesPerFrame == 0 || f.mBytesPerFrame == frameBytes) &&
           (f.mBytesPerPacket == 0 || f.mBytesPerPacket == frameBytes) &&
           (f.mFramesPerPacket == 0 || f.mFramesPerPacket == 1);
}

bool validAacFileFormat(const AudioStreamBasicDescription& f) noexcept
{
    const bool knownRate =
        std::find(std::begin(kAacRates), std::end(kAacRates), f.mSampleRate) != std::end(kAacRates);
    return f.mFormatID == kAudioFormatMPEG4AAC &&
           (f.mFormatFlags == 0 || f.mFormatFlags == kMPEG4Object_AAC_LC) && knownRate &&
           f.mChannelsPerFrame >= 1 && f.mChannelsPerFrame <= kMaxChannels &&
           f.mBitsPerChannel == 0 && f.mBytesPerFrame == 0 && f.mBytesPerPacket == 0 &&
           (f.mFramesPerPacket == 0 || f.mFramesPerPacket == 1024);
}

bool validClientFormat(const AudioStreamBasicDescription& f) noexcept
{
    constexpr std::uint32_t kNeeded = kAudioFormatFlagIsFloat | kAudioFormatFlagIsNonInterleaved;
    return f.mFormatID == kAudioFormatLinearPCM && (f.mFormatFlags & kNeeded) == kNeeded &&
           (f.mFormatFlags & kAudioFormatFlagIsBigEndian) == 0 && f.mBitsPerChannel == 32 &&
           (f.mBytesPerFrame == 0 || f.mBytesPerFrame == sizeof(float)) &&
           f.mChannelsPerFrame >= 1 && f.mChannelsPerFrame <= kMaxChannels &&
           std::isfinite(f.mSampleRate) && f.mSampleRate >= kMinClientRate &&
           f.mSampleRate <= kMaxClientRate;
}

} // namespace

/// What every file shares: the client format and the converter into the file's rate,
/// channels and sample layout. The two kinds of file supply where converted frames go.
class ExtAudioFile {
public:
    virtual ~ExtAudioFile() { av_channel_layout_uninit(&mFileLayout); }
    ExtAudioFile(const ExtAudioFile&) = delete;
    ExtAudioFile& operator=(const ExtAudioFile&) = delete;

    const AudioStreamBasicDescription& fileFormat() const noexcept { return mFileFormat; }
    const AudioStreamBasicDescription& clientFormat() const noexcept { return mClientFormat; }

    OSStatus setClientFormat(const AudioStreamBasicDescription& format)
    {
        if (mFramesIn > 0 || mStatus != noErr) {
            return kExtAudioFileError_InvalidOperationOrder;
        }
        if (format.mFormatID != kAudioFormatLinearPCM) {
            return kExtAudioFileError_NonPCMClientFormat;
        }
        if (!validClientFormat(format)) {
            return kExtAudioFileError_InvalidDataFormat;
        }
        const double rate = std::round(format.mSampleRate);
        const auto channels = int(format.mChannelsPerFrame);
        SwrContext* context = nullptr;
        AVChannelLayout in{};
        av_channel_layout_default(&in, channels);
        const int made = swr_alloc_set_opts2(&context, &mFileLayout, mConverterFormat, mFileRate,
                                             &in, AV_SAMPLE_FMT_FLTP, int(rate), 0, nullptr);
        std::unique_ptr<SwrContext, ResamplerFreer> resampler(context);
        if (made < 0 || swr_init(context) < 0) {
            return kExtAudioFileError_InvalidDataFormat;
        }
        // Room for one chunk's output plus what the filter holds back.
        const int capacity = std::max(swr_get_out_samples(context, kChunkFrames), 0) + 512;
        if (const OSStatus status = prepareOutput(capacity); status != noErr) {
            return status;
        }
        mResampler = std::move(resampler);
        mOutCapacity = capacity;
        mClientRate = rate;
        mClientFormat = makeFloatNonInterleavedFormat(rate, format.mChannelsPerFrame);
        return noErr;
    }

    OSStatus write(UInt32 numberFrames, const AudioBufferList* data)
    {
        if (mStatus != noErr) {
            return mStatus;
        }
        if (!data || data->mNumberBuffers != mClientFormat.mChannelsPerFrame) {
            return kParamErr;
        }
        UInt32 frames = numberFrames;
        std::array<const float*, kMaxChannels> planes{};
        for (UInt32 c = 0; c < data->mNumberBuffers; ++c) {
            const AudioBuffer& buffer = data->mBuffers[c];
            frames = std::min<UInt32>(frames, buffer.mDataByteSize / sizeof(float));
            planes[c] = static_cast<const float*>(buffer.mData);
            if (!planes[c] && buffer.mDataByteSize > 0) {
                return kParamErr;
            }
        }
        if (frames == 0) {
            return noErr;
        }
        for (UInt32 c = 0; c < data->mNumberBuffers; ++c) {
            if (!planes[c]) {
                return kParamErr;
            }
        }
        return fail(convert(planes.data(), int(frames)));
    }

    /// Finishes the file and closes it.
    OSStatus dispose()
    {
        const bool failedBefore = mStatus != noErr;
        OSStatus status = noErr;
        if (!failedBefore) {
            status = fail(finishConversion());
        }
        status = finish(status);
        if (const int error = mFile.close(); error != 0 && status == noErr) {
            status = statusFromErrno(error);
        }
        return status;
    }

protected:
    ExtAudioFile(const AudioStreamBasicDescription& fileFormat, AVSampleFormat converterFormat)
        : mFileFormat(fileFormat), mFileRate(int(fileFormat.mSampleRate)),
          mFileChannels(int(fileFormat.mChannelsPerFrame)), mConverterFormat(converterFormat)
    {
        av_channel_layout_default(&mFileLayout, mFileChannels);
    }

    /// Sizes the buffers that take up to `capacity` converted frames.
    virtual OSStatus prepareOutput(int capacity) = 0;
    /// Where the converter writes up to mOutCapacity frames (one pointer per plane).
    virtual void outputPlanes(std::uint8_t** planes) noexcept = 0;
    /// Takes `frames` frames the converter wrote to outputPlanes.
    virtual OSStatus commitOutput(int frames) = 0;
    /// Completes the file after the converter is drained (or after a failure: mStatus says
    /// which). `status` is what finishing has returned so far; returns the final status.
    virtual OSStatus finish(OSStatus status) = 0;

    /// Records the first failure; later writes return it.
    OSStatus fail(OSStatus status) noexcept
    {
        if (status != noErr && mStatus == noErr) {
            mStatus = status;
        }
        return status;
    }

    FileOutput mFile;
    AudioStreamBasicDescription mFileFormat;
    AudioStreamBasicDescription mClientFormat;
    int mFileRate;
    int mFileChannels;
    /// The channel order the converter writes, and the file (or its encoder) takes.
    AVChannelLayout mFileLayout{};
    OSStatus mStatus = noErr;

private:
    OSStatus convert(const float* const* in, int frames)
    {
        std::array<const std::uint8_t*, kMaxChannels> planes{};
        const auto channels = mClientFormat.mChannelsPerFrame;
        for (UInt32 c = 0; c < channels; ++c) {
            planes[c] = reinterpret_cast<const std::uint8_t*>(in[c]);
        }
        while (frames > 0) {
            int n = std::min(frames, kChunkFrames);
            while (n > 1 && swr_get_out_samples(mResampler.get(), n) > mOutCapacity) {
                n /= 2;
            }
            std::array<std::uint8_t*, kMaxChannels> out{};
            outputPlanes(out.data());
            const int made =
                swr_convert(mResampler.get(), out.data(), mOutCapacity, planes.data(), n);
            if (made < 0) {
                return kExtAudioFileError_WriteFailed;
            }
            for (UInt32 c = 0; c < channels; ++c) {
                planes[c] += std::size_t(n) * sizeof(float);
            }
            frames -= n;
            mFramesIn += n;
            mFramesOut += made;
            if (made > 0) {
                if (const OSStatus status = commitOutput(made); status != noErr) {
                    return status;
                }
            }
        }
        return noErr;
    }

    /// Drains the resampler and makes the output exactly as long as the input at the file's
    /// rate (the resampler's last output may differ by a frame or so).
    OSStatus finishConversion()
    {
        const std::int64_t target = mClientRate == mFileRate
                                        ? mFramesIn
                                        : std::llround(double(mFramesIn) * mFileRate / mClientRate);
        std::array<std::uint8_t*, kMaxChannels> out{};
        while (mFramesOut < target) {
            outputPlanes(out.data());
            int made = swr_convert(mResampler.get(), out.data(), mOutCapacity, nullptr, 0);
            if (made < 0) {
                return kExtAudioFileError_WriteFailed;
            }
            if (made == 0) {
                // Drained and still short: silence makes up the rest.
                made = int(std::min<std::int64_t>(target - mFramesOut, mOutCapacity));
                av_samples_set_silence(out.data(), 0, made, mFileChannels, mConverterFormat);
            }
            made = int(std::min<std::int64_t>(made, target - mFramesOut));
            mFramesOut += made;
            if (const OSStatus status = commitOutput(made); status != noErr) {
                return status;
            }
        }
        return noErr;
    }

    AVSampleFormat mConverterFormat;
    std::unique_ptr<SwrContext, ResamplerFreer> mResampler;
    int mOutCapacity = 0;
    double mClientRate = 0;
    std::int64_t mFramesIn = 0;
    std::int64_t mFramesOut = 0;

    friend OSStatus ExtAudioFileCreateWithURL(const char*, AudioFileTypeID,
                                              const AudioStreamBasicDescription*, const void*,
                                              UInt32, ExtAudioFileRef*);
};

namespace {

/// AIFF or WAVE with 16-bit samples. The header is written at creation with empty sizes, so the
/// file is valid from the start, and rewritten with the sizes of the data on disk at the end.
class PcmFile final : public ExtAudioFile {
public:
    PcmFile(const AudioStreamBasicDescription& fileFormat, bool aiff)
        : ExtAudioFile(fileFormat, AV_SAMPLE_FMT_S16), mAiff(aiff),
          mFrameBytes(2 * fileFormat.mChannelsPerFrame)
    {
        mHeaderBytes = aiff ? 54 : (mFileChannels > 2 ? 68 : 44);
        // The 32-bit chunk sizes bound the data.
        mMaxDataBytes = (0xFFFFFFFFu - std::uint32_t(mHeaderBytes)) / mFrameBytes * mFrameBytes;
    }

    OSStatus writeHeader(std::uint32_t dataBytes) noexcept
    {
        std::array<std::uint8_t, 68> header{};
        std::uint8_t* p = header.data();
        const auto channels = std::uint32_t(mFileChannels);
        const auto rate = std::uint32_t(mFileRate);
        if (mAiff) {
            putTag(p, "FORM");
            putBE32(p, std::uint32_t(mHeaderBytes) - 8 + dataBytes);
            putTag(p, "AIFF");
            putTag(p, "COMM");
            putBE32(p, 18);
            putBE16(p, channels);
            putBE32(p, dataBytes / mFrameBytes);
            putBE16(p, 16);
            putExtended(p, mFileRate);
            putTag(p, "SSND");
            putBE32(p, 8 + dataBytes);
            putBE32(p, 0); // offset
            putBE32(p, 0); // block size
        } else {
            const bool extensible = channels > 2;
            putTag(p, "RIFF");
            putLE32(p, std::uint32_t(mHeaderBytes) - 8 + dataBytes);
            putTag(p, "WAVE");
            putTag(p, "fmt ");
            putLE32(p, extensible ? 40 : 16);
            putLE16(p, extensible ? 0xFFFE : 1);
            putLE16(p, channels);
            putLE32(p, rate);
            putLE32(p, rate * mFrameBytes);
            putLE16(p, mFrameBytes);
            putLE16(p, 16);
            if (extensible) {
                putLE16(p, 22);
                putLE16(p, 16);
                putLE32(p, mFileLayout.order == AV_CHANNEL_ORDER_NATIVE
                               ? std::uint32_t(mFileLayout.u.mask)
                               : 0);
                // The PCM subformat GUID.
                constexpr std::uint8_t kPcmGuid[16] = {0x01, 0x00, 0x00, 0x00, 0x00, 0x00,
                                                       0x10, 0x00, 0x80, 0x00, 0x00, 0xAA,
                                                       0x00, 0x38, 0x9B, 0x71};
                std::memcpy(p, kPcmGuid, sizeof(kPcmGuid));
                p += sizeof(kPcmGuid);
            }
            putTag(p, "data");
            putLE32(p, dataBytes);
        }
        const auto size = std::size_t(p - header.data());
        if (mFile.writeAt(0, header.data(), size) != size) {
            return statusFromErrno(mFile.error());
        }
        return noErr;
    }

private:
    OSStatus prepareOutput(int capacity) override
    {
        mBuffer.assign(std::max(kPcmBufferBytes, 2 * std::size_t(capacity) * mFrameBytes), 0);
        mBuffered = 0;
        mCapacityBytes = std::size_t(capacity) * mFrameBytes;
        return noErr;
    }

    void outputPlanes(std::uint8_t** planes) noexcept override
    {
        planes[0] = mBuffer.data() + mBuffered;
    }

    OSStatus commitOutput(int frames) override
    {
        const std::size_t bytes = std::size_t(frames) * mFrameBytes;
        // The converter writes native-endian samples.
        if (mAiff != (std::endian::native == std::endian::big)) {
            std::uint8_t* p = mBuffer.data() + mBuffered;
            for (std::size_t i = 0; i < bytes; i += 2) {
                std::swap(p[i], p[i + 1]);
            }
        }
        mBuffered += bytes;
        return mBuffer.size() - mBuffered < mCapacityBytes ? flush() : noErr;
    }

    OSStatus flush() noexcept
    {
        std::size_t bytes = mBuffered;
        mBuffered = 0;
        const bool full = bytes > mMaxDataBytes - mDataBytes;
        bytes = full ? mMaxDataBytes - mDataBytes : bytes;
        mDataBytes += mFile.writeAt(mHeaderBytes + std::int64_t(mDataBytes), mBuffer.data(), bytes);
        if (mFile.error() != 0) {
            return statusFromErrno(mFile.error());
        }
        return full ? statusFromErrno(EFBIG) : noErr;
    }

    OSStatus finish(OSStatus status) override
    {
        if (mStatus == noErr) {
            status = fail(flush());
        }
        // Whatever reached the disk, in whole frames, is the file.
        const std::uint32_t dataBytes = mDataBytes / mFrameBytes * mFrameBytes;
        mFile.clearError();
        OSStatus fixed = writeHeader(dataBytes);
        if (const int error = mFile.truncate(mHeaderBytes + std::int64_t(dataBytes));
            error != 0 && fixed == noErr) {
            fixed = statusFromErrno(error);
        }
        return status != noErr ? status : fixed;
    }

    bool mAiff;
    std::uint32_t mFrameBytes;
    int mHeaderBytes = 0;
    std::uint32_t mMaxDataBytes = 0;
    /// Bytes of samples that reached the file.
    std::uint32_t mDataBytes = 0;
    std::vector<std::uint8_t> mBuffer;
    std::size_t mBuffered = 0;
    std::size_t mCapacityBytes = 0;
};

/// M4A: AAC from FFmpeg's native encoder in its MP4 muxer. The muxer writes the index (moov)
/// after the samples, so a write that fails leaves no room for it; every packet's place is
/// therefore kept, and finishing after a failure muxes the packets already on disk once more,
/// over themselves, with as many of them as leave room for the index within the bytes the file
/// already has.
class AacFile final : public ExtAudioFile {
public:
    explicit AacFile(const AudioStreamBasicDescription& fileFormat)
        : ExtAudioFile(fileFormat, AV_SAMPLE_FMT_FLTP)
    {
    }

    /// Opens the encoder; fails with 'fmt?' for what it cannot encode.
    OSStatus openEncoder()
    {
        const AVCodec* codec = avcodec_find_encoder_by_name("aac");
        if (!codec) {
            return kAudioFileUnsupportedDataFormatError;
        }
        mEncoder.reset(avcodec_alloc_context3(codec));
        if (!mEncoder) {
            return kAudioFileUnspecifiedError;
        }
        AVCodecContext* encoder = mEncoder.get();
        for (const AVChannelLayout* layout = codec->ch_layouts; layout && layout->nb_channels;
             ++layout) {
            if (layout->nb_channels == mFileChannels) {
                av_channel_layout_copy(&encoder->ch_layout, layout);
                break;
            }
        }
        if (encoder->ch_layout.nb_channels != mFileChannels) {
            // Encoders that do not list their layouts take the usual one (open refuses it if
            // not).
            if (codec->ch_layouts) {
                return kAudioFileUnsupportedDataFormatError;
            }
            av_channel_layout_default(&encoder->ch_layout, mFileChannels);
        }
        encoder->sample_fmt = AV_SAMPLE_FMT_FLTP;
        encoder->sample_rate = mFileRate;
        encoder->time_base = AVRational{1, mFileRate};
        encoder->bit_rate = kAacBitRatePerChannel * mFileChannels;
#ifdef AV_PROFILE_AAC_LOW
        encoder->profile = AV_PROFILE_AAC_LOW;
#else
        encoder->profile = FF_PROFILE_AAC_LOW;
#endif
        encoder->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
        if (avcodec_open2(encoder, codec, nullptr) < 0 ||
            av_channel_layout_copy(&mFileLayout, &encoder->ch_layout) < 0) {
            return kAudioFileUnsupportedDataFormatError;
        }
        mParameters.reset(avcodec_parameters_alloc());
        mFrame.reset(av_frame_alloc());
        mPacket.reset(av_packet_alloc());
        if (!mParameters || !mFrame || !mPacket ||
            avcodec_parameters_from_context(mParameters.get(), encoder) < 0) {
            return kAudioFileUnspecifiedError;
        }
        mFrame->format = AV_SAMPLE_FMT_FLTP;
        mFrame->nb_samples = encoder->frame_size;
        mFrame->sample_rate = mFileRate;
        if (av_channel_layout_copy(&mFrame->ch_layout, &encoder->ch_layout) < 0 ||
            av_frame_get_buffer(mFrame.get(), 0) < 0) {
            return kAudioFileUnspecifiedError;
        }
        mPackets.reserve(4096);
        return noErr;
    }

    /// Writes the file's header.
    OSStatus start()
    {
        mTarget.file = &mFile;
        return mMuxer.open(mParameters.get(), &mTarget);
    }

private:
    /// Where one packet went; pts and duration in the stream's time base.
    struct PacketPlace {
        std::int64_t offset;
        std::int64_t pts;
        std::int32_t size;
        std::int32_t duration;
    };

    OSStatus prepareOutput(int capacity) override
    {
        const int frameSize = mEncoder->frame_size;
        mFifo.reset(av_audio_fifo_alloc(AV_SAMPLE_FMT_FLTP, mFileChannels, capacity + frameSize));
        mScratch.assign(std::size_t(capacity) * std::size_t(mFileChannels), 0.0f);
        mScratchFrames = capacity;
        return mFifo ? noErr : kAudioFileUnspecifiedError;
    }

    void outputPlanes(std::uint8_t** planes) noexcept override
    {
        for (int c = 0; c < mFileChannels; ++c) {
            planes[c] =
                reinterpret_cast<std::uint8_t*>(mScratch.data() + std::size_t(c) * mScratchFrames);
        }
    }

    OSStatus commitOutput(int frames) override
    {
        std::array<void*, kMaxChannels> planes{};
        outputPlanes(reinterpret_cast<std::uint8_t**>(planes.data()));
        if (av_audio_fifo_write(mFifo.get(), planes.data(), frames) != frames) {
            return kExtAudioFileError_WriteFailed;
        }
        while (av_audio_fifo_size(mFifo.get()) >= mEncoder->frame_size) {
            if (const OSStatus status = encode(mEncoder->frame_size); status != noErr) {
                return status;
            }
        }
        return noErr;
    }

    /// Encodes `frames` frames from the FIFO, or with 0 drains the encoder.
    OSStatus encode(int frames)
    {
        AVFrame* frame = nullptr;
        if (frames > 0) {
            frame = mFrame.get();
            if (av_frame_make_writable(frame) < 0) {
                return kExtAudioFileError_WriteFailed;
            }
            frame->nb_samples = frames;
            if (av_audio_fifo_read(mFifo.get(), reinterpret_cast<void**>(frame->data), frames) !=
                frames) {
                return kExtAudioFileError_WriteFailed;
            }
            frame->pts = mNextPts;
            mNextPts += frames;
        }
        if (avcodec_send_frame(mEncoder.get(), frame) < 0) {
            return kExtAudioFileError_WriteFailed;
        }
        for (;;) {
            const int received = avcodec_receive_packet(mEncoder.get(), mPacket.get());
            if (received == AVERROR(EAGAIN) || received == AVERROR_EOF) {
                return noErr;
            }
            if (received < 0) {
                return kExtAudioFileError_WriteFailed;
            }
            const OSStatus status = writePacket(mPacket.get());
            av_packet_unref(mPacket.get());
            if (status != noErr) {
                return status;
            }
        }
    }

    OSStatus writePacket(AVPacket* packet)
    {
        AVStream* stream = mMuxer.stream();
        av_packet_rescale_ts(packet, mEncoder->time_base, stream->time_base);
        packet->stream_index = 0;
        mPackets.push_back(PacketPlace{avio_tell(mMuxer.format->pb), packet->pts, packet->size,
                                       std::int32_t(packet->duration)});
        const int written = av_write_frame(mMuxer.format.get(), packet);
        if (mFile.error() != 0) {
            return statusFromErrno(mFile.error());
        }
        return written < 0 ? kExtAudioFileError_WriteFailed : noErr;
    }

    OSStatus finish(OSStatus status) override
    {
        if (mStatus == noErr) {
            status = fail(finishEncoding());
        }
        if (mStatus == noErr) {
            return status;
        }
        // The muxer's state no longer matches the file; rebuild the file from what is on disk.
        mMuxer.format.reset();
        mMuxer.io.reset();
        const OSStatus rebuilt = rebuild();
        return status != noErr ? status : rebuilt;
    }

    OSStatus finishEncoding()
    {
        if (const int left = av_audio_fifo_size(mFifo.get()); left > 0) {
            if (const OSStatus status = encode(left); status != noErr) {
                return status;
            }
        }
        if (const OSStatus status = encode(0); status != noErr) {
            return status;
        }
        const int trailer = av_write_trailer(mMuxer.format.get());
        if (mFile.error() != 0) {
            return statusFromErrno(mFile.error());
        }
        return trailer < 0 ? kExtAudioFileError_WriteFailed : noErr;
    }

    OSStatus rebuild()
    {
        const std::int64_t limit = mFile.end();
        std::size_t count = 0;
        while (count < mPackets.size() && mPackets[count].offset + mPackets[count].size <= limit) {
            ++count;
        }
        mFile.clearError();
        std::int64_t size = 0;
        // Each pass drops roughly as many packets as the index overshoots by.
        for (;;) {
            if (const OSStatus status = remux(count, false, &size); status != noErr) {
                return status;
            }
            if (size <= limit) {
                break;
            }
            if (count == 0) {
                return statusFromErrno(ENOSPC);
            }
            const std::int64_t average = mPackets[count - 1].offset / std::int64_t(count) + 1;
            const auto drop = std::size_t((size - limit) / average + 1);
            count -= std::min(count, drop);
        }
        if (const OSStatus status = remux(count, true, &size); status != noErr) {
            return status;
        }
        const int error = mFile.truncate(size);
        return error != 0 ? statusFromErrno(error) : noErr;
    }

    /// Muxes the first `count` packets again, reading them from the file and writing them over
    /// themselves when `write`, else only measuring the result. The layout must come out the
    /// same as the first time, which is checked packet by packet.
    OSStatus remux(std::size_t count, bool write, std::int64_t* outSize)
    {
        IOTarget target;
        target.file = write ? &mFile : nullptr;
        Muxer muxer;
        if (const OSStatus status = muxer.open(mParameters.get(), &target); status != noErr) {
            return status;
        }
        std::int32_t largest = 0;
        for (std::size_t i = 0; i < count; ++i) {
            largest = std::max(largest, mPackets[i].size);
        }
        std::vector<std::uint8_t> data(std::size_t(largest) + AV_INPUT_BUFFER_PADDING_SIZE, 0);
        std::unique_ptr<AVPacket, PacketFreer> packet(av_packet_alloc());
        if (!packet) {
            return kAudioFileUnspecifiedError;
        }
        for (std::size_t i = 0; i < count; ++i) {
            const PacketPlace& place = mPackets[i];
            if (avio_tell(muxer.format->pb) != place.offset ||
                (write && !mFile.readAt(place.offset, data.data(), std::size_t(place.size)))) {
                return kExtAudioFileError_WriteFailed;
            }
            packet->data = data.data();
            packet->size = place.size;
            packet->pts = place.pts;
            packet->dts = place.pts;
            packet->duration = place.duration;
            packet->stream_index = 0;
            packet->flags = AV_PKT_FLAG_KEY;
            if (av_write_frame(muxer.format.get(), packet.get()) < 0) {
                return statusFromErrno(mFile.error());
            }
        }
        if (av_write_trailer(muxer.format.get()) < 0 || mFile.error() != 0) {
            return statusFromErrno(mFile.error());
        }
        *outSize = target.end;
        return noErr;
    }

    std::unique_ptr<AVCodecContext, CodecContextFreer> mEncoder;
    std::unique_ptr<AVCodecParameters, CodecParametersFreer> mParameters;
    std::unique_ptr<AVFrame, FrameFreer> mFrame;
    std::unique_ptr<AVPacket, PacketFreer> mPacket;
    std::unique_ptr<AVAudioFifo, FifoFreer> mFifo;
    std::vector<float> mScratch;
    int mScratchFrames = 0;
    std::int64_t mNextPts = 0;
    IOTarget mTarget;
    Muxer mMuxer;
    std::vector<PacketPlace> mPackets;
};

} // namespace

OSStatus AudioFormatGetProperty(AudioFormatPropertyID propertyID, UInt32 /*specifierSize*/,
                                const void* /*specifier*/, UInt32* ioPropertyDataSize,
                                void* outPropertyData)
{
    if (propertyID != kAudioFormatProperty_FormatInfo) {
        return kAudioFormatUnsupportedPropertyError;
    }
    if (!ioPropertyDataSize || !outPropertyData ||
        *ioPropertyDataSize < sizeof(AudioStreamBasicDescription)) {
        return kAudioFormatBadPropertySizeError;
    }
    AudioStreamBasicDescription format;
    std::memcpy(&format, outPropertyData, sizeof(format));
    if (format.mFormatID == kAudioFormatMPEG4AAC) {
        format.mFramesPerPacket = 1024;
        format.mBytesPerPacket = 0;
        format.mBytesPerFrame = 0;
        format.mBitsPerChannel = 0;
    } else if (format.mFormatID == kAudioFormatLinearPCM) {
        if (format.mBitsPerChannel == 0 || format.mBitsPerChannel % 8 != 0 ||
            format.mBitsPerChannel > 64) {
            return kAudioFormatUnsupportedDataFormatError;
        }
        const bool nonInterleaved = (format.mFormatFlags & kAudioFormatFlagIsNonInterleaved) != 0;
        format.mFormatFlags |= kAudioFormatFlagIsPacked;
        format.mFramesPerPacket = 1;
        format.mBytesPerFrame =
            format.mBitsPerChannel / 8 * (nonInterleaved ? 1 : format.mChannelsPerFrame);
        format.mBytesPerPacket = format.mBytesPerFrame;
    } else {
        return kAudioFormatUnsupportedDataFormatError;
    }
    std::memcpy(outPropertyData, &format, sizeof(format));
    *ioPropertyDataSize = sizeof(format);
    return noErr;
}

OSStatus ExtAudioFileCreateWithURL(const char* path, AudioFileTypeID fileType,
                                   const AudioStreamBasicDescription* fileFormat,
                                   const void* /*channelLayout*/, UInt32 flags,
                                   ExtAudioFileRef* outFile)
{
    if (!outFile) {
        return kParamErr;
    }
    *outFile = nullptr;
    if (!path || !*path || !fileFormat) {
        return kParamErr;
    }
    if (fileType != kAudioFileAIFFType && fileType != kAudioFileWAVEType &&
        fileType != kAudioFileM4AType) {
        return kAudioFileUnsupportedFileTypeError;
    }
    silenceLibraryLogging();
    try {
        AudioStreamBasicDescription format = *fileFormat;
        std::unique_ptr<ExtAudioFile> file;
        AacFile* aac = nullptr;
        PcmFile* pcm = nullptr;
        if (fileType == kAudioFileM4AType) {
            if (!validAacFileFormat(format)) {
                return kAudioFileUnsupportedDataFormatError;
            }
            format.mFormatFlags = kMPEG4Object_AAC_LC;
            format.mFramesPerPacket = 1024;
            auto made = std::make_unique<AacFile>(format);
            if (const OSStatus status = made->openEncoder(); status != noErr) {
                return status;
            }
            aac = made.get();
            file = std::move(made);
        } else {
            const bool aiff = fileType == kAudioFileAIFFType;
            if (!validPcmFileFormat(format, aiff)) {
                return kAudioFileUnsupportedDataFormatError;
            }
            format.mFormatFlags |= kAudioFormatFlagIsPacked;
            format.mFramesPerPacket = 1;
            format.mBytesPerFrame = format.mBytesPerPacket = 2 * format.mChannelsPerFrame;
            auto made = std::make_unique<PcmFile>(format, aiff);
            pcm = made.get();
            file = std::move(made);
        }
        if (const OSStatus status = file->setClientFormat(
                makeFloatNonInterleavedFormat(format.mSampleRate, format.mChannelsPerFrame));
            status != noErr) {
            return status;
        }

        if (const int error = file->mFile.open(path, (flags & kAudioFileFlags_EraseFile) != 0);
            error != 0) {
            return statusFromErrno(error);
        }
        const OSStatus status = aac ? aac->start() : pcm->writeHeader(0);
        if (status != noErr) {
            file.reset();
            ::unlink(path);
            return status;
        }
        *outFile = file.release();
        return noErr;
    } catch (const std::bad_alloc&) {
        return kAudioFileUnspecifiedError;
    }
}

OSStatus ExtAudioFileSetProperty(ExtAudioFileRef file, ExtAudioFilePropertyID propertyID,
                                 UInt32 propertyDataSize, const void* propertyData)
{
    if (!file) {
        return kParamErr;
    }
    if (propertyID != kExtAudioFileProperty_ClientDataFormat) {
        return kExtAudioFileError_InvalidProperty;
    }
    if (!propertyData || propertyDataSize != sizeof(AudioStreamBasicDescription)) {
        return kExtAudioFileError_InvalidPropertySize;
    }
    AudioStreamBasicDescription format;
    std::memcpy(&format, propertyData, sizeof(format));
    try {
        return file->setClientFormat(format);
    } catch (const std::bad_alloc&) {
        return kAudioFileUnspecifiedError;
    }
}

OSStatus ExtAudioFileGetProperty(ExtAudioFileRef file, ExtAudioFilePropertyID propertyID,
                                 UInt32* ioPropertyDataSize, void* outPropertyData)
{
    if (!file) {
        return kParamErr;
    }
    const AudioStreamBasicDescription* format =
        propertyID == kExtAudioFileProperty_ClientDataFormat ? &file->clientFormat()
        : propertyID == kExtAudioFileProperty_FileDataFormat ? &file->fileFormat()
                                                             : nullptr;
    if (!format) {
        return kExtAudioFileError_InvalidProperty;
    }
    if (!ioPropertyDataSize || !outPropertyData ||
        *ioPropertyDataSize < sizeof(AudioStreamBasicDescription)) {
        return kExtAudioFileError_InvalidPropertySize;
    }
    std::memcpy(outPropertyData, format, sizeof(*format));
    *ioPropertyDataSize = sizeof(*format);
    return noErr;
}

OSStatus ExtAudioFileWrite(ExtAudioFileRef file, UInt32 numberFrames, const AudioBufferList* data)
{
    if (!file) {
        return kParamErr;
    }
    try {
        return file->write(numberFrames, data);
    } catch (const std::bad_alloc&) {
        return kAudioFileUnspecifiedError;
    }
}

OSStatus ExtAudioFileDispose(ExtAudioFileRef file)
{
    if (!file) {
        return kParamErr;
    }
    OSStatus status = kAudioFileUnspecifiedError;
    try {
        status = file->dispose();
    } catch (const std::bad_alloc&) {
    }
    delete file;
    return status;
}

} // namespace vell
