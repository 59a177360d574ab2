// Song metadata of MP3 files, read once from the ID3v2 tag and kept in memory.
#include "VellAudio/MP3Tags.h"

#include "songtags/TagFileOperations.h"
#include "songtags/mp3/BRIXID3v2Frame.h"
#include "songtags/mp3/BRIXID3v2Tag.h"

#include <fcntl.h>

namespace vell {

std::unique_ptr<MP3Tags> MP3Tags::create(const std::filesystem::path& path, int openFlags)
{
    const int fileHandle =
        detail::tagFileOperations().open(path.c_str(), (openFlags & 0xFFFF) | O_CLOEXEC, 0);
    if (fileHandle < 0) {
        return nullptr;
    }
    std::unique_ptr<MP3Tags> tags(new MP3Tags(fileHandle));
    tags->mTag = BRIXID3v2Tag::create(fileHandle);
    if (!tags->mTag) {
        return nullptr;
    }
    const auto text = [&](const ID3v2FrameIdentifier& id) -> std::optional<std::string> {
        const auto frame = tags->mTag->textFrameWithIdentifier(id);
        return frame ? std::optional(frame->text()) : std::nullopt;
    };
    // Lyrics and comments go through the text reader too: language and descriptor stay in.
    tags->mTitle = text(kBRIXID3v2TitleFrameIdentifier);
    tags->mArtist = text(kBRIXID3v2ArtistFrameIdentifier);
    tags->mAlbum = text(kBRIXID3v2AlbumFrameIdentifier);
    tags->mLyrics = text(kBRIXID3v2LyricsFrameIdentifier);
    tags->mComment = text(kBRIXID3v2CommentFrameIdentifier);
    tags->mReleaseDate = text(kBRIXID3v2ReleaseDateIdentifier);
    if (const auto picture = tags->mTag->pictureFrameWithIdentifier(kBRIXID3v2ArtworkFrameIdentifier)) {
        tags->mCoverArt = picture->image();
    }
    return tags;
}

MP3Tags::~MP3Tags()
{
    if (mFileHandle >= 0) {
        detail::tagFileOperations().close(mFileHandle);
    }
}

std::string MP3Tags::description() const
{
    std::string text = "<MP3Tags: ";
    const std::pair<const char*, const std::optional<std::string>*> fields[] = {
        {"title", &mTitle}, {"artist", &mArtist}, {"album", &mAlbum}, {"comment", &mComment}};
    for (const auto& [name, value] : fields) {
        if (*value) {
            text += std::string(name) + ": " + **value + ", ";
        }
    }
    return text + ">";
}

} // namespace vell
