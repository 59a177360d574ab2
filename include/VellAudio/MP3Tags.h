// Song metadata of an MP3 file, read once from the ID3v2.3/2.4 tag at its start.
#pragma once

#include "VellAudio/SongTags.h"

#include <memory>
#include <optional>
#include <string>

namespace vell {

class BRIXID3v2Tag;

/// The MP3 side of SongTags. Read-only with respect to the file: setters change only the
/// values in memory. Text frames are decoded as UTF-8 whatever their declared encoding.
/// Thread: one thread at a time.
class MP3Tags final : public SongTags {
public:
    /// Opens with the low 16 bits of openFlags; nothing when the open fails or the file has no
    /// ID3v2.3 or 2.4 tag at its very start.
    static std::unique_ptr<MP3Tags> create(const std::filesystem::path& path, int openFlags = 0);
    ~MP3Tags() override;
    MP3Tags(const MP3Tags&) = delete;
    MP3Tags& operator=(const MP3Tags&) = delete;

    std::optional<std::string> title() const override { return mTitle; }
    std::optional<std::string> artist() const override { return mArtist; }
    std::optional<std::string> album() const override { return mAlbum; }
    std::optional<std::string> lyrics() const override { return mLyrics; }
    std::optional<std::string> comment() const override { return mComment; }
    std::optional<std::string> releaseDate() const override { return mReleaseDate; }
    std::optional<VellImage> coverArt() const override { return mCoverArt; }

    void setTitle(std::optional<std::string> title) override { mTitle = std::move(title); }
    void setArtist(std::optional<std::string> artist) override { mArtist = std::move(artist); }
    void setAlbum(std::optional<std::string> album) override { mAlbum = std::move(album); }
    void setLyrics(std::optional<std::string> lyrics) override { mLyrics = std::move(lyrics); }
    void setComment(std::optional<std::string> comment) override { mComment = std::move(comment); }
    void setReleaseDate(std::optional<std::string> date) override { mReleaseDate = std::move(date); }
    void setCoverArt(std::optional<VellImage> art) override { mCoverArt = std::move(art); }

    const std::shared_ptr<BRIXID3v2Tag>& tag() const noexcept { return mTag; }
    /// "<MP3Tags: title: T, artist: A, album: B, comment: C, >" (present fields only).
    std::string description() const;

private:
    explicit MP3Tags(int fileHandle) : mFileHandle(fileHandle) {}

    int mFileHandle = -1;
    std::optional<std::string> mTitle;
    std::optional<std::string> mArtist;
    std::optional<std::string> mAlbum;
    std::optional<std::string> mLyrics;
    std::optional<std::string> mComment;
    std::optional<std::string> mReleaseDate;
    std::optional<VellImage> mCoverArt;
    std::shared_ptr<BRIXID3v2Tag> mTag;
};

} // namespace vell
