// The MP4 atom model: atoms that live in an open file and atoms built in memory to be written.
#pragma once

#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace vell {

using Bytes = std::vector<std::uint8_t>;

/// A four-character code from its four bytes ("moov").
constexpr std::uint32_t fourCharCode(const char (&code)[5]) noexcept
{
    return std::uint32_t(std::uint8_t(code[0])) << 24 | std::uint32_t(std::uint8_t(code[1])) << 16 |
           std::uint32_t(std::uint8_t(code[2])) << 8 | std::uint32_t(std::uint8_t(code[3]));
}

/// A four-character code from the first four bytes of a string (0 for a shorter one).
constexpr std::uint32_t fourCharCode(std::string_view code) noexcept
{
    return code.size() < 4 ? 0
                           : std::uint32_t(std::uint8_t(code[0])) << 24 |
                                 std::uint32_t(std::uint8_t(code[1])) << 16 |
                                 std::uint32_t(std::uint8_t(code[2])) << 8 |
                                 std::uint32_t(std::uint8_t(code[3]));
}

/// The offset the child walks answer when nothing is found.
inline constexpr std::uint64_t kMP4AtomNotFound = std::numeric_limits<std::uint64_t>::max();

class MP4FileAtom;
class MP4MemoryAtom;

/// An atom: a 32-bit size (header included), a four-character type and a payload. For type
/// `meta` the first 4 payload bytes are version and flags in a file. Thread: one at a time.
class MP4Atom {
public:
    virtual ~MP4Atom() = default;

    virtual std::uint32_t type() const = 0;
    /// The whole atom, header included; nothing when it cannot be read whole from its file.
    virtual std::optional<Bytes> data() const = 0;
    virtual std::uint32_t length() const = 0;
    virtual void setLength(std::uint32_t length) = 0;
    /// The file position of the atom's header (memory atoms have none: 0).
    virtual std::uint64_t offset() const { return 0; }
    virtual void setOffset(std::uint64_t) {}
    /// The payload bytes before the children; nothing when absent or unreadable.
    virtual std::optional<Bytes> childData() const = 0;
    virtual void setChildData(std::span<const std::uint8_t> data) = 0;

    /// "{(LENGTH),('TYPE')}".
    virtual std::string description() const;
    /// Appends a child; answers the bytes added (the base adds nothing).
    virtual std::uint32_t addChild(std::shared_ptr<MP4Atom> child);
    /// The first child of the type by walking the children's sizes.
    virtual std::shared_ptr<MP4Atom> childAtomWithType(std::uint32_t type) const;
    /// The first child of the type by searching the payload's bytes for the type.
    virtual std::shared_ptr<MP4Atom> findChildAtomWithType(std::uint32_t type) const;
    /// Replaces the first child of the type (or appends the atom when there is none); answers
    /// the signed size change as an unsigned 32-bit value.
    virtual std::uint32_t replaceChildAtomOfType(std::uint32_t type, std::shared_ptr<MP4Atom> atom);

    /// The first top-level atom of the type in the open file, or nothing.
    static std::shared_ptr<MP4FileAtom> fileAtomWithType(std::uint32_t type, int fileHandle);
    static std::shared_ptr<MP4MemoryAtom> memoryAtomWithType(std::uint32_t type,
                                                             std::optional<Bytes> childData);
};

/// An atom of an open file: every access reads or writes through the descriptor (not owned);
/// only the offset is kept. Lookups treat an atom that runs past the end of the file as absent;
/// editing keeps its designed assertions (see TagFileOperations.h).
class MP4FileAtom final : public MP4Atom {
public:
    MP4FileAtom(std::uint64_t offset, int fileHandle) : mFileHandle(fileHandle), mOffset(offset) {}

    /// initWithType:fileHandle: scans the top level from 0 to the end of the file.
    static std::shared_ptr<MP4FileAtom> create(std::uint32_t type, int fileHandle);
    /// An atom at a known offset (not checked).
    static std::shared_ptr<MP4FileAtom> fileAtomWithOffset(std::uint64_t offset, int fileHandle);

    std::uint32_t type() const override;
    std::optional<Bytes> data() const override;
    std::uint32_t length() const override;
    void setLength(std::uint32_t length) override;
    std::uint64_t offset() const override { return mOffset; }
    void setOffset(std::uint64_t offset) override { mOffset = offset; }
    std::optional<Bytes> childData() const override;
    void setChildData(std::span<const std::uint8_t> data) override;

    std::uint32_t addChild(std::shared_ptr<MP4Atom> child) override;
    std::shared_ptr<MP4Atom> childAtomWithType(std::uint32_t type) const override;
    std::shared_ptr<MP4Atom> findChildAtomWithType(std::uint32_t type) const override;
    std::uint32_t replaceChildAtomOfType(std::uint32_t type,
                                         std::shared_ptr<MP4Atom> atom) override;

    /// 4 big-endian bytes at an absolute offset; a short read is "bytes_read == 4".
    std::uint32_t readUIntAtOffset(std::uint64_t offset) const;
    /// Writes 4 big-endian bytes; a short write is "bytes_written == 4".
    void writeUInt(std::uint32_t value, std::uint64_t offset);

    /// The walk over sizes from start while below end: a zero size ends it as not found.
    std::uint64_t offsetOfChildAtom(std::uint32_t type, std::uint64_t start,
                                    std::uint64_t end) const;
    /// The byte search for the type's four bytes; answers the header's start (4 before).
    std::uint64_t findOffsetOfChildAtom(std::uint32_t type, std::uint64_t start,
                                        std::uint64_t end) const;
    /// Where the children start: 12 for `meta`, else 8.
    std::uint32_t childDataOffset() const;

private:
    /// The length when the whole atom lies inside the file, else nothing. Reads nothing that
    /// is not there.
    std::optional<std::uint32_t> lengthWithinFile() const;

    int mFileHandle;
    std::uint64_t mOffset;
};

/// An atom built in memory: type, optional child data and an ordered list of children. Its
/// length is computed; there is no special case for `meta`.
class MP4MemoryAtom final : public MP4Atom {
public:
    MP4MemoryAtom(std::uint32_t type, std::optional<Bytes> childData)
        : mType(type), mChildData(std::move(childData))
    {
    }

    std::uint32_t type() const override { return mType; }
    std::optional<Bytes> data() const override;
    std::uint32_t length() const override;
    void setLength(std::uint32_t) override {}
    std::optional<Bytes> childData() const override { return mChildData; }
    void setChildData(std::span<const std::uint8_t> data) override
    {
        mChildData = Bytes(data.begin(), data.end());
    }

    std::uint32_t addChild(std::shared_ptr<MP4Atom> child) override;
    std::shared_ptr<MP4Atom> childAtomWithType(std::uint32_t type) const override;
    std::uint32_t replaceChildAtomOfType(std::uint32_t type,
                                         std::shared_ptr<MP4Atom> atom) override;

    const std::vector<std::shared_ptr<MP4Atom>>& children() const { return mChildArray; }

private:
    std::uint32_t mType;
    std::optional<Bytes> mChildData;
    std::vector<std::shared_ptr<MP4Atom>> mChildArray;
};

/// Big-endian helpers over byte buffers.
inline std::uint32_t readBigEndian32(const std::uint8_t* p) noexcept
{
    return std::uint32_t(p[0]) << 24 | std::uint32_t(p[1]) << 16 | std::uint32_t(p[2]) << 8 |
           std::uint32_t(p[3]);
}
inline void writeBigEndian32(std::uint8_t* p, std::uint32_t value) noexcept
{
    p[0] = std::uint8_t(value >> 24);
    p[1] = std::uint8_t(value >> 16);
    p[2] = std::uint8_t(value >> 8);
    p[3] = std::uint8_t(value);
}

} // namespace vell
