// Decoding real files made at test time by ffmpeg and sox from a known signal, checked against
// the source and against FFmpeg's own decode of the same file.
#include "VellAudio/BRIXExtendedAudioFile.h"

#include "AudioTestFiles.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <fstream>
#include <numbers>
#include <random>
#include <span>
#include <stdexcept>

namespace vell {
namespace {

using test::Audio;
using test::quoted;

constexpr int kRate = 44100;
// Deliberately no multiple of any codec's packet size.
constexpr std::size_t kFrames = 110'037;

bool haveTools()
{
    return test::haveTool("ffmpeg") && test::haveTool("ffprobe") && test::haveTool("sox");
}

/// The source signal and its float WAV, shared by every test of this file.
class Sources {
public:
    static Sources& shared()
    {
        static Sources sources;
        return sources;
    }
    const Audio& signal() const { return mSignal; }
    const std::filesystem::path& wav() const { return mWav; }
    const test::TemporaryDirectory& directory() const { return mDirectory; }

private:
    Sources() : mSignal(test::makeTestSignal(kFrames, 2, kRate)), mWav(mDirectory / "source.wav")
    {
        test::writeWav(mWav, mSignal, 32, true);
    }
    test::TemporaryDirectory mDirectory;
    Audio mSignal;
    std::filesystem::path mWav;
};

/// Left or right channel of interleaved audio.
std::vector<float> channelOf(const Audio& audio, int channel)
{
    std::vector<float> out(audio.frames());
    for (std::size_t i = 0; i < out.size(); ++i) {
        out[i] = audio.at(i, channel);
    }
    return out;
}

std::vector<float> channelOf(const BRIXExtendedAudioFile& file, std::uint32_t channel)
{
    const auto data = file.channelData(channel);
    return {data.begin(), data.end()};
}

enum class Count {
    Source,   // the source's frame count exactly (lossless, or gapless metadata honoured)
    FFmpeg,   // whatever FFmpeg's own decode gives, aligned with the source
    Untrimmed // FFmpeg's count; nothing says how much delay to drop, so the start is late
};

struct FormatCase {
    const char* name;
    const char* extension;
    const char* command; // {in} and {out} are replaced
    Count count;
    /// Largest difference from the source allowed, or a negative number for lossy codecs.
    double sourceTolerance;
    int rate;
    const char* container;
    const char* codec;
    std::uint32_t bitsPerSample;
};

std::ostream& operator<<(std::ostream& out, const FormatCase& c)
{
    return out << c.name;
}

std::string replaced(std::string text, const std::string& key, const std::string& value)
{
    for (auto at = text.find(key); at != std::string::npos;
         at = text.find(key, at + value.size())) {
        text.replace(at, key.size(), value);
    }
    return text;
}

const FormatCase kFormats[] = {
    {"wav16", "wav", "ffmpeg -y -i {in} -c:a pcm_s16le {out}", Count::Source, 1.0 / 32768, kRate,
     "wav", "pcm_s16le", 16},
    {"wav24", "wav", "ffmpeg -y -i {in} -c:a pcm_s24le {out}", Count::Source, 1.0 / 8388608, kRate,
     "wav", "pcm_s24le", 24},
    {"wav32", "wav", "ffmpeg -y -i {in} -c:a pcm_s32le {out}", Count::Source, 1e-7, kRate, "wav",
     "pcm_s32le", 32},
    {"wavfloat", "wav", "ffmpeg -y -i {in} -c:a pcm_f32le {out}", Count::Source, 0, kRate, "wav",
     "pcm_f32le", 32},
    {"aiff", "aiff", "sox {in} -D -b 16 {out}", Count::Source, 1.0 / 32768, kRate, "aiff",
     "pcm_s16be", 16},
    {"aifc", "aifc", "sox {in} -e floating-point -b 32 {out}", Count::Source, 1e-7, kRate, "aiff",
     "pcm_f32be", 32},
    {"flac16", "flac", "sox {in} -D -b 16 {out}", Count::Source, 1.0 / 32768, kRate, "flac", "flac",
     16},
    {"flac24", "flac", "ffmpeg -y -i {in} -c:a flac {out}", Count::Source, 2.5e-7, kRate, "flac",
     "flac", 24},
    {"alac", "m4a", "ffmpeg -y -i {in} -c:a alac {out}", Count::Source, 2.5e-7, kRate, "mp4",
     "alac", 24},
    {"mp3", "mp3", "ffmpeg -y -i {in} -c:a libmp3lame -b:a 192k {out}", Count::Source, -1, kRate,
     "mp3", "mp3", 0},
    {"aac", "m4a", "ffmpeg -y -i {in} -c:a aac -b:a 192k {out}", Count::Source, -1, kRate, "mp4",
     "aac", 0},
    {"mp3NoLameHeader", "mp3", "ffmpeg -y -i {in} -c:a libmp3lame -write_xing 0 {out}",
     Count::Untrimmed, -1, kRate, "mp3", "mp3", 0},
    {"vorbis", "ogg", "ffmpeg -y -i {in} -c:a libvorbis -q:a 6 {out}", Count::FFmpeg, -1, kRate,
     "ogg", "vorbis", 0},
    {"opus", "opus", "ffmpeg -y -i {in} -c:a libopus -b:a 160k {out}", Count::FFmpeg, -1, 48000,
     "ogg", "opus", 0},
};

class AudioFileFormatTest : public testing::TestWithParam<FormatCase> {
protected:
    void SetUp() override
    {
        if (!haveTools()) {
            GTEST_SKIP() << "ffmpeg, ffprobe and sox are needed";
        }
    }

    std::filesystem::path make(const FormatCase& c)
    {
        const auto& sources = Sources::shared();
        const auto out = sources.directory() / (std::string(c.name) + "." + c.extension);
        std::string command = replaced(c.command, "{in}", quoted(sources.wav()));
        command = replaced(command, "{out}", quoted(out));
        EXPECT_TRUE(test::run(command)) << command;
        return out;
    }
};

TEST_P(AudioFileFormatTest, DecodesExactlyAlignedAndLikeFFmpeg)
{
    const FormatCase& c = GetParam();
    const auto path = make(c);
    Error error;
    const auto file = BRIXExtendedAudioFile::create(path, &error);
    ASSERT_TRUE(file) << error.description();
    const Audio reference = test::decodeWithFFmpeg(path);
    ASSERT_GT(reference.frames(), 0u);

    EXPECT_EQ(file->sampleRate(), c.rate);
    EXPECT_EQ(file->channelCount(), 2u);
    EXPECT_EQ(file->clientFormat(), makeFloatNonInterleavedFormat(c.rate, 2));
    EXPECT_EQ(file->sourceFormat().container, c.container);
    EXPECT_EQ(file->sourceFormat().codec, c.codec);
    EXPECT_EQ(file->sourceFormat().channels, 2u);
    EXPECT_EQ(file->sourceFormat().bitsPerSample, c.bitsPerSample);
    EXPECT_EQ(file->path(), path);

    const Frame frames = file->frameCount();
    if (c.count == Count::Source) {
        EXPECT_EQ(frames, Frame(kFrames));
    } else {
        EXPECT_EQ(frames, Frame(reference.frames()));
    }
    // FFmpeg may decode more (an MP4's padding) but never less.
    ASSERT_LE(frames, Frame(reference.frames()));

    // The same samples FFmpeg decodes, over our whole length.
    for (std::uint32_t channel = 0; channel < 2; ++channel) {
        const auto data = file->channelData(channel);
        ASSERT_EQ(Frame(data.size()), frames);
        float worst = 0;
        for (Frame i = 0; i < frames; ++i) {
            worst = std::max(
                worst, std::abs(data[std::size_t(i)] - reference.at(std::size_t(i), int(channel))));
        }
        EXPECT_LE(worst, 1e-6f) << "channel " << channel;
    }

    if (c.rate != kRate || c.count == Count::Untrimmed) {
        return;
    }
    const Audio& source = Sources::shared().signal();
    if (c.sourceTolerance >= 0) {
        for (std::uint32_t channel = 0; channel < 2; ++channel) {
            const auto data = file->channelData(channel);
            double worst = 0;
            for (std::size_t i = 0; i < kFrames && i < data.size(); ++i) {
                worst = std::max(worst, double(std::abs(data[i] - source.at(i, int(channel)))));
            }
            EXPECT_LE(worst, c.sourceTolerance * 1.001) << "channel " << channel;
        }
    } else {
        // Lossy: no delay left at the start, and the signal is clearly the source's.
        const auto left = channelOf(*file, 0);
        const auto sourceLeft = channelOf(source, 0);
        EXPECT_EQ(test::bestLag(sourceLeft, left, 2200), 0);
        double noise = 0;
        double energy = 0;
        for (std::size_t i = 0; i < std::min(left.size(), sourceLeft.size()); ++i) {
            noise += (left[i] - sourceLeft[i]) * (left[i] - sourceLeft[i]);
            energy += sourceLeft[i] * sourceLeft[i];
        }
        EXPECT_LT(noise / energy, 0.05);
        // The channels are not swapped.
        const auto right = channelOf(*file, 1);
        const auto sourceRight = channelOf(source, 1);
        double same = 0;
        double swapped = 0;
        for (std::size_t i = 4096; i < 20480; ++i) {
            same += double(right[i]) * sourceRight[i];
            swapped += double(right[i]) * sourceLeft[i];
        }
        EXPECT_GT(same, 4 * std::abs(swapped));
    }
}

TEST_P(AudioFileFormatTest, ReadsAtRandomFramesAreSampleAccurate)
{
    const auto path = make(GetParam());
    const auto file = BRIXExtendedAudioFile::create(path);
    ASSERT_TRUE(file);
    const Audio reference = test::decodeWithFFmpeg(path);
    const Frame frames = file->frameCount();
    ASSERT_LE(frames, Frame(reference.frames()));

    std::mt19937 random(42);
    std::vector<float> left(4096);
    std::vector<float> right(4096);
    for (int round = 0; round < 50; ++round) {
        const Frame start = Frame(random() % std::uint64_t(frames));
        const auto capacity = std::uint32_t(1 + random() % 4096);
        SCOPED_TRACE(testing::Message() << "start " << start << " capacity " << capacity);
        ASSERT_TRUE(file->seekToFrame(start));
        AudioBufferList list;
        list.mNumberBuffers = 2;
        list.mBuffers[0] = {1, capacity * std::uint32_t(sizeof(float)), left.data()};
        list.mBuffers[1] = {1, capacity * std::uint32_t(sizeof(float)), right.data()};
        std::uint32_t read = 0;
        ASSERT_TRUE(file->readIntoAudioBufferList(&list, file->currentFrame(), &read));
        ASSERT_EQ(read, std::uint32_t(std::min<Frame>(capacity, frames - start)));
        for (std::uint32_t i = 0; i < read; ++i) {
            const auto at = std::size_t(start) + i;
            ASSERT_NEAR(left[i], reference.at(at, 0), 1e-6) << "frame " << at;
            ASSERT_NEAR(right[i], reference.at(at, 1), 1e-6) << "frame " << at;
        }
        EXPECT_EQ(file->currentFrame(), start + read);
    }
}

INSTANTIATE_TEST_SUITE_P(Formats, AudioFileFormatTest, testing::ValuesIn(kFormats),
                         [](const testing::TestParamInfo<FormatCase>& formatCase) {
                             return std::string(formatCase.param.name);
                         });

// ---- Every other codec and container FFmpeg can write here, and the audio of video files.

/// The input of a video stream, placed first so the audio is not the file's first stream.
#define VELL_VIDEO "-f lavfi -i color=s=176x144:r=25:d=3 -i {in} -map 0:v -map 1:a "

struct CodecCase {
    const char* name;
    const char* extension;
    const char* arguments; // ffmpeg's inputs and options; {in} is the source at `rate`
    int rate;
    const char* container;
    const char* codec;
    /// The source's length exactly; otherwise FFmpeg's own decode's.
    bool exactLength;
    /// Encoder delay the file does not record, left at the start.
    int lag;
    /// Largest noise-to-signal ratio against the source once aligned; negative for speech codecs
    /// and mono downmixes, which are only compared with FFmpeg's decode.
    double maxNoise;
    /// What FFmpeg needs to decode the same track.
    const char* reference = "";
};

std::ostream& operator<<(std::ostream& out, const CodecCase& c)
{
    return out << c.name;
}

constexpr double kLossy = 0.1;
constexpr double kLossless = 1e-8;

const CodecCase kCodecs[] = {
    // FFmpeg's WMA encoder and decoder together lose the first frame.
    {"wma", "wma", "-i {in} -c:a wmav2 -b:a 192k", kRate, "asf", "wmav2", false, -2048, kLossy},
    {"ac3", "ac3", "-i {in} -c:a ac3 -b:a 384k", kRate, "ac3", "ac3", false, 256, kLossy},
    {"eac3", "eac3", "-i {in} -c:a eac3 -b:a 384k", kRate, "eac3", "eac3", false, 256, kLossy},
    // The file's length includes the padding of the last frame.
    {"ac3InMP4", "m4a", "-i {in} -c:a ac3 -b:a 384k", kRate, "mp4", "ac3", false, 0, kLossy},
    {"eac3InMatroska", "mka", "-i {in} -c:a eac3 -b:a 384k", kRate, "matroska", "eac3", false, 256,
     kLossy},
    {"dts", "dts", "-i {in} -c:a dca -strict -2", kRate, "dts", "dts", false, 512, kLossy},
    {"truehd", "thd", "-i {in} -c:a truehd -strict -2", kRate, "truehd", "truehd", true, 0,
     kLossless},
    {"mlp", "mlp", "-i {in} -c:a mlp -strict -2", kRate, "mlp", "mlp", false, 0, kLossless},
    {"wavpack", "wv", "-i {in} -c:a wavpack", kRate, "wv", "wavpack", true, 0, kLossless},
    {"wavpackInMatroska", "mka", "-i {in} -c:a wavpack", kRate, "matroska", "wavpack", true, 0,
     kLossless},
    {"tta", "tta", "-i {in} -c:a tta", kRate, "tta", "tta", true, 0, kLossless},
    {"flacInMP4", "mp4", "-i {in} -c:a flac -strict -2", kRate, "mp4", "flac", true, 0, kLossless},
    {"opusInMP4", "mp4", "-i {in} -c:a libopus", 48000, "mp4", "opus", true, 0, kLossy},
    {"vorbisInMatroska", "mka", "-i {in} -c:a libvorbis", kRate, "matroska", "vorbis", false, 0,
     kLossy},
    {"speex", "spx", "-i {in} -c:a libspeex", 32000, "ogg", "speex", false, 0, -1},
    {"w64", "w64", "-i {in} -c:a pcm_s24le", kRate, "w64", "pcm_s24le", true, 0, kLossless},
    {"au", "au", "-i {in} -c:a pcm_s16be", kRate, "au", "pcm_s16be", true, 0, kLossless},
    {"voc", "voc", "-i {in} -c:a pcm_s16le", kRate, "voc", "pcm_s16le", true, 0, kLossless},
    {"g722", "g722", "-i {in} -ac 1 -c:a g722", 16000, "g722", "adpcm_g722", false, 0, -1},
    {"g726InWav", "wav", "-i {in} -ac 1 -c:a g726 -b:a 32k", 8000, "wav", "adpcm_g726", false, 0,
     -1},
    {"gsm", "gsm", "-i {in} -ac 1 -c:a libgsm", 8000, "gsm", "gsm", false, 0, -1},
    {"s302mInMPEGTS", "ts", "-i {in} -c:a s302m -strict -2", 48000, "mpegts", "s302m", true, 0,
     kLossless},
    {"videoMP4", "mp4", VELL_VIDEO "-c:v mpeg4 -c:a aac -b:a 192k", kRate, "mp4", "aac", true, 0,
     kLossy},
    {"video3GP", "3gp", VELL_VIDEO "-c:v h263 -c:a aac -b:a 192k", kRate, "mp4", "aac", true, 0,
     kLossy},
    {"videoWebM", "webm", VELL_VIDEO "-c:v libvpx -c:a libopus", 48000, "matroska", "opus", true, 0,
     kLossy},
    {"videoAVI", "avi", VELL_VIDEO "-c:v mpeg4 -c:a libmp3lame -b:a 192k", kRate, "avi", "mp3",
     false, 1105, kLossy},
    {"videoFLV", "flv", VELL_VIDEO "-c:v flv -c:a libmp3lame -b:a 192k", kRate, "flv", "mp3", false,
     1105, kLossy},
    {"videoMPEGTS", "ts", VELL_VIDEO "-c:v mpeg2video -c:a mp2 -b:a 256k", kRate, "mpegts", "mp2",
     false, 481, kLossy},
    {"videoMPEGPS", "mpg", VELL_VIDEO "-c:v mpeg1video -c:a mp2 -b:a 256k", kRate, "mpeg", "mp2",
     false, 481, kLossy},
    // The first audio track's codec is refused: the second one plays.
    {"refusedTrackSkipped", "mka",
     "-f lavfi -i sine=r=48000:d=1 -i {in} -map 0:a -map 1:a -c:a:0 dfpwm -c:a:1 flac", kRate,
     "matroska", "flac", true, 0, kLossless, "-map 0:a:1"},
};

#undef VELL_VIDEO

class AudioFileCodecTest : public testing::TestWithParam<CodecCase> {
protected:
    void SetUp() override
    {
        if (!haveTools()) {
            GTEST_SKIP() << "ffmpeg, ffprobe and sox are needed";
        }
    }

    /// The source signal at `rate` as a float WAV, written once.
    static std::filesystem::path sourceAt(int rate)
    {
        const auto path =
            Sources::shared().directory() / ("source-" + std::to_string(rate) + ".wav");
        if (!std::filesystem::exists(path)) {
            test::writeWav(path, test::makeTestSignal(kFrames, 2, rate), 32, true);
        }
        return path;
    }
};

TEST_P(AudioFileCodecTest, DecodesLikeFFmpegAlignedWithTheSource)
{
    const CodecCase& c = GetParam();
    const auto path = Sources::shared().directory() / (std::string(c.name) + "." + c.extension);
    const std::string command =
        "ffmpeg -y " + replaced(c.arguments, "{in}", quoted(sourceAt(c.rate))) + " " + quoted(path);
    ASSERT_TRUE(test::run(command)) << command;

    Error error;
    const auto file = BRIXExtendedAudioFile::create(path, &error);
    ASSERT_TRUE(file) << error.description();
    EXPECT_EQ(file->sampleRate(), c.rate);
    EXPECT_EQ(file->sourceFormat().container, c.container);
    EXPECT_EQ(file->sourceFormat().codec, c.codec);
    const Audio reference = test::decodeWithFFmpeg(path, c.reference);
    ASSERT_GT(reference.frames(), 0u);
    const Frame frames = file->frameCount();
    EXPECT_EQ(frames, Frame(c.exactLength ? kFrames : reference.frames()));
    ASSERT_LE(frames, Frame(reference.frames()));

    for (std::uint32_t channel = 0; channel < 2; ++channel) {
        const auto data = file->channelData(channel);
        const int from = std::min(int(channel), reference.channels - 1);
        float worst = 0;
        for (std::size_t i = 0; i < data.size(); ++i) {
            worst = std::max(worst, std::abs(data[i] - reference.at(i, from)));
        }
        EXPECT_LE(worst, 1e-6f) << "channel " << channel;
    }
    if (c.maxNoise < 0) {
        return;
    }

    // The source's signal, on the right channels, delayed only by what the file leaves unsaid.
    const Audio source = test::makeTestSignal(kFrames, 2, c.rate);
    for (int channel = 0; channel < 2; ++channel) {
        SCOPED_TRACE(testing::Message() << "channel " << channel);
        const auto decoded = channelOf(*file, std::uint32_t(channel));
        const auto expected = channelOf(source, channel);
        // A lossy codec's phase may move the best match by a sample.
        ASSERT_NEAR(test::bestLag(expected, decoded, 2200), c.lag, 1);
        double noise = 0;
        double energy = 0;
        for (std::size_t i = std::size_t(std::max(0, -c.lag)); i < expected.size(); ++i) {
            const auto at = std::ptrdiff_t(i) + c.lag;
            if (at >= std::ptrdiff_t(decoded.size())) {
                break;
            }
            noise += std::pow(decoded[std::size_t(at)] - expected[i], 2);
            energy += expected[i] * expected[i];
        }
        EXPECT_LT(noise / energy, c.maxNoise);
    }
}

INSTANTIATE_TEST_SUITE_P(Codecs, AudioFileCodecTest, testing::ValuesIn(kCodecs),
                         [](const testing::TestParamInfo<CodecCase>& codecCase) {
                             return std::string(codecCase.param.name);
                         });

class AudioFileDecodingTest : public testing::Test {
protected:
    void SetUp() override
    {
        if (!haveTools()) {
            GTEST_SKIP() << "ffmpeg, ffprobe and sox are needed";
        }
    }
    std::filesystem::path path(std::string_view name) const { return mDirectory / name; }

    test::TemporaryDirectory mDirectory;
};

TEST_F(AudioFileDecodingTest, MonoIsDuplicatedIntoBothChannels)
{
    const Audio mono = test::makeTestSignal(50'000, 1, kRate);
    test::writeWav(path("mono.wav"), mono, 16, false);
    ASSERT_TRUE(test::run("ffmpeg -y -i " + quoted(path("mono.wav")) + " -c:a libmp3lame " +
                          quoted(path("mono.mp3"))));
    for (const char* name : {"mono.wav", "mono.mp3"}) {
        SCOPED_TRACE(name);
        const auto file = BRIXExtendedAudioFile::create(path(name));
        ASSERT_TRUE(file);
        EXPECT_EQ(file->channelCount(), 2u);
        EXPECT_EQ(file->sourceFormat().channels, 1u);
        EXPECT_EQ(file->frameCount(), 50'000);
        const Audio reference = test::decodeWithFFmpeg(path(name));
        ASSERT_EQ(reference.channels, 1);
        const auto left = file->channelData(0);
        const auto right = file->channelData(1);
        for (std::size_t i = 0; i < left.size(); ++i) {
            ASSERT_EQ(left[i], right[i]);
            ASSERT_NEAR(left[i], reference.samples[i], 1e-6);
        }
    }
}

TEST_F(AudioFileDecodingTest, SurroundIsFoldedDownToStereo)
{
    // 5.1: front left, front right, centre, LFE, side left, side right.
    const std::uint32_t mask = 0x60F;
    const Audio surround = test::makeTestSignal(30'000, 6, 48000);
    test::writeWav(path("surround.wav"), surround, 24, false, mask);
    ASSERT_TRUE(test::run("ffmpeg -y -i " + quoted(path("surround.wav")) + " -c:a aac " +
                          quoted(path("surround.m4a"))));
    for (const char* name : {"surround.wav", "surround.m4a"}) {
        SCOPED_TRACE(name);
        const auto file = BRIXExtendedAudioFile::create(path(name));
        ASSERT_TRUE(file);
        EXPECT_EQ(file->channelCount(), 2u);
        EXPECT_EQ(file->sourceFormat().channels, 6u);
        EXPECT_EQ(file->sampleRate(), 48000);
        EXPECT_EQ(file->frameCount(), 30'000);
        // The standard downmix, as FFmpeg itself folds 5.1 into stereo.
        const Audio reference = test::decodeWithFFmpeg(path(name), "-ac 2");
        ASSERT_EQ(reference.channels, 2);
        for (std::uint32_t channel = 0; channel < 2; ++channel) {
            const auto data = file->channelData(channel);
            for (std::size_t i = 0; i < data.size(); ++i) {
                ASSERT_NEAR(data[i], reference.at(i, int(channel)), 1e-5) << i;
            }
        }
    }

    // Only the front left channel sounds: nothing of it reaches the right.
    Audio left = surround;
    for (std::size_t i = 0; i < left.frames(); ++i) {
        for (int c = 1; c < 6; ++c) {
            left.samples[i * 6 + std::size_t(c)] = 0;
        }
    }
    test::writeWav(path("left.wav"), left, 32, true, mask);
    const auto file = BRIXExtendedAudioFile::create(path("left.wav"));
    ASSERT_TRUE(file);
    float leftPeak = 0;
    float rightPeak = 0;
    for (std::size_t i = 0; i < std::size_t(file->frameCount()); ++i) {
        leftPeak = std::max(leftPeak, std::abs(file->channelData(0)[i]));
        rightPeak = std::max(rightPeak, std::abs(file->channelData(1)[i]));
    }
    EXPECT_GT(leftPeak, 0.2f);
    EXPECT_EQ(rightPeak, 0.0f);
}

TEST_F(AudioFileDecodingTest, KeepsTheFilesOwnSampleRate)
{
    const Audio high = test::makeTestSignal(96'000, 2, 96000);
    test::writeWav(path("high.wav"), high, 24, false);
    ASSERT_TRUE(test::run("ffmpeg -y -i " + quoted(path("high.wav")) + " -c:a flac " +
                          quoted(path("high.flac"))));
    const auto file = BRIXExtendedAudioFile::create(path("high.flac"));
    ASSERT_TRUE(file);
    EXPECT_EQ(file->sampleRate(), 96000);
    EXPECT_EQ(file->frameCount(), 96'000);
    EXPECT_DOUBLE_EQ(file->duration(), 1.0);
}

/// The frequency of a tone from its rising zero crossings.
double toneFrequency(std::span<const float> samples, double sampleRate)
{
    std::size_t first = 0;
    std::size_t last = 0;
    int crossings = 0;
    for (std::size_t i = 1; i < samples.size(); ++i) {
        if (samples[i - 1] < 0 && samples[i] >= 0) {
            first = crossings == 0 ? i : first;
            last = i;
            ++crossings;
        }
    }
    return crossings > 1 ? (crossings - 1) * sampleRate / double(last - first) : 0;
}

TEST_F(AudioFileDecodingTest, ARateChangeMidStreamIsResampledToTheFirstRate)
{
    // Two MP3 streams back to back, 44.1 kHz then 48 kHz, each a 440 Hz tone.
    ASSERT_TRUE(test::run("sox -V1 -r 44100 -c 2 -n " + quoted(path("a.wav")) +
                          " synth 2 sine 440 vol 0.5"));
    ASSERT_TRUE(test::run("sox -V1 -r 48000 -c 2 -n " + quoted(path("b.wav")) +
                          " synth 2 sine 440 vol 0.5"));
    ASSERT_TRUE(test::run("ffmpeg -y -i " + quoted(path("a.wav")) + " " + quoted(path("a.mp3"))));
    ASSERT_TRUE(test::run("ffmpeg -y -i " + quoted(path("b.wav")) + " -write_xing 0 " +
                          quoted(path("b.mp3"))));
    ASSERT_EQ(test::runCommand("cat " + quoted(path("a.mp3")) + " " + quoted(path("b.mp3")) +
                               " > " + quoted(path("both.mp3"))),
              0);

    Error error;
    const auto file = BRIXExtendedAudioFile::create(path("both.mp3"), &error);
    ASSERT_TRUE(file) << error.description();
    EXPECT_EQ(file->sampleRate(), 44100);
    // About four seconds at 44.1 kHz, plus the second stream's untrimmed delay and padding.
    EXPECT_GT(file->frameCount(), 4 * 44100);
    EXPECT_LT(file->frameCount(), 4 * 44100 + 4096);
    const auto left = file->channelData(0);
    EXPECT_NEAR(toneFrequency(left.subspan(10'000, 60'000), 44100), 440, 2);
    // Copied at the wrong rate the second tone would read as 404 Hz.
    EXPECT_NEAR(toneFrequency(left.subspan(100'000, 60'000), 44100), 440, 2);
}

/// A DSF file: a tone on each channel at half of full scale as one-bit audio at `bitRate`, made
/// by a second-order delta-sigma modulator; least significant bit first, in blocks of 4096 bytes
/// per channel, the last one padded.
void writeDsf(const std::filesystem::path& file, int bitRate, std::size_t samples,
              std::array<double, 2> frequencies)
{
    constexpr std::size_t kBlock = 4096;
    const std::size_t blocks = ((samples + 7) / 8 + kBlock - 1) / kBlock;
    std::string data(blocks * kBlock * 2, '\0');
    for (std::size_t c = 0; c < 2; ++c) {
        double first = 0;
        double second = 0;
        double feedback = 0;
        for (std::size_t i = 0; i < samples; ++i) {
            first += 0.5 * std::sin(2 * std::numbers::pi * frequencies[c] * double(i) / bitRate) -
                     feedback;
            second += first - feedback;
            feedback = second >= 0 ? 1 : -1;
            if (second >= 0) {
                const std::size_t byte = i / 8;
                data[(byte / kBlock * 2 + c) * kBlock + byte % kBlock] |= char(1 << (i % 8));
            }
        }
    }
    std::string out;
    const auto put = [&out](std::uint64_t value, int bytes) {
        for (int b = 0; b < bytes; ++b) {
            out.push_back(char(value >> (8 * b)));
        }
    };
    out += "DSD ";
    put(28, 8);
    put(28 + 52 + 12 + data.size(), 8);
    put(0, 8);
    // Version 1, plain DSD, stereo, two channels, the rate, one bit, the length, the block size.
    out += "fmt ";
    put(52, 8);
    put(1, 4);
    put(0, 4);
    put(2, 4);
    put(2, 4);
    put(std::uint64_t(bitRate), 4);
    put(1, 4);
    put(samples, 8);
    put(kBlock, 4);
    put(0, 4);
    out += "data";
    put(12 + data.size(), 8);
    out += data;
    std::ofstream(file, std::ios::binary).write(out.data(), std::streamsize(out.size()));
}

TEST_F(AudioFileDecodingTest, OneBitAudioIsDecodedAt88200Hz)
{
    for (const int bitRate : {2'822'400, 5'644'800}) {
        SCOPED_TRACE(bitRate);
        writeDsf(path("tone.dsf"), bitRate, std::size_t(bitRate / 2), {1000, 1500});
        Error error;
        const auto file = BRIXExtendedAudioFile::create(path("tone.dsf"), &error);
        ASSERT_TRUE(file) << error.description();
        EXPECT_EQ(file->sampleRate(), 88200);
        EXPECT_EQ(file->sourceFormat().codec, "dsd_lsbf_planar");
        EXPECT_EQ(file->sourceFormat().bitsPerSample, 1u);
        // Half a second: the padding of the last block is not audio.
        EXPECT_EQ(file->frameCount(), 44100);
        for (std::uint32_t channel = 0; channel < 2; ++channel) {
            const auto tone = file->channelData(channel).subspan(4410, 35280);
            EXPECT_NEAR(toneFrequency(tone, 88200), channel == 0 ? 1000 : 1500, 1);
            double power = 0;
            for (const float sample : tone) {
                power += sample * sample;
            }
            EXPECT_NEAR(std::sqrt(2 * power / double(tone.size())), 0.5, 0.02);
        }
    }
}

TEST_F(AudioFileDecodingTest, TheSupportedRangeOfRatesAndChannelsIsInclusive)
{
    struct Case {
        int rate;
        int channels;
        bool supported;
    };
    for (const Case c : {Case{8000, 2, true}, Case{384000, 2, true}, Case{44100, 8, true},
                         Case{7999, 2, false}, Case{384001, 2, false}, Case{44100, 9, false}}) {
        SCOPED_TRACE(testing::Message() << c.rate << " Hz, " << c.channels << " channels");
        Audio audio = test::makeTestSignal(4000, c.channels, c.rate < 16000 ? 16000 : c.rate);
        audio.sampleRate = c.rate;
        const auto file = path("range.wav");
        test::writeWav(file, audio, 16, false, c.channels > 2 ? (1u << c.channels) - 1 : 0);
        Error error;
        const auto decoded = BRIXExtendedAudioFile::create(file, &error);
        if (c.supported) {
            ASSERT_TRUE(decoded) << error.description();
            EXPECT_EQ(decoded->frameCount(), 4000);
            EXPECT_EQ(decoded->sampleRate(), c.rate);
        } else {
            EXPECT_FALSE(decoded);
            EXPECT_NE(error.localizedFailureReason().value_or("").find("unsupported format"),
                      std::string::npos)
                << error.description();
        }
    }
}

TEST_F(AudioFileDecodingTest, ReportsProgressAndCanBeCancelled)
{
    const Audio audio = test::makeTestSignal(20 * kRate, 2, kRate);
    test::writeWav(path("long.wav"), audio, 16, false);
    ASSERT_TRUE(test::run("ffmpeg -y -i " + quoted(path("long.wav")) + " -c:a libmp3lame " +
                          quoted(path("long.mp3"))));

    std::vector<double> fractions;
    const auto file = BRIXExtendedAudioFile::create(path("long.mp3"), nullptr, [&](double f) {
        fractions.push_back(f);
        return true;
    });
    ASSERT_TRUE(file);
    ASSERT_GE(fractions.size(), 3u);
    EXPECT_EQ(fractions.front(), 0.0);
    EXPECT_EQ(fractions.back(), 1.0);
    EXPECT_TRUE(std::is_sorted(fractions.begin(), fractions.end()));

    test::LogCapture log;
    Error error;
    int calls = 0;
    const auto cancelled = BRIXExtendedAudioFile::create(path("long.mp3"), &error, [&](double f) {
        ++calls;
        return f < 0.3;
    });
    EXPECT_FALSE(cancelled);
    EXPECT_EQ(error.domain(), kVellErrorDomain);
    EXPECT_NE(error.localizedFailureReason().value_or("").find("cancelled"), std::string::npos);
    EXPECT_LT(calls, int(fractions.size()));
    // Cancelling is the caller's choice, not an error worth logging.
    EXPECT_TRUE(log.lines().empty());

    // A callback that throws does not take the caller down with it.
    Error thrown;
    const auto failed = BRIXExtendedAudioFile::create(path("long.mp3"), &thrown, [](double f) {
        if (f > 0.5) {
            throw std::runtime_error("progress display gone");
        }
        return true;
    });
    EXPECT_FALSE(failed);
    EXPECT_EQ(thrown.domain(), kVellErrorDomain);
    EXPECT_EQ(log.lines().size(), 1u);
}

// ---- Bad input: a clear error, one log line, never a crash.

class BadAudioFileTest : public AudioFileDecodingTest {
protected:
    /// Opens a file that must fail with `reason` in the failure reason.
    void expectBadFile(const std::filesystem::path& file, std::string_view reason)
    {
        SCOPED_TRACE(file.filename().string());
        test::LogCapture log;
        Error error;
        const auto opened = BRIXExtendedAudioFile::create(file, &error);
        EXPECT_FALSE(opened);
        EXPECT_EQ(error.domain(), kVellErrorDomain);
        EXPECT_EQ(error.code(), 0);
        EXPECT_EQ(error.localizedDescription(), "Bad Audio File");
        EXPECT_NE(error.localizedFailureReason().value_or("").find(reason), std::string::npos)
            << error.description();
        const auto lines = log.lines();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_NE(lines[0].find("(ERROR)"), std::string::npos) << lines[0];
        EXPECT_NE(lines[0].find(file.filename().string()), std::string::npos) << lines[0];
        // A null error slot is fine too.
        EXPECT_FALSE(BRIXExtendedAudioFile::create(file));
    }

    void writeText(const std::filesystem::path& file, std::string_view text)
    {
        std::ofstream(file, std::ios::binary).write(text.data(), std::streamsize(text.size()));
    }

    /// The source signal as a short file of the given kind.
    std::filesystem::path encoded(const std::string& name, const std::string& arguments)
    {
        if (!std::filesystem::exists(path("short.wav"))) {
            test::writeWav(path("short.wav"), test::makeTestSignal(3 * kRate, 2, kRate), 16, false);
        }
        EXPECT_TRUE(test::run("ffmpeg -y -i " + quoted(path("short.wav")) + " " + arguments + " " +
                              quoted(path(name))));
        return path(name);
    }

    static std::string bytesOf(const std::filesystem::path& file)
    {
        std::ifstream in(file, std::ios::binary);
        return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
    }
};

TEST_F(BadAudioFileTest, MissingEmptyAndNonAudioFiles)
{
    expectBadFile(path("missing.mp3"), "does not exist");

    writeText(path("empty.wav"), "");
    expectBadFile(path("empty.wav"), "empty");

    std::filesystem::create_directory(path("folder.mp3"));
    expectBadFile(path("folder.mp3"), "not an audio file");

    writeText(path("text.mp3"), "These are the lyrics of a song, not the song itself.\n");
    expectBadFile(path("text.mp3"), "not an audio file");

    std::string noise(100'000, '\0');
    std::mt19937 random(3);
    for (char& byte : noise) {
        byte = char(random());
    }
    writeText(path("noise.mp3"), noise);
    expectBadFile(path("noise.mp3"), "not an audio file");
    writeText(path("noise.m4a"), noise);
    expectBadFile(path("noise.m4a"), "not an audio file");

    ASSERT_TRUE(test::run("ffmpeg -y -f lavfi -i testsrc=d=0.1:s=32x32 -frames:v 1 " +
                          quoted(path("picture.png"))));
    std::filesystem::copy_file(path("picture.png"), path("picture.mp3"));
    expectBadFile(path("picture.mp3"), "not an audio file");
}

TEST_F(BadAudioFileTest, FilesWithoutAudio)
{
    ASSERT_TRUE(test::run("ffmpeg -y -f lavfi -i testsrc=d=0.5:s=32x32 -c:v mpeg4 " +
                          quoted(path("video.mp4"))));
    expectBadFile(path("video.mp4"), "unsupported format (mp4 video without audio)");

    // A valid WAV header with no frames.
    test::writeWav(path("silent.wav"), Audio{{}, 2, kRate}, 16, false);
    expectBadFile(path("silent.wav"), "no audio");
}

TEST_F(BadAudioFileTest, PlaylistsAndScriptsNamedLikeAudioAreRefused)
{
    // Each names a real audio file: opening it through the playlist would succeed.
    test::writeWav(path("real.wav"), test::makeTestSignal(kRate, 2, kRate), 16, false);
    const std::string real = path("real.wav").string();

    writeText(path("hls.mp3"), "#EXTM3U\n#EXT-X-VERSION:3\n#EXT-X-TARGETDURATION:2\n"
                               "#EXTINF:1.0,\n" +
                                   real + "\n#EXT-X-ENDLIST\n");
    expectBadFile(path("hls.mp3"), "not an audio file");

    writeText(path("concat.mp3"), "ffconcat version 1.0\nfile '" + real + "'\n");
    expectBadFile(path("concat.mp3"), "not an audio file");

    writeText(path("list.mp3"), "#EXTM3U\n#EXTINF:1,Song\n" + real + "\n");
    expectBadFile(path("list.mp3"), "not an audio file");

    writeText(path("list.m4a"), "[playlist]\nFile1=" + real + "\nNumberOfEntries=1\n");
    expectBadFile(path("list.m4a"), "not an audio file");

    writeText(path("dash.mp3"),
              "<?xml version=\"1.0\"?>\n<MPD xmlns=\"urn:mpeg:dash:schema:mpd:2011\" "
              "type=\"static\" mediaPresentationDuration=\"PT1S\" "
              "profiles=\"urn:mpeg:dash:profile:isoff-on-demand:2011\"><Period><AdaptationSet>"
              "<Representation id=\"1\" bandwidth=\"1411200\"><BaseURL>" +
                  real + "</BaseURL></Representation></AdaptationSet></Period></MPD>\n");
    expectBadFile(path("dash.mp3"), "not an audio file");

    // A session description would have the demuxer listen on the network.
    writeText(path("session.mp3"), "v=0\r\no=- 0 0 IN IP4 127.0.0.1\r\ns=Song\r\n"
                                   "c=IN IP4 127.0.0.1\r\nt=0 0\r\nm=audio 5004 RTP/AVP 0\r\n");
    expectBadFile(path("session.mp3"), "not an audio file");
}

TEST_F(BadAudioFileTest, UnsupportedFormats)
{
    Audio audio = test::makeTestSignal(1000, 2, 16000);
    audio.sampleRate = 4000;
    test::writeWav(path("slow.wav"), audio, 16, false);
    expectBadFile(path("slow.wav"), "unsupported format");

    audio.sampleRate = 768000;
    test::writeWav(path("fast.wav"), audio, 16, false);
    expectBadFile(path("fast.wav"), "unsupported format");

    const Audio many = test::makeTestSignal(1000, 12, kRate);
    test::writeWav(path("many.wav"), many, 16, false, 0);
    expectBadFile(path("many.wav"), "unsupported format");

    // Formats FFmpeg knows that are deliberately left out say which they are.
    expectBadFile(encoded("game.adx", "-c:a adpcm_adx"), "unsupported format (CRI ADX)");
    expectBadFile(encoded("dfpwm.mka", "-ac 1 -ar 48000 -c:a dfpwm"), "unsupported format (dfpwm)");
}

TEST_F(BadAudioFileTest, MP4WithoutItsIndexIsIncompleteOrDamaged)
{
    // The index (moov) is written after the audio unless asked otherwise: half a file has none.
    const auto full = bytesOf(encoded("full.m4a", "-c:a aac"));
    writeText(path("half.m4a"), std::string_view(full).substr(0, full.size() / 2));
    expectBadFile(path("half.m4a"), "incomplete or damaged");

    writeText(path("header.m4a"), std::string_view(full).substr(0, 40));
    expectBadFile(path("header.m4a"), "incomplete or damaged");
}

TEST_F(BadAudioFileTest, TruncatedAndDamagedFilesPlayWhatDecodes)
{
    struct Case {
        const char* name;
        const char* arguments;
    };
    for (const Case c : {Case{"cut.mp3", "-c:a libmp3lame"}, Case{"cut.flac", "-c:a flac"},
                         Case{"cut.wav", "-c:a pcm_s16le"}, Case{"cut.ogg", "-c:a libvorbis"},
                         Case{"cut.m4a", "-c:a aac -movflags +faststart"}}) {
        SCOPED_TRACE(c.name);
        const auto full = bytesOf(encoded(std::string("full-") + c.name, c.arguments));
        writeText(path(c.name), std::string_view(full).substr(0, full.size() * 6 / 10));

        const auto file = BRIXExtendedAudioFile::create(path(c.name));
        ASSERT_TRUE(file);
        EXPECT_GT(file->frameCount(), kRate);
        EXPECT_LT(file->frameCount(), 3 * kRate * 7 / 10);
        const Audio reference = test::decodeWithFFmpeg(path(c.name));
        EXPECT_LE(file->frameCount(), Frame(reference.frames()));
        const auto left = file->channelData(0);
        for (std::size_t i = 0; i < left.size(); ++i) {
            ASSERT_NEAR(left[i], reference.at(i, 0), 1e-6) << i;
        }
    }

    // Garbage over part of the stream: what FFmpeg decodes of it, decodes here too.
    for (const char* name : {"full-cut.mp3", "full-cut.flac", "full-cut.ogg", "full-cut.wav"}) {
        SCOPED_TRACE(name);
        std::string bytes = bytesOf(path(name));
        std::mt19937 random(11);
        for (std::size_t i = bytes.size() / 3; i < bytes.size() / 3 + 1500; ++i) {
            bytes[i] = char(random());
        }
        const auto damaged = path(std::string("damaged-") + name);
        writeText(damaged, bytes);
        const auto file = BRIXExtendedAudioFile::create(damaged);
        ASSERT_TRUE(file);
        EXPECT_GT(file->frameCount(), kRate / 2);
        EXPECT_EQ(file->frameCount(), Frame(test::decodeWithFFmpeg(damaged).frames()));
    }
}

} // namespace
} // namespace vell
