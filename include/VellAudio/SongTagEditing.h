// Safe editing of an MP4 file's song tags, FFmpeg's reading of any file's metadata, copying
// tags into an exported M4A, and writing cover images.
#pragma once

#include "VellAudio/Error.h"
#include "VellAudio/VellImage.h"

#include <filesystem>
#include <optional>
#include <string>

namespace vell {

/// The fields to write; unset fields are left as they are.
struct SongTagChanges {
    std::optional<std::string> title;
    std::optional<std::string> artist;
    std::optional<std::string> album;
    std::optional<std::string> lyrics;
    std::optional<std::string> comment;
    std::optional<std::string> releaseDate;
    std::optional<VellImage> coverArt;

    bool empty() const noexcept
    {
        return !title && !artist && !album && !lyrics && !comment && !releaseDate && !coverArt;
    }
};

/// Writes the changes into an MP4/M4A file without ever editing the file where it lies: the
/// file is copied to a temporary file beside it, the copy is edited in place with MP4Tags,
/// then checked by an independent parse (the structure is sound, the new values read back,
/// every chunk of every track holds the same bytes as before, everything else is unchanged),
/// flushed to disk and renamed over the original. When anything fails the original is
/// untouched, the copy is removed, and the error's failure reason says why (for example
/// 64-bit chunk offsets, several tracks, a fragmented file, a full disk).
/// Thread: any; one edit per thread at a time.
bool editMP4SongTagsSafely(const std::filesystem::path& path, const SongTagChanges& changes,
                           Error* outError = nullptr);

/// Metadata as FFmpeg reads it from any container it knows (FLAC, Ogg, Opus, WMA, every ID3v2
/// version and text encoding, MP4...).
struct ContainerSongTags {
    std::optional<std::string> title;
    std::optional<std::string> artist;
    std::optional<std::string> album;
    std::optional<std::string> lyrics;
    std::optional<std::string> comment;
    std::optional<std::string> releaseDate;
    /// The first attached picture, when it decodes.
    std::optional<VellImage> coverArt;
};

/// Reads the file's metadata with FFmpeg (local files of audio formats only); nothing with an
/// error when FFmpeg cannot open the file.
std::optional<ContainerSongTags> readContainerSongTags(const std::filesystem::path& path,
                                                       Error* outError = nullptr);

/// For the export path: copies title, artist, album and cover art of the source file (its song
/// tags, else FFmpeg's reading) into a freshly written M4A with editMP4SongTagsSafely. A source
/// without any of them changes nothing and succeeds.
bool copySongTags(const std::filesystem::path& source, const std::filesystem::path& writtenM4A,
                  Error* outError = nullptr);

/// Writes the image as PNG or JPEG by the path's extension (.png, .jpg, .jpeg, any case); the
/// source bytes are written as they are when they already have that format. Replaces the file
/// atomically.
bool writeCoverImage(const VellImage& image, const std::filesystem::path& path,
                     Error* outError = nullptr);

} // namespace vell
