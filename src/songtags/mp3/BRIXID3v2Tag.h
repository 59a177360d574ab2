// A read-only ID3v2.3/2.4 tag at the start of an open file, and its class-level byte readers.
#pragma once

#include "songtags/TextDecoding.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <vector>

namespace vell {

class BRIXID3v2TextFrame;
class BRIXID3v2PictureFrame;

inline constexpr std::array<std::uint8_t, 3> kBRIXID3TagIdentifier = {'I', 'D', '3'};
inline constexpr std::uint16_t kID3Version2_3 = 0x0300;
inline constexpr std::uint16_t kID3Version2_4 = 0x0400;
inline constexpr std::uint8_t kID3v2ISO8859_1Encoding = 0;
inline constexpr std::uint8_t kID3v2UTF16Encoding = 1;
inline constexpr std::uint8_t kID3v2UTF16BEEncoding = 2;
inline constexpr std::uint8_t kID3v2UTF8Encoding = 3;

/// A frame identifier: four bytes.
using ID3v2FrameIdentifier = std::array<std::uint8_t, 4>;

/// A tag found at offset 0 of a file: a 10-byte header (version 2.3 or 2.4, revision 0) and
/// frames found by searching the tag's bytes for their identifiers. The descriptor is not
/// owned. Extended headers, footers and unsynchronisation are not handled. Thread: one at a time.
class BRIXID3v2Tag : public std::enable_shared_from_this<BRIXID3v2Tag> {
public:
    struct Header {
        std::array<std::uint8_t, 3> identifier{};
        std::uint16_t version = 0;
        std::uint8_t flags = 0;
        std::uint32_t size = 0;
    };

    /// initWithFileHandle:, nothing unless the identifier is at the start and the header reads.
    static std::shared_ptr<BRIXID3v2Tag> create(int fileHandle);

    int fileHandle() const noexcept { return mFileHandle; }
    std::uint16_t version() const noexcept { return mHeader.version; }
    const Header& header() const noexcept { return mHeader; }
    std::uint64_t offset() const noexcept { return mOffset; }
    std::uint64_t frameDataStartOffset() const noexcept { return mOffset + 10; }
    std::uint64_t frameDataEndOffset() const noexcept { return mOffset + mHeader.size + 10; }

    /// Searches for "ID3" from the tag's offset to 3 bytes past it; outOffset must not be null
    /// (assertion "outOffset").
    bool getOffsetOfID3Identifier(std::uint64_t* outOffset) const;
    /// Reads version, flags and size; true only for versions 0x0300 and 0x0400.
    bool readID3Header();

    std::shared_ptr<BRIXID3v2TextFrame> textFrameWithIdentifier(const ID3v2FrameIdentifier& id) const;
    std::shared_ptr<BRIXID3v2PictureFrame>
    pictureFrameWithIdentifier(const ID3v2FrameIdentifier& id) const;

    // Class-level readers over a descriptor and an absolute offset.
    /// True only when exactly length bytes were read.
    static bool readData(std::vector<std::uint8_t>& outData, std::uint64_t length, int fileHandle,
                         std::uint64_t offset);
    /// Big-endian; 0 where the read fails.
    static std::uint8_t readUInt8FromFile(int fileHandle, std::uint64_t offset);
    static std::uint16_t readUInt16FromFile(int fileHandle, std::uint64_t offset);
    static std::uint32_t readUInt32FromFile(int fileHandle, std::uint64_t offset);
    /// Four 7-bit groups, most significant first, the top bit of each byte masked off.
    static std::uint32_t readSynchsafeUInt32FromFile(int fileHandle, std::uint64_t offset);
    /// The bytes before the first terminator (2 zero bytes for UTF-16 big-endian, else 1),
    /// stepping one byte at a time; nothing when the offset is at or past the end of the file
    /// or no terminator comes before it.
    static std::optional<std::uint64_t>
    getLengthOfNullTerminatedString(int fileHandle, std::uint64_t offset,
                                    detail::TextEncoding encoding);
    static detail::TextEncoding stringEncodingForID3v2Encoding(std::uint8_t encoding) noexcept;
    /// The Knuth-Morris-Pratt scan of the bytes in [from, min(file size, to)) for the pattern
    /// with the given failure table; answers the match's start or the end when none.
    static std::uint64_t kmpOffsetOfString(std::span<const std::uint8_t> pattern, int fileHandle,
                                           std::uint64_t from, std::uint64_t to,
                                           std::span<const std::int64_t> table);

private:
    explicit BRIXID3v2Tag(int fileHandle) : mFileHandle(fileHandle) {}
    /// The offset of the first frame with the identifier, or nothing.
    std::optional<std::uint64_t> offsetOfFrame(const ID3v2FrameIdentifier& id) const;

    std::uint64_t mOffset = 0;
    Header mHeader;
    int mFileHandle;
};

/// Reads single bytes of a file through a window, so byte-by-byte scans make one system call
/// per window rather than per byte. The answers are those of one positioned read per byte.
class ID3ByteReader {
public:
    explicit ID3ByteReader(int fileHandle) : mFileHandle(fileHandle) {}
    std::optional<std::uint8_t> byteAt(std::uint64_t offset);

private:
    static constexpr std::size_t kWindow = 64 * 1024;
    int mFileHandle;
    std::vector<std::uint8_t> mWindow;
    std::uint64_t mStart = 0;
};

} // namespace vell

namespace vell {

// The frames MP3Tags reads.
inline constexpr ID3v2FrameIdentifier kBRIXID3v2TitleFrameIdentifier = {'T', 'I', 'T', '2'};
inline constexpr ID3v2FrameIdentifier kBRIXID3v2ArtistFrameIdentifier = {'T', 'P', 'E', '1'};
inline constexpr ID3v2FrameIdentifier kBRIXID3v2AlbumFrameIdentifier = {'T', 'A', 'L', 'B'};
inline constexpr ID3v2FrameIdentifier kBRIXID3v2LyricsFrameIdentifier = {'U', 'S', 'L', 'T'};
inline constexpr ID3v2FrameIdentifier kBRIXID3v2CommentFrameIdentifier = {'C', 'O', 'M', 'M'};
inline constexpr ID3v2FrameIdentifier kBRIXID3v2ReleaseDateIdentifier = {'T', 'D', 'O', 'R'};
inline constexpr ID3v2FrameIdentifier kBRIXID3v2ArtworkFrameIdentifier = {'A', 'P', 'I', 'C'};

} // namespace vell
