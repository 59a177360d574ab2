// The decoder's lists of FFmpeg demuxers and decoders hold only names this FFmpeg has, and
// reach the formats no test file can be made of here.
#include "audio/file/AudioFileDecoder.h"

#include <gtest/gtest.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/avstring.h>
}

#include <string>
#include <string_view>
#include <vector>

namespace vell::detail {
namespace {

std::vector<std::string> namesIn(std::string_view list)
{
    std::vector<std::string> names;
    while (!list.empty()) {
        const auto comma = list.find(',');
        names.emplace_back(list.substr(0, comma));
        list.remove_prefix(comma == std::string_view::npos ? list.size() : comma + 1);
    }
    return names;
}

TEST(AudioFileDecoderTest, EveryListedNameIsADemuxerOrAudioDecoderOfThisFFmpeg)
{
    for (const char* list :
         {AudioFileDecoder::acceptedFormats(), AudioFileDecoder::formatsWithoutAudio()}) {
        for (const auto& name : namesIn(list)) {
            EXPECT_NE(av_find_input_format(name.c_str()), nullptr) << name;
        }
    }
    for (const auto& name : namesIn(AudioFileDecoder::acceptedCodecs())) {
        const AVCodec* decoder = avcodec_find_decoder_by_name(name.c_str());
        EXPECT_TRUE(decoder && decoder->type == AVMEDIA_TYPE_AUDIO) << name;
    }
}

TEST(AudioFileDecoderTest, FormatsWithoutTestFilesAreReadWithTheDecoderFFmpegPicks)
{
    for (const char* format : {"ape", "tak", "shn", "mpc", "mpc8", "dsf", "iff", "oma", "aea",
                               "amr", "vqf", "rm", "libopenmpt", "libgme"}) {
        EXPECT_GT(av_match_list(format, AudioFileDecoder::acceptedFormats(), ','), 0) << format;
    }
    // The decoder is looked up by codec, so the list must hold the one FFmpeg finds first.
    for (const AVCodecID codec : {AV_CODEC_ID_APE,
                                  AV_CODEC_ID_TAK,
                                  AV_CODEC_ID_SHORTEN,
                                  AV_CODEC_ID_MUSEPACK7,
                                  AV_CODEC_ID_MUSEPACK8,
                                  AV_CODEC_ID_DSD_LSBF,
                                  AV_CODEC_ID_DSD_MSBF,
                                  AV_CODEC_ID_DSD_LSBF_PLANAR,
                                  AV_CODEC_ID_DSD_MSBF_PLANAR,
                                  AV_CODEC_ID_DST,
                                  AV_CODEC_ID_WMAPRO,
                                  AV_CODEC_ID_WMALOSSLESS,
                                  AV_CODEC_ID_AMR_NB,
                                  AV_CODEC_ID_AMR_WB,
                                  AV_CODEC_ID_ATRAC1,
                                  AV_CODEC_ID_ATRAC3,
                                  AV_CODEC_ID_ATRAC3P,
                                  AV_CODEC_ID_MP4ALS,
                                  AV_CODEC_ID_COOK,
                                  AV_CODEC_ID_TWINVQ,
                                  AV_CODEC_ID_MP3,
                                  AV_CODEC_ID_VORBIS,
                                  AV_CODEC_ID_SPEEX,
                                  AV_CODEC_ID_GSM,
                                  AV_CODEC_ID_PCM_F32LE,
                                  AV_CODEC_ID_PCM_S16LE}) {
        const AVCodec* decoder = avcodec_find_decoder(codec);
        ASSERT_NE(decoder, nullptr) << avcodec_get_name(codec);
        EXPECT_GT(av_match_list(decoder->name, AudioFileDecoder::acceptedCodecs(), ','), 0)
            << decoder->name;
    }
}

} // namespace
} // namespace vell::detail
