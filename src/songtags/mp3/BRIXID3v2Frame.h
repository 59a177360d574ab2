// Frames of an ID3v2 tag: the 10-byte header, text frames and attached-picture frames.
#pragma once

#include "VellAudio/VellImage.h"
#include "songtags/mp3/BRIXID3v2Tag.h"

#include <memory>
#include <optional>
#include <string>

namespace vell {

/// A frame header: identifier, size (synchsafe in version 2.4 tags only) and flags.
class BRIXID3v2Frame {
public:
    struct Header {
        ID3v2FrameIdentifier identifier{};
        std::uint32_t size = 0;
        std::uint16_t flags = 0;
    };

    virtual ~BRIXID3v2Frame() = default;
    /// initWithTag:offset:, nothing unless the 4 identifier bytes could be read.
    static std::shared_ptr<BRIXID3v2Frame> create(const std::shared_ptr<const BRIXID3v2Tag>& tag,
                                                  std::uint64_t offset);

    std::uint64_t offset() const noexcept { return mOffset; }
    std::uint32_t size() const noexcept { return mHeader.size; }
    std::uint64_t dataOffset() const noexcept { return mOffset + 10; }
    const Header& header() const noexcept { return mHeader; }
    std::shared_ptr<const BRIXID3v2Tag> tag() const { return mTag.lock(); }

protected:
    BRIXID3v2Frame(const std::shared_ptr<const BRIXID3v2Tag>& tag, std::uint64_t offset)
        : mOffset(offset), mTag(tag)
    {
    }
    bool readHeader();
    int fileHandle() const;

    std::uint64_t mOffset;
    Header mHeader;
    std::weak_ptr<const BRIXID3v2Tag> mTag;
};

/// A text frame: the bytes after the encoding byte, decoded and trimmed of NULs at both ends.
class BRIXID3v2TextFrame final : public BRIXID3v2Frame {
public:
    static std::shared_ptr<BRIXID3v2TextFrame>
    create(const std::shared_ptr<const BRIXID3v2Tag>& tag, std::uint64_t offset);
    const std::string& text() const noexcept { return mText; }

private:
    using BRIXID3v2Frame::BRIXID3v2Frame;
    bool readBody();

    std::uint8_t mEncoding = 0;
    std::string mText;
};

/// An attached-picture frame: encoding, MIME type, picture type, description and picture.
class BRIXID3v2PictureFrame final : public BRIXID3v2Frame {
public:
    static std::shared_ptr<BRIXID3v2PictureFrame>
    create(const std::shared_ptr<const BRIXID3v2Tag>& tag, std::uint64_t offset);
    const VellImage& image() const noexcept { return *mImage; }
    const std::string& MIMEType() const noexcept { return mMIMETypeString; }
    const std::string& pictureDescription() const noexcept { return mDescriptionString; }
    std::uint8_t pictureType() const noexcept { return mPictureType; }

private:
    using BRIXID3v2Frame::BRIXID3v2Frame;
    bool readBody();

    std::uint8_t mEncoding = 0;
    std::string mMIMETypeString;
    std::string mDescriptionString;
    std::uint8_t mPictureType = 0;
    std::optional<VellImage> mImage;
};

} // namespace vell
