// The ID3v2 tag: header check, frame search by identifier, and the byte readers.
#include "songtags/mp3/BRIXID3v2Tag.h"

#include "songtags/TagFileOperations.h"
#include "songtags/mp3/BRIXID3v2Frame.h"

#include <algorithm>

namespace vell {
namespace {

// Fixed failure tables: exact for identifiers without a repeated prefix.
constexpr std::array<std::int64_t, 3> kIdentifierTable = {-1, 0, 0};
constexpr std::array<std::int64_t, 4> kFrameTable = {-1, 0, 0, 0};

} // namespace

std::optional<std::uint8_t> ID3ByteReader::byteAt(std::uint64_t offset)
{
    if (offset < mStart || offset - mStart >= mWindow.size()) {
        mWindow.resize(kWindow);
        const ssize_t n = detail::readAt(mFileHandle, mWindow.data(), kWindow, offset);
        mWindow.resize(n > 0 ? std::size_t(n) : 0);
        mStart = offset;
        if (mWindow.empty()) {
            return std::nullopt;
        }
    }
    return mWindow[std::size_t(offset - mStart)];
}

std::shared_ptr<BRIXID3v2Tag> BRIXID3v2Tag::create(int fileHandle)
{
    std::shared_ptr<BRIXID3v2Tag> tag(new BRIXID3v2Tag(fileHandle));
    std::uint64_t offset = 0;
    if (!tag->getOffsetOfID3Identifier(&offset)) {
        return nullptr;
    }
    tag->mOffset = offset;
    return tag->readID3Header() ? tag : nullptr;
}

bool BRIXID3v2Tag::getOffsetOfID3Identifier(std::uint64_t* outOffset) const
{
    VELL_TAG_ASSERT(outOffset != nullptr, "outOffset");
    const std::uint64_t end =
        std::min(detail::fileSizeOf(mFileHandle).value_or(0), mOffset + 3);
    // Deliberate: only the first three bytes are searched; a tag further in is not looked for.
    const std::uint64_t found = kmpOffsetOfString(kBRIXID3TagIdentifier, mFileHandle, mOffset,
                                                  mOffset + 3, kIdentifierTable);
    if (found >= end) {
        return false;
    }
    *outOffset = found;
    return true;
}

bool BRIXID3v2Tag::readID3Header()
{
    for (std::size_t i = 0; i < mHeader.identifier.size(); ++i) {
        mHeader.identifier[i] = readUInt8FromFile(mFileHandle, mOffset + i);
    }
    mHeader.version = readUInt16FromFile(mFileHandle, mOffset + 3);
    mHeader.flags = readUInt8FromFile(mFileHandle, mOffset + 5);
    mHeader.size = readSynchsafeUInt32FromFile(mFileHandle, mOffset + 6);
    return mHeader.version == kID3Version2_3 || mHeader.version == kID3Version2_4;
}

std::optional<std::uint64_t> BRIXID3v2Tag::offsetOfFrame(const ID3v2FrameIdentifier& id) const
{
    const std::uint64_t end =
        std::min(detail::fileSizeOf(mFileHandle).value_or(0), frameDataEndOffset());
    // The search runs over raw tag bytes: an identifier inside an earlier frame's content is
    // taken for a frame.
    const std::uint64_t found = kmpOffsetOfString(id, mFileHandle, frameDataStartOffset(),
                                                  frameDataEndOffset(), kFrameTable);
    return found < end ? std::optional(found) : std::nullopt;
}

std::shared_ptr<BRIXID3v2TextFrame>
BRIXID3v2Tag::textFrameWithIdentifier(const ID3v2FrameIdentifier& id) const
{
    const auto offset = offsetOfFrame(id);
    return offset ? BRIXID3v2TextFrame::create(shared_from_this(), *offset) : nullptr;
}

std::shared_ptr<BRIXID3v2PictureFrame>
BRIXID3v2Tag::pictureFrameWithIdentifier(const ID3v2FrameIdentifier& id) const
{
    const auto offset = offsetOfFrame(id);
    return offset ? BRIXID3v2PictureFrame::create(shared_from_this(), *offset) : nullptr;
}

bool BRIXID3v2Tag::readData(std::vector<std::uint8_t>& outData, std::uint64_t length,
                            int fileHandle, std::uint64_t offset)
{
    // A declared length is checked against the bytes there before anything is allocated.
    const std::uint64_t size = detail::fileSizeOf(fileHandle).value_or(0);
    if (length == 0) {
        outData.clear();
        return true;
    }
    if (offset > size || length > size - offset) {
        return false;
    }
    outData.resize(std::size_t(length));
    return detail::readAt(fileHandle, outData.data(), outData.size(), offset) == ssize_t(length);
}

std::uint8_t BRIXID3v2Tag::readUInt8FromFile(int fileHandle, std::uint64_t offset)
{
    std::uint8_t byte = 0;
    return detail::readAt(fileHandle, &byte, 1, offset) == 1 ? byte : 0;
}

std::uint16_t BRIXID3v2Tag::readUInt16FromFile(int fileHandle, std::uint64_t offset)
{
    std::array<std::uint8_t, 2> bytes{};
    if (detail::readAt(fileHandle, bytes.data(), bytes.size(), offset) != 2) {
        return 0;
    }
    return std::uint16_t(bytes[0] << 8 | bytes[1]);
}

std::uint32_t BRIXID3v2Tag::readUInt32FromFile(int fileHandle, std::uint64_t offset)
{
    std::array<std::uint8_t, 4> bytes{};
    if (detail::readAt(fileHandle, bytes.data(), bytes.size(), offset) != 4) {
        return 0;
    }
    return std::uint32_t(bytes[0]) << 24 | std::uint32_t(bytes[1]) << 16 |
           std::uint32_t(bytes[2]) << 8 | bytes[3];
}

std::uint32_t BRIXID3v2Tag::readSynchsafeUInt32FromFile(int fileHandle, std::uint64_t offset)
{
    const std::uint32_t raw = readUInt32FromFile(fileHandle, offset);
    return (raw >> 24 & 0x7F) << 21 | (raw >> 16 & 0x7F) << 14 | (raw >> 8 & 0x7F) << 7 |
           (raw & 0x7F);
}

detail::TextEncoding BRIXID3v2Tag::stringEncodingForID3v2Encoding(std::uint8_t encoding) noexcept
{
    switch (encoding) {
    case kID3v2ISO8859_1Encoding:
        return detail::TextEncoding::Latin1;
    case kID3v2UTF16Encoding:
        // No byte-order-mark detection: a mark stays in the text as U+FEFF.
        return detail::TextEncoding::UTF16LittleEndian;
    case kID3v2UTF16BEEncoding:
        return detail::TextEncoding::UTF16BigEndian;
    default:
        return detail::TextEncoding::UTF8;
    }
}

std::optional<std::uint64_t>
BRIXID3v2Tag::getLengthOfNullTerminatedString(int fileHandle, std::uint64_t offset,
                                              detail::TextEncoding encoding)
{
    const std::uint64_t size = detail::fileSizeOf(fileHandle).value_or(0);
    if (offset >= size) {
        return std::nullopt;
    }
    // Deliberate: only UTF-16 big-endian has a 2-byte terminator; UTF-16 little-endian (ID3
    // encoding 1) ends at its first zero byte. The scan steps by one byte either way.
    const std::uint64_t width = encoding == detail::TextEncoding::UTF16BigEndian ? 2 : 1;
    ID3ByteReader reader(fileHandle);
    for (std::uint64_t pos = offset; pos + width <= size; ++pos) {
        bool zero = true;
        for (std::uint64_t k = 0; k < width && zero; ++k) {
            const auto byte = reader.byteAt(pos + k);
            zero = byte && *byte == 0;
        }
        if (zero) {
            return pos - offset;
        }
    }
    return std::nullopt;
}

std::uint64_t BRIXID3v2Tag::kmpOffsetOfString(std::span<const std::uint8_t> pattern,
                                              int fileHandle, std::uint64_t from,
                                              std::uint64_t to, std::span<const std::int64_t> table)
{
    const std::uint64_t end = std::min(detail::fileSizeOf(fileHandle).value_or(0), to);
    if (pattern.empty()) {
        return std::min(from, end);
    }
    ID3ByteReader reader(fileHandle);
    std::uint64_t m = from;
    std::size_t i = 0;
    for (;;) {
        if (m + i >= end) {
            return end;
        }
        if (reader.byteAt(m + i).value_or(0) == pattern[i]) {
            if (++i == pattern.size()) {
                return m;
            }
            continue;
        }
        VELL_TAG_ASSERT(i < table.size(), "i < T_length");
        const std::int64_t shift = table[i];
        m = shift >= 0 ? m + i - std::uint64_t(shift) : m + i + std::uint64_t(-shift);
        i = shift >= 0 ? std::size_t(shift) : 0;
    }
}

} // namespace vell
