// Song metadata of an audio file: the SongTags interface and the entry point for any file.
#pragma once

#include "VellAudio/VellImage.h"

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

namespace vell {

/// A song's metadata: title, artist, album, lyrics, comment, release date and cover art.
/// Implemented by MP4Tags (reads and writes the file) and MP3Tags (reads the file once; its
/// setters change only the values in memory). Thread: one thread at a time.
class SongTags {
public:
    virtual ~SongTags() = default;

    virtual std::optional<std::string> title() const = 0;
    virtual std::optional<std::string> artist() const = 0;
    virtual std::optional<std::string> album() const = 0;
    virtual std::optional<std::string> lyrics() const = 0;
    virtual std::optional<std::string> comment() const = 0;
    /// The text as stored; no date parsing.
    virtual std::optional<std::string> releaseDate() const = 0;
    virtual std::optional<VellImage> coverArt() const = 0;

    virtual void setTitle(std::optional<std::string> title) = 0;
    virtual void setArtist(std::optional<std::string> artist) = 0;
    virtual void setAlbum(std::optional<std::string> album) = 0;
    virtual void setLyrics(std::optional<std::string> lyrics) = 0;
    virtual void setComment(std::optional<std::string> comment) = 0;
    virtual void setReleaseDate(std::optional<std::string> releaseDate) = 0;
    virtual void setCoverArt(std::optional<VellImage> coverArt) = 0;
};

/// Picks the reader for a file by its extension alone (any case): "mp4" and "m4a" give an
/// MP4Tags opened read-only, "mp3" an MP3Tags; anything else, or a file that cannot be opened
/// (or an MP3 without an ID3v2.3/2.4 tag at its start), gives nothing. The objects are for
/// reading: setting a field of the MP4 object stops the process, as its file is read-only.
struct AudioFileSongTags {
    static std::unique_ptr<SongTags> forAudioFile(const std::filesystem::path& path);
};

} // namespace vell
