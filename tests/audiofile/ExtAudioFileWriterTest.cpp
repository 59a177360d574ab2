// The file writer: tones written as AIFF, WAVE and M4A decode back whole and in tune, the files
// are what ffprobe expects, bad requests leave no file, and a write past the file-size limit
// leaves a playable file of what fit.
#include "audio/file/ExtAudioFileWriter.h"

#include "AudioTestFiles.h"
#include "TestSupport.h"
#include "VellAudio/BRIXExtendedAudioFile.h"
#include "audio/graph/AudioUnit.h"

#include <gtest/gtest.h>

#include <sys/resource.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <numbers>
#include <span>

namespace vell {
namespace {

struct Kind {
    const char* name;
    AudioFileTypeID type;
    const char* extension;
    /// What ffprobe reports for the stream.
    const char* probe;
    /// Bytes before the samples of a PCM file.
    int headerBytes;
};

std::ostream& operator<<(std::ostream& out, const Kind& kind)
{
    return out << kind.name;
}

const Kind kKinds[] = {
    {"wave", kAudioFileWAVEType, "wav", "codec_name=pcm_s16le\nsample_fmt=s16", 44},
    {"aiff", kAudioFileAIFFType, "aif", "codec_name=pcm_s16be\nsample_fmt=s16", 54},
    {"m4a", kAudioFileM4AType, "m4a",
     "codec_name=aac\nprofile=LC\nsample_fmt=fltp\nmajor_brand=M4A ", 0},
};

constexpr double kFileRate = 44100;
constexpr double kFrequency[2] = {440.0, 1250.0};
constexpr double kAmplitude[2] = {0.5, 0.3};

float tone(int channel, Frame frame, double rate)
{
    return float(kAmplitude[channel] *
                 std::sin(2 * std::numbers::pi * kFrequency[channel] * double(frame) / rate));
}

/// A sample as 16-bit PCM holds it.
float quantized(float sample)
{
    return std::nearbyint(sample * 32768) / 32768;
}

/// The file format for a kind, completed by the format-info query as the engine does.
AudioStreamBasicDescription fileFormat(AudioFileTypeID type, double rate = kFileRate,
                                       UInt32 channels = 2)
{
    AudioStreamBasicDescription format;
    format.mSampleRate = rate;
    format.mChannelsPerFrame = channels;
    if (type == kAudioFileM4AType) {
        format.mFormatID = kAudioFormatMPEG4AAC;
    } else {
        format.mFormatID = kAudioFormatLinearPCM;
        format.mFormatFlags = kAudioFormatFlagIsSignedInteger |
                              (type == kAudioFileAIFFType ? kAudioFormatFlagIsBigEndian : 0);
        format.mBitsPerChannel = 16;
    }
    UInt32 size = sizeof(format);
    EXPECT_EQ(AudioFormatGetProperty(kAudioFormatProperty_FormatInfo, 0, nullptr, &size, &format),
              noErr);
    return format;
}

/// Writes `frames` frames of the tones at `rate` (mono gets the first tone) in blocks of
/// varying odd sizes. Like the engine, each call passes more frames than the buffers say they
/// hold. Returns the first failure.
OSStatus writeTones(ExtAudioFileRef file, Frame frames, double rate, UInt32 channels = 2)
{
    constexpr UInt32 kBlocks[] = {333, 1021, 17, 4099, 1, 2047};
    std::vector<std::vector<float>> buffers(channels, std::vector<float>(4099));
    AudioBufferList list;
    list.mNumberBuffers = channels;
    Frame done = 0;
    for (std::size_t b = 0; done < frames; ++b) {
        const auto n = UInt32(std::min<Frame>(kBlocks[b % std::size(kBlocks)], frames - done));
        for (UInt32 c = 0; c < channels; ++c) {
            for (UInt32 i = 0; i < n; ++i) {
                buffers[c][i] = tone(int(c), done + i, rate);
            }
            list.mBuffers[c] = AudioBuffer{1, n * UInt32(sizeof(float)), buffers[c].data()};
        }
        if (const OSStatus status = ExtAudioFileWrite(file, n + 64, &list); status != noErr) {
            return status;
        }
        done += n;
    }
    return noErr;
}

/// A least-squares fit of a sinusoid at a known frequency over the middle of a signal.
struct ToneFit {
    double amplitude = 0;
    /// Lateness against a tone starting at frame 0, in frames.
    double delay = 0;
    /// Correlation of the signal with the fitted sinusoid.
    double correlation = 0;
};

ToneFit fitTone(std::span<const float> signal, double frequency, double rate)
{
    const double w = 2 * std::numbers::pi * frequency / rate;
    double ss = 0, cc = 0, sc = 0, xs = 0, xc = 0, xx = 0;
    for (std::size_t i = 2048; i + 2048 < signal.size(); ++i) {
        const double s = std::sin(w * double(i)), c = std::cos(w * double(i)), x = signal[i];
        ss += s * s, cc += c * c, sc += s * c, xs += x * s, xc += x * c, xx += x * x;
    }
    const double det = ss * cc - sc * sc;
    const double a = (xs * cc - xc * sc) / det;
    const double b = (xc * ss - xs * sc) / det;
    ToneFit fit;
    fit.amplitude = std::hypot(a, b);
    fit.delay = -std::atan2(b, a) / w;
    // The fit's energy over the signal's is the squared correlation of the two.
    fit.correlation = std::sqrt(std::max(0.0, a * xs + b * xc) / xx);
    return fit;
}

/// Fails unless ffprobe's view of a file has every line of `wanted`.
void expectProbeShows(const std::filesystem::path& path, std::string_view wanted)
{
    int status = -1;
    const std::string probed =
        test::commandOutput("ffprobe -v error -show_entries "
                            "stream=codec_name,profile,sample_fmt,sample_rate,channels:"
                            "format=duration:format_tags=major_brand -of default=nw=1 " +
                                test::quoted(path),
                            &status);
    EXPECT_EQ(status, 0) << probed;
    for (std::size_t at = 0; at < wanted.size();) {
        const std::size_t end = std::min(wanted.find('\n', at), wanted.size());
        if (probed.find(wanted.substr(at, end - at)) == std::string::npos) {
            ADD_FAILURE() << "no " << wanted.substr(at, end - at) << " in\n" << probed;
            return;
        }
        at = end + 1;
    }
}

/// Fails unless the chunk sizes of a stereo 16-bit WAVE or AIFF file describe it exactly: the
/// container's size, and the sample data's (and AIFF's frame count) as `frames` frames.
void expectChunkSizes(const std::filesystem::path& path, AudioFileTypeID type, Frame frames)
{
    std::ifstream in(path, std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(in), {}};
    ASSERT_GE(bytes.size(), 44u);
    const auto word = [&](std::size_t at) {
        std::uint32_t value = 0;
        for (std::size_t i = 0; i < 4; ++i) {
            const auto byte = std::uint32_t(std::uint8_t(bytes[at + i]));
            value |= type == kAudioFileAIFFType ? byte << (24 - 8 * i) : byte << (8 * i);
        }
        return Frame(value);
    };
    const auto size = Frame(bytes.size());
    EXPECT_EQ(word(4), size - 8);
    if (type == kAudioFileAIFFType) {
        EXPECT_EQ(word(22), frames);
        EXPECT_EQ(word(42), 8 + frames * 4);
        EXPECT_EQ(size, 54 + frames * 4);
    } else {
        EXPECT_EQ(word(40), frames * 4);
        EXPECT_EQ(size, 44 + frames * 4);
    }
}

class ExtAudioFileWriterKindTest : public testing::TestWithParam<Kind> {
protected:
    test::TemporaryDirectory mDirectory;
    std::filesystem::path mPath = mDirectory / (std::string("out.") + GetParam().extension);
};

class ExtAudioFileWriterRoundTripTest
    : public testing::TestWithParam<std::tuple<Kind, double /*client rate*/>> {
protected:
    test::TemporaryDirectory mDirectory;
};

TEST_P(ExtAudioFileWriterRoundTripTest, TonesDecodeBackWholeAndInTune)
{
    const auto [kind, clientRate] = GetParam();
    const auto path = mDirectory / (std::string("tones.") + kind.extension);
    const auto format = fileFormat(kind.type);
    ExtAudioFileRef file = nullptr;
    ASSERT_EQ(ExtAudioFileCreateWithURL(path.c_str(), kind.type, &format, nullptr, 0, &file),
              noErr);
    const auto client = makeFloatNonInterleavedFormat(clientRate, 2);
    ASSERT_EQ(ExtAudioFileSetProperty(file, kExtAudioFileProperty_ClientDataFormat, sizeof(client),
                                      &client),
              noErr);
    const Frame seconds = 2;
    ASSERT_EQ(writeTones(file, seconds * Frame(clientRate), clientRate), noErr);
    ASSERT_EQ(ExtAudioFileDispose(file), noErr);

    expectProbeShows(path, std::string(kind.probe) + "\nsample_rate=44100\nchannels=2");
    if (kind.type != kAudioFileM4AType) {
        expectChunkSizes(path, kind.type, seconds * Frame(kFileRate));
    }

    Error error;
    const auto decoded = BRIXExtendedAudioFile::create(path, &error);
    ASSERT_TRUE(decoded) << error.description();
    EXPECT_EQ(decoded->frameCount(), seconds * Frame(kFileRate));
    const bool exact = kind.type != kAudioFileM4AType && clientRate == kFileRate;
    for (int c = 0; c < 2; ++c) {
        SCOPED_TRACE(c);
        const auto samples = decoded->channelData(std::uint32_t(c));
        if (exact) {
            Frame wrong = 0;
            for (std::size_t i = 0; i < samples.size(); ++i) {
                wrong += samples[i] != quantized(tone(c, Frame(i), kFileRate));
            }
            EXPECT_EQ(wrong, 0);
            continue;
        }
        const ToneFit fit = fitTone(samples, kFrequency[c], kFileRate);
        EXPECT_NEAR(fit.amplitude, kAmplitude[c], 0.005 * kAmplitude[c]);
        EXPECT_NEAR(fit.delay, 0, 0.1);
        EXPECT_GT(fit.correlation, kind.type == kAudioFileM4AType ? 0.999 : 0.99999);
    }
}

INSTANTIATE_TEST_SUITE_P(KindsAndClientRates, ExtAudioFileWriterRoundTripTest,
                         testing::Combine(testing::ValuesIn(kKinds),
                                          testing::Values(44100.0, 48000.0)));

TEST_P(ExtAudioFileWriterKindTest, CreatedAndDisposedIsAValidEmptyFile)
{
    const auto format = fileFormat(GetParam().type);
    ExtAudioFileRef file = nullptr;
    ASSERT_EQ(ExtAudioFileCreateWithURL(mPath.c_str(), GetParam().type, &format, nullptr, 0, &file),
              noErr);
    ASSERT_EQ(ExtAudioFileDispose(file), noErr);
    // FFmpeg opens it and finds nothing to play. The MP4 muxer leaves out a track without
    // samples, so an empty M4A file has its brand but no stream.
    if (GetParam().type == kAudioFileM4AType) {
        expectProbeShows(mPath, "duration=0.000000\nTAG:major_brand=M4A ");
    } else {
        expectProbeShows(mPath, GetParam().probe);
        expectChunkSizes(mPath, GetParam().type, 0);
    }
}

/// In a child with a 100 kB file-size limit, 10 s of tones cannot fit: the write that reaches
/// the limit must fail with EFBIG (not end the process with SIGXFSZ), later writes too, and
/// disposing must still finish the file.
TEST_P(ExtAudioFileWriterKindTest, AFailedWriteLeavesAPlayableFileOfWhatFit)
{
    constexpr rlim_t kLimit = 100'000;
    const AudioFileTypeID type = GetParam().type;
    const auto format = fileFormat(type);
    const auto writeInLimitedChild = [&] {
        const rlimit limit{kLimit, kLimit};
        setrlimit(RLIMIT_FSIZE, &limit);
        ExtAudioFileRef file = nullptr;
        if (ExtAudioFileCreateWithURL(mPath.c_str(), type, &format, nullptr, 0, &file) != noErr) {
            std::_Exit(1);
        }
        const OSStatus status = writeTones(file, 10 * Frame(kFileRate), kFileRate);
        const bool stays = writeTones(file, 100, kFileRate) == status;
        std::_Exit(status != EFBIG ? 2 : !stays ? 3 : ExtAudioFileDispose(file) != noErr ? 4 : 0);
    };
    EXPECT_EXIT(writeInLimitedChild(), testing::ExitedWithCode(0), "");

    const auto size = std::filesystem::file_size(mPath);
    EXPECT_LE(size, kLimit);
    Error error;
    const auto decoded = BRIXExtendedAudioFile::create(mPath, &error);
    ASSERT_TRUE(decoded) << error.description();
    if (type != kAudioFileM4AType) {
        // Every whole frame that reached the disk is kept.
        EXPECT_EQ(decoded->frameCount(), Frame(kLimit - GetParam().headerBytes) / 4);
        expectChunkSizes(mPath, type, decoded->frameCount());
        Frame wrong = 0;
        for (Frame i = 0; i < decoded->frameCount(); ++i) {
            wrong += decoded->channelData(1)[std::size_t(i)] != quantized(tone(1, i, kFileRate));
        }
        EXPECT_EQ(wrong, 0);
    } else {
        // At about 32 kB/s nearly 3 s fit beside the index.
        EXPECT_GT(decoded->duration(), 2.5);
        EXPECT_GT(fitTone(decoded->channelData(0), kFrequency[0], kFileRate).correlation, 0.99);
    }
}

INSTANTIATE_TEST_SUITE_P(Kinds, ExtAudioFileWriterKindTest, testing::ValuesIn(kKinds));

TEST(ExtAudioFileWriterTest, RefusesWhatItCannotWriteAndLeavesNoFile)
{
    test::TemporaryDirectory directory;
    const auto path = directory / "out.wav";
    const auto wave = fileFormat(kAudioFileWAVEType);
    ExtAudioFileRef file = nullptr;

    std::ofstream(path) << "keep";
    EXPECT_EQ(ExtAudioFileCreateWithURL(path.c_str(), kAudioFileWAVEType, &wave, nullptr, 0, &file),
              EEXIST);
    EXPECT_EQ(file, nullptr);
    EXPECT_EQ(std::filesystem::file_size(path), 4u);
    ASSERT_EQ(ExtAudioFileCreateWithURL(path.c_str(), kAudioFileWAVEType, &wave, nullptr,
                                        kAudioFileFlags_EraseFile, &file),
              noErr);
    EXPECT_EQ(ExtAudioFileDispose(file), noErr);
    EXPECT_EQ(std::filesystem::file_size(path), 44u);

    for (const auto& bad : {directory / "missing" / "out.wav", path / "out.wav"}) {
        SCOPED_TRACE(bad);
        EXPECT_NE(ExtAudioFileCreateWithURL(bad.c_str(), kAudioFileWAVEType, &wave, nullptr,
                                            kAudioFileFlags_EraseFile, &file),
                  noErr);
        EXPECT_EQ(file, nullptr);
    }

    auto littleAiff = fileFormat(kAudioFileWAVEType);
    auto bigWave = fileFormat(kAudioFileAIFFType);
    auto floatWave = wave;
    floatWave.mFormatFlags = kAudioFormatFlagIsFloat | kAudioFormatFlagIsPacked;
    floatWave.mBitsPerChannel = 32;
    auto wave24 = wave;
    wave24.mBitsPerChannel = 24;
    auto nineChannels = wave;
    nineChannels.mChannelsPerFrame = 9;
    auto aacOddRate = fileFormat(kAudioFileM4AType, 44101);
    struct Refusal {
        AudioFileTypeID type;
        AudioStreamBasicDescription format;
    };
    const Refusal refusals[] = {
        {kAudioFileAIFFType, littleAiff},   {kAudioFileWAVEType, bigWave},
        {kAudioFileWAVEType, floatWave},    {kAudioFileWAVEType, wave24},
        {kAudioFileWAVEType, nineChannels}, {kAudioFileWAVEType, fileFormat(kAudioFileM4AType)},
        {kAudioFileM4AType, wave},          {kAudioFileM4AType, aacOddRate},
        {fourCharCode("MPG3"), wave},
    };
    const auto fresh = directory / "fresh";
    for (const Refusal& refusal : refusals) {
        SCOPED_TRACE(testing::Message()
                     << std::hex << refusal.type << " " << refusal.format.mFormatFlags);
        EXPECT_NE(ExtAudioFileCreateWithURL(fresh.c_str(), refusal.type, &refusal.format, nullptr,
                                            kAudioFileFlags_EraseFile, &file),
                  noErr);
        EXPECT_EQ(file, nullptr);
        EXPECT_FALSE(std::filesystem::exists(fresh));
    }
}

TEST(ExtAudioFileWriterTest, ClientFormatsAndBuffersAreChecked)
{
    test::TemporaryDirectory directory;
    const auto path = directory / "mono.wav";
    const auto wave = fileFormat(kAudioFileWAVEType);
    ExtAudioFileRef file = nullptr;
    ASSERT_EQ(ExtAudioFileCreateWithURL(path.c_str(), kAudioFileWAVEType, &wave, nullptr, 0, &file),
              noErr);

    auto interleaved = makeFloatNonInterleavedFormat(kFileRate, 2);
    interleaved.mFormatFlags &= ~kAudioFormatFlagIsNonInterleaved;
    auto nine = makeFloatNonInterleavedFormat(kFileRate, 9);
    for (const auto& bad : {interleaved, nine, wave}) {
        EXPECT_NE(ExtAudioFileSetProperty(file, kExtAudioFileProperty_ClientDataFormat, sizeof(bad),
                                          &bad),
                  noErr);
    }
    const auto mono = makeFloatNonInterleavedFormat(kFileRate, 1);
    ASSERT_EQ(
        ExtAudioFileSetProperty(file, kExtAudioFileProperty_ClientDataFormat, sizeof(mono), &mono),
        noErr);
    AudioStreamBasicDescription readBack;
    UInt32 size = sizeof(readBack);
    ASSERT_EQ(
        ExtAudioFileGetProperty(file, kExtAudioFileProperty_ClientDataFormat, &size, &readBack),
        noErr);
    EXPECT_EQ(readBack, mono);
    ASSERT_EQ(ExtAudioFileGetProperty(file, kExtAudioFileProperty_FileDataFormat, &size, &readBack),
              noErr);
    EXPECT_EQ(readBack, wave);

    EXPECT_EQ(writeTones(file, 1000, kFileRate, 2), paramErr);
    ASSERT_EQ(writeTones(file, 44100, kFileRate, 1), noErr);
    EXPECT_EQ(
        ExtAudioFileSetProperty(file, kExtAudioFileProperty_ClientDataFormat, sizeof(mono), &mono),
        kExtAudioFileError_InvalidOperationOrder);
    ASSERT_EQ(ExtAudioFileDispose(file), noErr);

    // A mono client reaches both channels of the file alike.
    const auto decoded = BRIXExtendedAudioFile::create(path);
    ASSERT_TRUE(decoded);
    EXPECT_TRUE(std::ranges::equal(decoded->channelData(0), decoded->channelData(1)));
    EXPECT_GT(fitTone(decoded->channelData(1), kFrequency[0], kFileRate).correlation, 0.9999);
}

TEST(ExtAudioFileWriterTest, SixteenBitSamplesClipInsteadOfWrapping)
{
    test::TemporaryDirectory directory;
    const auto path = directory / "loud.aif";
    const auto aiff = fileFormat(kAudioFileAIFFType, kFileRate, 1);
    ExtAudioFileRef file = nullptr;
    ASSERT_EQ(ExtAudioFileCreateWithURL(path.c_str(), kAudioFileAIFFType, &aiff, nullptr, 0, &file),
              noErr);
    std::vector<float> loud = {1.5f, -1.5f, 1.0f, -1.0f, 0.99999f, 1e9f, -1e9f};
    AudioBufferList list;
    list.mNumberBuffers = 1;
    list.mBuffers[0] = AudioBuffer{1, UInt32(loud.size() * sizeof(float)), loud.data()};
    ASSERT_EQ(ExtAudioFileWrite(file, UInt32(loud.size()), &list), noErr);
    ASSERT_EQ(ExtAudioFileDispose(file), noErr);

    const auto decoded = BRIXExtendedAudioFile::create(path);
    ASSERT_TRUE(decoded);
    const float top = 32767.0f / 32768;
    EXPECT_TRUE(std::ranges::equal(decoded->channelData(0),
                                   std::vector<float>{top, -1, top, -1, top, top, -1}));
}

TEST(ExtAudioFileWriterTest, FormatInfoCompletesDescriptions)
{
    const auto aac = fileFormat(kAudioFileM4AType, 48000, 2);
    EXPECT_EQ(aac.mFramesPerPacket, 1024u);
    EXPECT_EQ(aac.mSampleRate, 48000);
    EXPECT_EQ(aac.mChannelsPerFrame, 2u);
    EXPECT_EQ(aac.mBytesPerPacket, 0u);
    const auto aiff = fileFormat(kAudioFileAIFFType, 44100, 3);
    EXPECT_EQ(aiff.mBytesPerFrame, 6u);
    EXPECT_EQ(aiff.mBytesPerPacket, 6u);
    EXPECT_EQ(aiff.mFramesPerPacket, 1u);

    auto planar = makeFloatNonInterleavedFormat(44100, 2);
    planar.mBytesPerFrame = 0;
    UInt32 size = sizeof(planar);
    ASSERT_EQ(AudioFormatGetProperty(kAudioFormatProperty_FormatInfo, 0, nullptr, &size, &planar),
              noErr);
    EXPECT_EQ(planar, makeFloatNonInterleavedFormat(44100, 2));

    size = sizeof(planar) - 1;
    EXPECT_EQ(AudioFormatGetProperty(kAudioFormatProperty_FormatInfo, 0, nullptr, &size, &planar),
              kAudioFormatBadPropertySizeError);
    size = sizeof(planar);
    planar.mFormatID = fourCharCode("????");
    EXPECT_EQ(AudioFormatGetProperty(kAudioFormatProperty_FormatInfo, 0, nullptr, &size, &planar),
              kAudioFormatUnsupportedDataFormatError);
}

} // namespace
} // namespace vell
