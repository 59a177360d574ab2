// Decodes an audio file with FFmpeg (libavformat, libavcodec, libswresample) into memory.
#include "audio/file/AudioFileDecoder.h"

#include "audio/file/AudioFileStorage.h"
#include "support/Format.h"
#include "support/Log.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/avstring.h>
#include <libavutil/channel_layout.h>
#include <libavutil/intreadwrite.h>
#include <libswresample/swresample.h>
}

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <optional>
#include <string_view>

namespace vell::detail {

namespace {

inline constexpr std::string_view kBadAudioFile = "Bad Audio File";
inline constexpr std::string_view kReasonMissing = "The file does not exist.";
inline constexpr std::string_view kReasonUnreadable = "The file could not be read.";
inline constexpr std::string_view kReasonEmpty = "The file is empty.";
inline constexpr std::string_view kReasonNotAudio = "The file is not an audio file.";
inline constexpr std::string_view kReasonNoAudio = "The file contains no audio.";
inline constexpr std::string_view kReasonDamaged = "The file is incomplete or damaged.";
inline constexpr std::string_view kReasonTooLarge = "The file is too large to load.";
inline constexpr std::string_view kReasonCancelled = "Loading the file was cancelled.";

/// The demuxers a file may be read with: every audio format that holds music, and the common
/// video containers for their audio track. Playlists, concatenation scripts, image sequences and
/// anything else that opens further files or network resources stay out.
constexpr const char* kFormatWhitelist =
    // Audio files and raw audio streams.
    "aac,ac3,aea,aiff,amr,amrnb,amrwb,ape,asf,au,avr,caf,dsf,dts,dtshd,eac3,epaf,flac,g722,"
    "g723_1,g726,g726le,g729,gsm,iff,ilbc,ircam,loas,mlp,mmf,mp3,mpc,mpc8,nistsphere,ogg,oma,"
    "qcp,shn,sox,spdif,tak,truehd,tta,voc,vqf,w64,wav,wv,xwma,"
    // Tracker modules and game music, rendered from memory by their libraries.
    "libgme,libopenmpt,"
    // Video containers.
    "avi,dv,flv,matroska,mov,mpeg,mpegts,nut,rm";

/// The decoders of the audio those formats hold.
constexpr const char* kCodecWhitelist =
    // MPEG audio and AAC.
    "mp1,mp1float,mp2,mp2float,mp3,mp3float,mp3on4,mp3on4float,aac,aac_fixed,aac_latm,als,"
    // Lossless.
    "alac,ape,flac,mlp,mpc7,mpc8,ralf,shorten,tak,truehd,tta,wavpack,wmalossless,"
    // Other perceptual codecs.
    "ac3,ac3_fixed,eac3,dca,atrac1,atrac3,atrac3al,atrac3plus,atrac3plusal,cook,imc,nellymoser,"
    "opus,libopus,qdm2,qdmc,sipr,twinvq,vorbis,libvorbis,wmapro,wmav1,wmav2,"
    // One-bit audio, plain and compressed.
    "dsd_lsbf,dsd_lsbf_planar,dsd_msbf,dsd_msbf_planar,dst,"
    // Speech codecs.
    "amrnb,amrwb,evrc,g722,g723_1,g726,g726le,g729,gsm,gsm_ms,libgsm,libgsm_ms,ilbc,qcelp,"
    "real_144,real_288,speex,libspeex,truespeech,wmavoice,"
    // PCM.
    "pcm_alaw,pcm_mulaw,pcm_s8,pcm_u8,pcm_s16le,pcm_s16be,pcm_u16le,pcm_u16be,pcm_s24le,"
    "pcm_s24be,pcm_u24le,pcm_u24be,pcm_s32le,pcm_s32be,pcm_u32le,pcm_u32be,pcm_s64le,"
    "pcm_s64be,pcm_f16le,pcm_f24le,pcm_f32le,pcm_f32be,pcm_f64le,pcm_f64be,pcm_s8_planar,"
    "pcm_s16le_planar,pcm_s16be_planar,pcm_s24le_planar,pcm_s32le_planar,pcm_s24daud,"
    "pcm_bluray,pcm_dvd,s302m,dvaudio,8svx_exp,8svx_fib,"
    // ADPCM and other simple codecs.
    "adpcm_ct,adpcm_ima_dk3,adpcm_ima_dk4,adpcm_ima_qt,adpcm_ima_wav,adpcm_ms,adpcm_sbpro_2,"
    "adpcm_sbpro_3,adpcm_sbpro_4,adpcm_swf,adpcm_yamaha,mace3,mace6,sdx2_dpcm";

/// Refused demuxers of files that hold no audio of their own: playlists and other references,
/// pictures and subtitles (and every "_pipe" picture demuxer).
constexpr const char* kFormatsWithoutAudio =
    "concat,dash,ffmetadata,hls,imf,rtp,rtsp,sap,sdp,webm_dash_manifest,"
    "alias_pix,apng,brender_pix,fits,gif,ico,image2,image2pipe,"
    "aqtitle,ass,dvbsub,dvbtxt,jacosub,lrc,mcc,microdvd,mpl2,mpsub,pjs,realtext,sami,scc,stl,"
    "subviewer,subviewer1,sup,tedcaptions,vobsub,vplayer,webvtt,"
    "adf,bin,idf,tty,xbin";

/// One-bit audio decodes to PCM at an eighth of its bit rate (352.8 kHz and up), with the shaped
/// noise of the format above the audio band. It is resampled to this rate, which keeps
/// everything audible at a fraction of the memory.
constexpr int kOneBitClientRate = 88200;

constexpr int kMinSampleRate = 8000;
constexpr int kMaxSampleRate = 384000;
constexpr int kMaxChannels = 8;

/// The first reservation is capped so a header claiming hours cannot reserve gigabytes of
/// address space up front; the buffers grow past it as samples arrive.
constexpr std::size_t kMaxInitialReserveFrames = std::size_t(1) << 27;

struct FormatContextCloser {
    void operator()(AVFormatContext* context) const noexcept { avformat_close_input(&context); }
};
struct CodecContextFreer {
    void operator()(AVCodecContext* context) const noexcept { avcodec_free_context(&context); }
};
struct PacketFreer {
    void operator()(AVPacket* packet) const noexcept { av_packet_free(&packet); }
};
struct FrameFreer {
    void operator()(AVFrame* frame) const noexcept { av_frame_free(&frame); }
};
struct ResamplerFreer {
    void operator()(SwrContext* context) const noexcept { swr_free(&context); }
};
struct IOContextCloser {
    void operator()(AVIOContext* context) const noexcept { avio_closep(&context); }
};

/// An AVDictionary freed on scope exit.
class Options {
public:
    Options() = default;
    ~Options() { av_dict_free(&mDictionary); }
    Options(const Options&) = delete;
    Options& operator=(const Options&) = delete;
    void set(const char* key, const char* value) { av_dict_set(&mDictionary, key, value, 0); }
    AVDictionary** get() noexcept { return &mDictionary; }

private:
    AVDictionary* mDictionary = nullptr;
};

void silenceLibraryLogging()
{
    static std::once_flag once;
    std::call_once(once, [] { av_log_set_level(AV_LOG_QUIET); });
}

/// A failure to open: the reason shown to the user, and whether it is worth an error log line.
struct Failure {
    std::string reason;
    bool log = true;
};

/// The container's short name as people know it.
std::string containerName(const AVFormatContext* format)
{
    const std::string_view name = format->iformat->name;
    if (name.starts_with("mov,")) {
        const AVDictionaryEntry* brand = av_dict_get(format->metadata, "major_brand", nullptr, 0);
        if (brand && std::string_view(brand->value).starts_with("qt")) {
            return "mov";
        }
        return "mp4";
    }
    if (name.starts_with("matroska")) {
        return "matroska";
    }
    return std::string(name.substr(0, name.find(',')));
}

std::string unsupportedReason(const std::string& what)
{
    return format("The audio is in an unsupported format (%s).", what.c_str());
}

/// Whether a refused demuxer reads files that hold no audio at all.
bool holdsNoAudio(const AVInputFormat* inputFormat)
{
    return std::string_view(inputFormat->name).ends_with("_pipe") ||
           av_match_list(inputFormat->name, kFormatsWithoutAudio, ',') > 0;
}

bool isOneBit(AVCodecID codec)
{
    return codec == AV_CODEC_ID_DSD_LSBF || codec == AV_CODEC_ID_DSD_MSBF ||
           codec == AV_CODEC_ID_DSD_LSBF_PLANAR || codec == AV_CODEC_ID_DSD_MSBF_PLANAR ||
           codec == AV_CODEC_ID_DST;
}

/// The rate the samples of a codec at `sampleRate` are delivered at.
int clientRate(AVCodecID codec, int sampleRate)
{
    return isOneBit(codec) ? std::min(sampleRate, kOneBitClientRate) : sampleRate;
}

/// Whether a stream's codec has a decoder on the whitelist.
bool isDecodable(const AVStream* stream)
{
    const AVCodec* codec = avcodec_find_decoder(stream->codecpar->codec_id);
    return codec && av_match_list(codec->name, kCodecWhitelist, ',') > 0;
}

/// FFmpeg's choice among the audio tracks (the default one first, then the one with the most
/// frames seen); if its codec is refused, the first other audio track that decodes.
int bestAudioStream(AVFormatContext* format)
{
    const int best = av_find_best_stream(format, AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
    if (best < 0 || isDecodable(format->streams[best])) {
        return best;
    }
    for (unsigned i = 0; i < format->nb_streams; ++i) {
        const AVStream* stream = format->streams[i];
        if (stream->codecpar->codec_type == AVMEDIA_TYPE_AUDIO && isDecodable(stream)) {
            return int(i);
        }
    }
    return best;
}

/// Whether the file holds a moving picture (cover art does not count).
bool hasVideo(const AVFormatContext* format)
{
    for (unsigned i = 0; i < format->nb_streams; ++i) {
        const AVStream* stream = format->streams[i];
        if (stream->codecpar->codec_type == AVMEDIA_TYPE_VIDEO &&
            !(stream->disposition & AV_DISPOSITION_ATTACHED_PIC)) {
            return true;
        }
    }
    return false;
}

/// Where decoded samples go: one or two growing planes in the client format.
class SampleSink {
public:
    /// Reserves room for the frames expected; `certainFrames` of them will surely be written.
    bool prepare(int outChannels, std::size_t reserveFrames, std::size_t certainFrames)
    {
        mBuffers.resize(std::size_t(outChannels));
        for (auto& buffer : mBuffers) {
            if (!buffer.reserve(reserveFrames) && !buffer.reserve(std::size_t(1) << 20)) {
                return false;
            }
            buffer.adviseHugePages(certainFrames);
        }
        return true;
    }

    /// Makes room for `frames` more frames, growing in chunks (the pages are remapped, never
    /// copied).
    bool makeRoom(std::size_t frames, std::size_t chunkFrames)
    {
        if (mFrames + frames <= mBuffers.front().capacity()) {
            return true;
        }
        const std::size_t capacity = mBuffers.front().capacity();
        const std::size_t wanted =
            std::max(mFrames + frames, capacity + std::max(capacity / 4, chunkFrames));
        for (auto& buffer : mBuffers) {
            if (!buffer.reserve(wanted) && !buffer.reserve(mFrames + frames)) {
                return false;
            }
        }
        return true;
    }

    std::size_t frames() const noexcept { return mFrames; }
    float* writePointer(int channel) noexcept
    {
        return mBuffers[std::size_t(channel)].data() + mFrames;
    }
    void commit(std::size_t frames) noexcept { mFrames += frames; }
    void truncate(std::size_t frames) noexcept { mFrames = std::min(mFrames, frames); }

    std::vector<SampleBuffer> finish()
    {
        for (auto& buffer : mBuffers) {
            buffer.shrinkTo(mFrames);
        }
        return std::move(mBuffers);
    }

private:
    std::vector<SampleBuffer> mBuffers;
    std::size_t mFrames = 0;
};

/// Turns decoded frames of any sample format and layout into the sink's planes: planar float
/// is copied, everything else (integer formats, interleaved data, more than two channels, a
/// rate that changed mid-stream) goes through libswresample.
class Converter {
public:
    /// Called for the first frame: fixes the client rate and channel count.
    void start(int sampleRate, int outChannels)
    {
        mOutRate = sampleRate;
        mOutChannels = outChannels;
    }

    enum class Status { ok, outOfMemory, failed };

    /// Converts one frame into the sink.
    Status convert(const AVFrame* frame, SampleSink& sink, std::size_t chunkFrames)
    {
        const int channels = frame->ch_layout.nb_channels;
        if (frame->format == AV_SAMPLE_FMT_FLTP && frame->sample_rate == mOutRate &&
            channels == mOutChannels && !mResampler) {
            const auto count = std::size_t(frame->nb_samples);
            if (!sink.makeRoom(count, chunkFrames)) {
                return Status::outOfMemory;
            }
            for (int c = 0; c < channels; ++c) {
                std::memcpy(sink.writePointer(c), frame->extended_data[c], count * sizeof(float));
            }
            sink.commit(count);
            return Status::ok;
        }
        if (const Status status = configure(frame, sink, chunkFrames); status != Status::ok) {
            return status;
        }
        return resample(const_cast<const std::uint8_t**>(frame->extended_data), frame->nb_samples,
                        sink, chunkFrames);
    }

    /// Drains what a resampler still holds.
    Status flush(SampleSink& sink, std::size_t chunkFrames)
    {
        return mResampler ? resample(nullptr, 0, sink, chunkFrames) : Status::ok;
    }

private:
    struct InputKey {
        int format = -1;
        int rate = 0;
        int channels = 0;
        std::uint64_t mask = 0;
        bool operator==(const InputKey&) const = default;
    };

    Status resample(const std::uint8_t** in, int count, SampleSink& sink, std::size_t chunkFrames)
    {
        const int bound = swr_get_out_samples(mResampler.get(), count);
        if (bound < 0) {
            return Status::failed;
        }
        if (bound == 0) {
            return Status::ok;
        }
        if (!sink.makeRoom(std::size_t(bound), chunkFrames)) {
            return Status::outOfMemory;
        }
        std::array<std::uint8_t*, 2> out{};
        for (int c = 0; c < mOutChannels; ++c) {
            out[std::size_t(c)] = reinterpret_cast<std::uint8_t*>(sink.writePointer(c));
        }
        const int done = swr_convert(mResampler.get(), out.data(), bound, in, count);
        if (done < 0) {
            return Status::failed;
        }
        sink.commit(std::size_t(done));
        return Status::ok;
    }

    Status configure(const AVFrame* frame, SampleSink& sink, std::size_t chunkFrames)
    {
        const int channels = frame->ch_layout.nb_channels;
        const InputKey key{
            frame->format, frame->sample_rate, channels,
            frame->ch_layout.order == AV_CHANNEL_ORDER_NATIVE ? frame->ch_layout.u.mask : 0};
        if (mResampler && key == mKey) {
            return Status::ok;
        }
        // The input changed mid-stream: what the previous converter still holds goes first.
        if (const Status status = flush(sink, chunkFrames); status != Status::ok) {
            return status;
        }
        // One or two channels are taken as mono and left/right whatever they are labelled;
        // larger layouts without labels get the default layout of their channel count so the
        // standard downmix applies.
        AVChannelLayout inLayout{};
        if (channels <= 2 || frame->ch_layout.order == AV_CHANNEL_ORDER_UNSPEC) {
            av_channel_layout_default(&inLayout, channels);
        } else if (av_channel_layout_copy(&inLayout, &frame->ch_layout) < 0) {
            return Status::outOfMemory;
        }
        AVChannelLayout outLayout{};
        av_channel_layout_default(&outLayout, mOutChannels);

        SwrContext* context = nullptr;
        const int status =
            swr_alloc_set_opts2(&context, &outLayout, AV_SAMPLE_FMT_FLTP, mOutRate, &inLayout,
                                AVSampleFormat(frame->format), frame->sample_rate, 0, nullptr);
        av_channel_layout_uninit(&inLayout);
        av_channel_layout_uninit(&outLayout);
        mResampler.reset(context);
        if (status < 0 || !context || swr_init(context) < 0) {
            mResampler.reset();
            return Status::failed;
        }
        mKey = key;
        return Status::ok;
    }

    int mOutRate = 0;
    int mOutChannels = 0;
    InputKey mKey;
    std::unique_ptr<SwrContext, ResamplerFreer> mResampler;
};

class Decoder {
public:
    Decoder(std::filesystem::path path, BRIXExtendedAudioFile::ProgressCallback progress)
        : mPath(std::move(path)), mProgress(std::move(progress))
    {
    }

    /// Opens and decodes; on success the file's fields are filled.
    std::optional<Failure> run(BRIXExtendedAudioFile::SourceFormat& outFormat,
                               std::vector<SampleBuffer>& outBuffers, int& outRate,
                               std::size_t& outFrames)
    {
        if (auto failure = checkFile()) {
            return failure;
        }
        if (auto failure = openContainer()) {
            return failure;
        }
        if (auto failure = openDecoder()) {
            return failure;
        }
        if (auto failure = decodeAll()) {
            return failure;
        }
        outFormat = mSourceFormat;
        outRate = mRate;
        outFrames = mSink.frames();
        outBuffers = mSink.finish();
        return std::nullopt;
    }

private:
    std::optional<Failure> checkFile()
    {
        std::error_code error;
        const auto status = std::filesystem::status(mPath, error);
        if (!std::filesystem::exists(status)) {
            return Failure{std::string(kReasonMissing)};
        }
        if (!std::filesystem::is_regular_file(status)) {
            return Failure{std::string(kReasonNotAudio)};
        }
        const auto size = std::filesystem::file_size(mPath, error);
        if (error) {
            return Failure{std::string(kReasonUnreadable)};
        }
        if (size == 0) {
            return Failure{std::string(kReasonEmpty)};
        }
        mFileSize = std::int64_t(size);
        return std::nullopt;
    }

    std::optional<Failure> openContainer()
    {
        // The file protocol only, named explicitly so a colon in a path is never a protocol.
        mUrl = "file:" + mPath.string();
        const std::string& url = mUrl;

        // Probing on our own I/O tells "not audio at all" apart from "audio but damaged": the
        // demuxer's header reading fails the same way for both.
        Options ioOptions;
        ioOptions.set("protocol_whitelist", "file");
        AVIOContext* io = nullptr;
        if (avio_open2(&io, url.c_str(), AVIO_FLAG_READ, nullptr, ioOptions.get()) < 0) {
            return Failure{std::string(kReasonUnreadable)};
        }
        mIO.reset(io);

        const AVInputFormat* inputFormat = nullptr;
        const int probed =
            av_probe_input_buffer2(mIO.get(), &inputFormat, url.c_str(), nullptr, 0, 0);
        if (probed < 0 || !inputFormat) {
            return Failure{std::string(kReasonNotAudio)};
        }
        // A guess from the file name alone (or little more) is no evidence that this is audio.
        mWeakProbe = probed <= AVPROBE_SCORE_EXTENSION / 2;
        if (av_match_list(inputFormat->name, kFormatWhitelist, ',') <= 0) {
            if (mWeakProbe || holdsNoAudio(inputFormat)) {
                return Failure{std::string(kReasonNotAudio)};
            }
            return Failure{unsupportedReason(inputFormat->long_name ? inputFormat->long_name
                                                                    : inputFormat->name)};
        }

        AVFormatContext* context = avformat_alloc_context();
        if (!context) {
            return Failure{std::string(kReasonTooLarge)};
        }
        context->pb = mIO.get();
        context->flags |= AVFMT_FLAG_CUSTOM_IO;
        Options options;
        options.set("format_whitelist", kFormatWhitelist);
        options.set("codec_whitelist", kCodecWhitelist);
        options.set("protocol_whitelist", "file");
        if (avformat_open_input(&context, url.c_str(), inputFormat, options.get()) < 0) {
            // avformat_open_input frees the context on failure.
            return Failure{std::string(mWeakProbe ? kReasonNotAudio : kReasonDamaged)};
        }
        mFormat.reset(context);
        return std::nullopt;
    }

    std::optional<Failure> openDecoder()
    {
        AVFormatContext* format = mFormat.get();
        int index = bestAudioStream(format);
        const bool complete = index >= 0 && streamParametersComplete(format->streams[index]);
        if (index < 0 || !complete) {
            // Some containers only learn their streams (or their parameters) from the first
            // packets.
            if (avformat_find_stream_info(format, nullptr) < 0) {
                return Failure{std::string(kReasonDamaged)};
            }
            index = bestAudioStream(format);
        }
        if (index < 0) {
            if (mWeakProbe) {
                return Failure{std::string(kReasonNotAudio)};
            }
            if (hasVideo(format)) {
                return Failure{unsupportedReason(containerName(format) + " video without audio")};
            }
            return Failure{std::string(kReasonNoAudio)};
        }
        mStream = format->streams[index];
        for (unsigned i = 0; i < format->nb_streams; ++i) {
            format->streams[i]->discard = int(i) == index ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
        }

        const AVCodecParameters* parameters = mStream->codecpar;
        mSourceFormat.container = containerName(format);
        mSourceFormat.codec = avcodec_get_name(parameters->codec_id);
        mSourceFormat.channels = std::uint32_t(std::max(parameters->ch_layout.nb_channels, 0));
        mSourceFormat.bitRate = parameters->bit_rate > 0 ? parameters->bit_rate : format->bit_rate;
        const AVCodecDescriptor* descriptor = avcodec_descriptor_get(parameters->codec_id);
        if (descriptor && (descriptor->props & AV_CODEC_PROP_LOSSLESS)) {
            const int bits = parameters->bits_per_raw_sample > 0
                                 ? parameters->bits_per_raw_sample
                                 : parameters->bits_per_coded_sample;
            mSourceFormat.bitsPerSample = std::uint32_t(std::max(bits, 0));
        }
        if (isOneBit(parameters->codec_id)) {
            mSourceFormat.bitsPerSample = 1;
        }

        if (auto failure =
                checkParameters(clientRate(parameters->codec_id, parameters->sample_rate),
                                parameters->ch_layout.nb_channels)) {
            return failure;
        }

        if (!isDecodable(mStream)) {
            return Failure{unsupportedReason(avcodec_get_name(parameters->codec_id))};
        }
        const AVCodec* codec = avcodec_find_decoder(parameters->codec_id);
        AVCodecContext* context = avcodec_alloc_context3(codec);
        if (!context) {
            return Failure{std::string(kReasonTooLarge)};
        }
        mCodec.reset(context);
        if (avcodec_parameters_to_context(context, parameters) < 0) {
            return Failure{std::string(kReasonDamaged)};
        }
        context->pkt_timebase = mStream->time_base;
        context->request_sample_fmt = AV_SAMPLE_FMT_FLTP;
        // Codecs that can decode in parallel (FLAC, ALAC) use every core.
        context->thread_count = 0;
        context->thread_type = FF_THREAD_FRAME | FF_THREAD_SLICE;
        Options options;
        options.set("codec_whitelist", kCodecWhitelist);
        if (avcodec_open2(context, codec, options.get()) < 0) {
            return Failure{std::string(kReasonDamaged)};
        }
        return std::nullopt;
    }

    static bool streamParametersComplete(const AVStream* stream)
    {
        const AVCodecParameters* parameters = stream->codecpar;
        return parameters->codec_id != AV_CODEC_ID_NONE && parameters->sample_rate > 0 &&
               parameters->ch_layout.nb_channels > 0;
    }

    /// Zero means not known yet; known values must lie in the supported range.
    static std::optional<Failure> checkParameters(int sampleRate, int channels)
    {
        const bool badRate =
            sampleRate != 0 && (sampleRate < kMinSampleRate || sampleRate > kMaxSampleRate);
        const bool badChannels = channels < 0 || channels > kMaxChannels;
        if (badRate || badChannels) {
            return Failure{unsupportedReason(
                format("%d Hz, %d channel%s", sampleRate, channels, channels == 1 ? "" : "s"))};
        }
        return std::nullopt;
    }

    /// Frames the file will likely decode to at `rate`, from the durations the container knows
    /// (0 when it knows none).
    std::size_t estimatedFrames(int rate) const
    {
        double seconds = 0;
        if (mStream->duration != AV_NOPTS_VALUE && mStream->duration > 0) {
            std::int64_t duration = mStream->duration;
            if (mStream->start_time != AV_NOPTS_VALUE && mStream->start_time > 0) {
                duration -= std::min(duration, mStream->start_time);
            }
            seconds = double(duration) * av_q2d(mStream->time_base);
        } else if (mFormat->duration != AV_NOPTS_VALUE && mFormat->duration > 0) {
            seconds = double(mFormat->duration) / AV_TIME_BASE;
        } else if (mSourceFormat.bitRate > 0) {
            seconds = double(mFileSize) * 8 / double(mSourceFormat.bitRate);
        }
        const double frames = seconds * rate;
        if (!(frames > 0)) {
            return 0;
        }
        return std::size_t(std::min(frames, double(kMaxInitialReserveFrames)));
    }

    std::optional<Failure> beginOutput(const AVFrame* frame, int packetBytes)
    {
        const int channels = frame->ch_layout.nb_channels;
        if (channels <= 0 || frame->sample_rate <= 0) {
            return Failure{std::string(kReasonDamaged)};
        }
        const int rate = clientRate(mStream->codecpar->codec_id, frame->sample_rate);
        if (auto failure = checkParameters(rate, channels)) {
            return failure;
        }
        mRate = rate;
        if (mSourceFormat.channels == 0) {
            mSourceFormat.channels = std::uint32_t(channels);
        }
        // A mono source keeps one plane; both client channels read it.
        const int outChannels = channels == 1 ? 1 : 2;
        std::size_t estimate = estimatedFrames(mRate);
        if (estimate == 0 && packetBytes > 0) {
            // Constant bit rate guess from the first packet's size.
            estimate = std::size_t(std::min(double(mFileSize) / packetBytes * frame->nb_samples,
                                            double(kMaxInitialReserveFrames)));
        }
        // A little headroom over the estimate; untouched pages cost nothing and go at the end.
        const std::size_t reserve =
            estimate > 0 ? estimate + estimate / 50 + std::size_t(mRate) : std::size_t(mRate) * 60;
        mChunkFrames = std::size_t(mRate) * 30;
        mConverter.start(mRate, outChannels);
        // Huge pages over most of the estimate; near its end ordinary pages, so a huge page the
        // decode ends inside costs nothing.
        if (!mSink.prepare(outChannels, reserve, estimate - estimate / 50)) {
            return Failure{std::string(kReasonTooLarge)};
        }
        return std::nullopt;
    }

    std::optional<Failure> receiveFrames(AVFrame* frame, int packetBytes)
    {
        while (true) {
            const int status = avcodec_receive_frame(mCodec.get(), frame);
            if (status == AVERROR(EAGAIN) || status == AVERROR_EOF) {
                return std::nullopt;
            }
            if (status == AVERROR(ENOMEM)) {
                return Failure{std::string(kReasonTooLarge)};
            }
            if (status < 0) {
                // A damaged frame: what decodes around it still plays.
                ++mDecodeErrors;
                continue;
            }
            if (frame->nb_samples > 0) {
                if (mRate == 0) {
                    if (auto failure = beginOutput(frame, packetBytes)) {
                        av_frame_unref(frame);
                        return failure;
                    }
                }
                const auto converted = mConverter.convert(frame, mSink, mChunkFrames);
                if (converted != Converter::Status::ok) {
                    av_frame_unref(frame);
                    return conversionFailure(converted);
                }
            }
            av_frame_unref(frame);
        }
    }

    std::optional<Failure> sendPacket(const AVPacket* packet, AVFrame* frame)
    {
        const int bytes = packet ? packet->size : 0;
        while (true) {
            const int status = avcodec_send_packet(mCodec.get(), packet);
            if (status == AVERROR(EAGAIN)) {
                // The decoder wants its output taken first.
                if (auto failure = receiveFrames(frame, bytes)) {
                    return failure;
                }
                continue;
            }
            if (status == AVERROR(ENOMEM)) {
                return Failure{std::string(kReasonTooLarge)};
            }
            if (status < 0 && status != AVERROR_EOF) {
                ++mDecodeErrors;
            }
            return receiveFrames(frame, bytes);
        }
    }

    static Failure conversionFailure(Converter::Status status)
    {
        if (status == Converter::Status::outOfMemory) {
            return Failure{std::string(kReasonTooLarge)};
        }
        return Failure{unsupportedReason("channel layout or sample format")};
    }

    bool reportProgress(double fraction)
    {
        if (!mProgress) {
            return true;
        }
        return mProgress(std::clamp(fraction, 0.0, 1.0));
    }

    std::optional<Failure> decodeAll()
    {
        std::unique_ptr<AVPacket, PacketFreer> packet(av_packet_alloc());
        std::unique_ptr<AVFrame, FrameFreer> frame(av_frame_alloc());
        if (!packet || !frame) {
            return Failure{std::string(kReasonTooLarge)};
        }
        if (!reportProgress(0)) {
            return Failure{std::string(kReasonCancelled), false};
        }
        double reported = 0;
        std::size_t packets = 0;
        while (true) {
            const int status = av_read_frame(mFormat.get(), packet.get());
            if (status == AVERROR(ENOMEM)) {
                return Failure{std::string(kReasonTooLarge)};
            }
            if (status < 0) {
                // The end, or a read error in a truncated file: keep what decoded.
                break;
            }
            if (packet->stream_index != mStream->index) {
                av_packet_unref(packet.get());
                continue;
            }
            if (!mSawPacket) {
                mSawPacket = true;
                std::size_t size = 0;
                const std::uint8_t* skip =
                    av_packet_get_side_data(packet.get(), AV_PKT_DATA_SKIP_SAMPLES, &size);
                if (skip && size >= 4) {
                    mInitialSkip = std::int64_t(AV_RL32(skip));
                }
            }
            auto failure = sendPacket(packet.get(), frame.get());
            av_packet_unref(packet.get());
            if (failure) {
                return failure;
            }
            if (mProgress && ++packets % 64 == 0) {
                const double fraction = double(avio_tell(mFormat->pb)) / double(mFileSize);
                if (fraction - reported >= 0.01) {
                    reported = fraction;
                    if (!reportProgress(fraction)) {
                        return Failure{std::string(kReasonCancelled), false};
                    }
                }
            }
        }
        if (auto failure = sendPacket(nullptr, frame.get())) {
            return failure;
        }
        if (mRate == 0) {
            if (mWeakProbe) {
                return Failure{std::string(kReasonNotAudio)};
            }
            return Failure{std::string(mDecodeErrors > 0 ? kReasonDamaged : kReasonNoAudio)};
        }
        if (const auto status = mConverter.flush(mSink, mChunkFrames);
            status != Converter::Status::ok) {
            return conversionFailure(status);
        }
        trimToContainerDuration();
        if (mSink.frames() == 0) {
            return Failure{std::string(kReasonNoAudio)};
        }
        if (!reportProgress(1)) {
            return Failure{std::string(kReasonCancelled), false};
        }
        return std::nullopt;
    }

    /// MP4 gives the length of its audio in the edit list (which also makes the decoder drop
    /// the encoder's priming), but the decoder still emits the padding of the last packet, so
    /// the samples are cut to the stream's duration. Other containers either trim exactly
    /// already or only estimate their duration.
    void trimToContainerDuration()
    {
        if (!isMP4() || mStream->duration == AV_NOPTS_VALUE || mStream->duration <= 0) {
            return;
        }
        std::int64_t frames = streamFrames(mStream->duration, mStream->start_time);
        if (frames <= 0) {
            return;
        }
        // The edit list states its duration in the movie's time scale, often milliseconds, which
        // rounds the length by a few dozen samples. The media's own duration (the sum of its
        // sample durations) less the priming is exact when it agrees with the edit to within
        // that rounding; if it is further off, the media holds padding and the edit is right.
        if (mInitialSkip > 0) {
            if (const auto media = mediaDurationIgnoringEdits()) {
                const std::int64_t exact = streamFrames(*media, AV_NOPTS_VALUE) - mInitialSkip;
                const std::int64_t rounding = mRate / 600 + 1;
                if (exact > 0 && std::abs(exact - frames) <= rounding) {
                    frames = exact;
                }
            }
        }
        mSink.truncate(std::size_t(frames));
    }

    bool isMP4() const { return std::string_view(mFormat->iformat->name).starts_with("mov,"); }

    /// A duration in the stream's time base as client frames, less a positive start time.
    std::int64_t streamFrames(std::int64_t duration, std::int64_t startTime) const
    {
        if (startTime != AV_NOPTS_VALUE && startTime > 0) {
            duration -= std::min(duration, startTime);
        }
        return av_rescale_q_rnd(duration, mStream->time_base, AVRational{1, mRate},
                                AVRounding(AV_ROUND_NEAR_INF | AV_ROUND_PASS_MINMAX));
    }

    /// The duration of the audio track's media before the edit list applies, read by parsing
    /// the file's header once more with edit lists ignored.
    std::optional<std::int64_t> mediaDurationIgnoringEdits() const
    {
        AVFormatContext* context = nullptr;
        Options options;
        options.set("format_whitelist", kFormatWhitelist);
        options.set("codec_whitelist", kCodecWhitelist);
        options.set("protocol_whitelist", "file");
        options.set("ignore_editlist", "1");
        if (avformat_open_input(&context, mUrl.c_str(), mFormat->iformat, options.get()) < 0) {
            return std::nullopt;
        }
        std::unique_ptr<AVFormatContext, FormatContextCloser> format(context);
        for (unsigned i = 0; i < format->nb_streams; ++i) {
            const AVStream* stream = format->streams[i];
            if (stream->id == mStream->id && stream->duration != AV_NOPTS_VALUE &&
                av_cmp_q(stream->time_base, mStream->time_base) == 0) {
                return stream->duration;
            }
        }
        return std::nullopt;
    }

    std::filesystem::path mPath;
    BRIXExtendedAudioFile::ProgressCallback mProgress;
    std::string mUrl;
    std::int64_t mFileSize = 0;
    bool mWeakProbe = false;
    /// Samples the demuxer told the decoder to drop at the start (the encoder's priming).
    std::int64_t mInitialSkip = 0;
    bool mSawPacket = false;
    std::unique_ptr<AVIOContext, IOContextCloser> mIO;
    // Declared after mIO so it is closed first: it reads through mIO.
    std::unique_ptr<AVFormatContext, FormatContextCloser> mFormat;
    std::unique_ptr<AVCodecContext, CodecContextFreer> mCodec;
    AVStream* mStream = nullptr;
    BRIXExtendedAudioFile::SourceFormat mSourceFormat;
    SampleSink mSink;
    Converter mConverter;
    int mRate = 0;
    std::size_t mChunkFrames = 0;
    std::size_t mDecodeErrors = 0;
};

} // namespace

const char* AudioFileDecoder::acceptedFormats() noexcept
{
    return kFormatWhitelist;
}

const char* AudioFileDecoder::acceptedCodecs() noexcept
{
    return kCodecWhitelist;
}

const char* AudioFileDecoder::formatsWithoutAudio() noexcept
{
    return kFormatsWithoutAudio;
}

std::unique_ptr<BRIXExtendedAudioFile>
AudioFileDecoder::open(const std::filesystem::path& path, Error* outError,
                       BRIXExtendedAudioFile::ProgressCallback progress)
{
    silenceLibraryLogging();

    std::optional<Failure> failure;
    // Nothing may escape the facade: not a failed allocation, nor what a progress callback
    // throws. The decoder's members free FFmpeg's contexts on the way out.
    try {
        BRIXExtendedAudioFile::SourceFormat sourceFormat;
        std::vector<SampleBuffer> buffers;
        int rate = 0;
        std::size_t frames = 0;
        {
            Decoder decoder(path, std::move(progress));
            failure = decoder.run(sourceFormat, buffers, rate, frames);
        }
        if (!failure) {
            std::unique_ptr<BRIXExtendedAudioFile> file(new BRIXExtendedAudioFile);
            file->mPath = path;
            file->mSampleRate = rate;
            file->mSourceFormat = std::move(sourceFormat);
            file->mStorage = std::make_unique<BRIXExtendedAudioFile::Storage>();
            file->mStorage->buffers = std::move(buffers);
            // A mono source has one plane, which both client channels read.
            const auto& planes = file->mStorage->buffers;
            file->mChannels = {planes.front().data(), planes.back().data()};
            file->mFrameCount = Frame(frames);
            return file;
        }
    } catch (const std::bad_alloc&) {
        failure = Failure{std::string(kReasonTooLarge)};
    } catch (...) {
        failure = Failure{std::string(kReasonUnreadable)};
    }

    if (failure->log) {
        VELL_LOG_ERROR(
            format("Could not open the audio file %s: %s", path.c_str(), failure->reason.c_str()));
    }
    assignError(outError, makeUserError(kBadAudioFile, failure->reason));
    return nullptr;
}

} // namespace vell::detail
