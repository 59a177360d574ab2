// FFmpeg's reading of a file's metadata, for formats and encodings the song-tag readers leave.
#include "VellAudio/SongTagEditing.h"

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
}

#include <initializer_list>
#include <memory>
#include <string_view>

namespace vell {
namespace {

/// Demuxers of audio files that carry metadata; nothing that opens other files or the network.
constexpr const char* kFormatWhitelist =
    "aac,aiff,ape,asf,caf,dsf,flac,matroska,mov,mp3,mpc,mpc8,ogg,tak,tta,w64,wav,wv";

std::optional<std::string> firstValue(AVDictionary* primary, AVDictionary* secondary,
                                      std::initializer_list<const char*> keys)
{
    for (const char* key : keys) {
        for (AVDictionary* dictionary : {primary, secondary}) {
            // A key ending in '-' stands for any language variant ("lyrics-eng").
            const std::string_view name(key);
            const int flags = !name.empty() && name.back() == '-' ? AV_DICT_IGNORE_SUFFIX : 0;
            const AVDictionaryEntry* entry =
                dictionary ? av_dict_get(dictionary, key, nullptr, flags) : nullptr;
            if (entry && entry->value && *entry->value) {
                return std::string(entry->value);
            }
        }
    }
    return std::nullopt;
}

struct FormatContextCloser {
    void operator()(AVFormatContext* context) const { avformat_close_input(&context); }
};

} // namespace

std::optional<ContainerSongTags> readContainerSongTags(const std::filesystem::path& path,
                                                       Error* outError)
{
    AVDictionary* options = nullptr;
    av_dict_set(&options, "protocol_whitelist", "file", 0);
    AVFormatContext* raw = avformat_alloc_context();
    if (!raw) {
        av_dict_free(&options);
        assignError(outError, makeUserError("The file's tags could not be read.",
                                            "Out of memory."));
        return std::nullopt;
    }
    raw->format_whitelist = av_strdup(kFormatWhitelist);
    const int status = avformat_open_input(&raw, path.c_str(), nullptr, &options);
    av_dict_free(&options);
    if (status < 0) {
        assignError(outError, makeUserError("The file's tags could not be read.",
                                            "FFmpeg cannot read the file."));
        return std::nullopt;
    }
    const std::unique_ptr<AVFormatContext, FormatContextCloser> context(raw);

    AVDictionary* streamTags = nullptr;
    ContainerSongTags tags;
    for (unsigned i = 0; i < context->nb_streams; ++i) {
        const AVStream* stream = context->streams[i];
        if (stream->disposition & AV_DISPOSITION_ATTACHED_PIC) {
            if (!tags.coverArt && stream->attached_pic.data && stream->attached_pic.size > 0) {
                tags.coverArt = VellImage::imageWithData(std::span<const std::uint8_t>(
                    stream->attached_pic.data, std::size_t(stream->attached_pic.size)));
            }
        } else if (!streamTags && stream->codecpar->codec_type == AVMEDIA_TYPE_AUDIO) {
            streamTags = stream->metadata; // Ogg and Opus keep their comments here
        }
    }
    AVDictionary* formatTags = context->metadata;
    tags.title = firstValue(formatTags, streamTags, {"title"});
    tags.artist = firstValue(formatTags, streamTags, {"artist"});
    tags.album = firstValue(formatTags, streamTags, {"album"});
    tags.lyrics = firstValue(formatTags, streamTags, {"lyrics", "lyrics-", "unsyncedlyrics"});
    tags.comment = firstValue(formatTags, streamTags, {"comment", "comment-", "description"});
    tags.releaseDate =
        firstValue(formatTags, streamTags, {"date", "TDOR", "originaldate", "TDRC", "year"});
    return tags;
}

} // namespace vell
