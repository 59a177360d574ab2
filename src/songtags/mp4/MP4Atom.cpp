// The atom model: file atoms read and write through the descriptor, memory atoms hold bytes.
#include "songtags/mp4/MP4Atom.h"

#include "songtags/TagFileOperations.h"
#include "songtags/mp4/FileInsertion.h"
#include "support/Format.h"

#include <algorithm>
#include <array>

namespace vell {

using detail::readAt;
using detail::writeAt;

namespace {

constexpr std::uint32_t kMetaType = fourCharCode("meta");
/// How much of the file the byte search reads at once.
constexpr std::size_t kSearchWindow = 64 * 1024;

/// The type's four bytes as text, each byte taken as a Latin-1 character.
std::string typeText(std::uint32_t type)
{
    std::string text;
    for (int shift = 24; shift >= 0; shift -= 8) {
        const auto byte = std::uint8_t(type >> shift);
        if (byte < 0x80) {
            text += char(byte);
        } else {
            text += char(0xC0 | byte >> 6);
            text += char(0x80 | (byte & 0x3F));
        }
    }
    return text;
}

} // namespace

// MP4Atom ---------------------------------------------------------------------------------------

std::string MP4Atom::description() const
{
    return format("{(%d),('%s')}", static_cast<int>(length()), typeText(type()).c_str());
}

std::uint32_t MP4Atom::addChild(std::shared_ptr<MP4Atom>)
{
    return 0;
}

std::shared_ptr<MP4Atom> MP4Atom::childAtomWithType(std::uint32_t) const
{
    return nullptr;
}

std::shared_ptr<MP4Atom> MP4Atom::findChildAtomWithType(std::uint32_t) const
{
    return nullptr;
}

std::uint32_t MP4Atom::replaceChildAtomOfType(std::uint32_t, std::shared_ptr<MP4Atom>)
{
    return 0;
}

std::shared_ptr<MP4FileAtom> MP4Atom::fileAtomWithType(std::uint32_t type, int fileHandle)
{
    return MP4FileAtom::create(type, fileHandle);
}

std::shared_ptr<MP4MemoryAtom> MP4Atom::memoryAtomWithType(std::uint32_t type,
                                                           std::optional<Bytes> childData)
{
    return std::make_shared<MP4MemoryAtom>(type, std::move(childData));
}

// MP4FileAtom -----------------------------------------------------------------------------------

std::shared_ptr<MP4FileAtom> MP4FileAtom::create(std::uint32_t type, int fileHandle)
{
    const auto size = detail::fileSizeOf(fileHandle);
    if (!size) {
        return nullptr;
    }
    const MP4FileAtom scanner(0, fileHandle);
    const std::uint64_t offset = scanner.offsetOfChildAtom(type, 0, *size);
    return offset == kMP4AtomNotFound ? nullptr : fileAtomWithOffset(offset, fileHandle);
}

std::shared_ptr<MP4FileAtom> MP4FileAtom::fileAtomWithOffset(std::uint64_t offset, int fileHandle)
{
    return std::make_shared<MP4FileAtom>(offset, fileHandle);
}

std::uint32_t MP4FileAtom::readUIntAtOffset(std::uint64_t offset) const
{
    std::array<std::uint8_t, 4> bytes{};
    const ssize_t bytes_read = readAt(mFileHandle, bytes.data(), bytes.size(), offset);
    VELL_TAG_ASSERT(bytes_read == 4, "bytes_read == 4");
    return readBigEndian32(bytes.data());
}

void MP4FileAtom::writeUInt(std::uint32_t value, std::uint64_t offset)
{
    std::array<std::uint8_t, 4> bytes{};
    writeBigEndian32(bytes.data(), value);
    const ssize_t bytes_written = writeAt(mFileHandle, bytes.data(), bytes.size(), offset);
    VELL_TAG_ASSERT(bytes_written == 4, "bytes_written == 4");
}

std::uint32_t MP4FileAtom::type() const
{
    return readUIntAtOffset(mOffset + 4);
}

std::uint32_t MP4FileAtom::length() const
{
    return readUIntAtOffset(mOffset);
}

void MP4FileAtom::setLength(std::uint32_t length)
{
    writeUInt(length, mOffset);
}

std::uint32_t MP4FileAtom::childDataOffset() const
{
    return type() == kMetaType ? 12 : 8;
}

std::optional<std::uint32_t> MP4FileAtom::lengthWithinFile() const
{
    const auto size = detail::fileSizeOf(mFileHandle);
    if (!size || *size < 8 || mOffset > *size - 8) {
        return std::nullopt;
    }
    std::array<std::uint8_t, 4> bytes{};
    if (readAt(mFileHandle, bytes.data(), bytes.size(), mOffset) != 4) {
        return std::nullopt;
    }
    const std::uint32_t length = readBigEndian32(bytes.data());
    if (length > *size - mOffset) {
        return std::nullopt;
    }
    return length;
}

std::uint64_t MP4FileAtom::offsetOfChildAtom(std::uint32_t type, std::uint64_t start,
                                             std::uint64_t end) const
{
    const auto size = detail::fileSizeOf(mFileHandle);
    if (!size || *size < 8) {
        return kMP4AtomNotFound;
    }
    std::uint64_t pos = start;
    while (pos < end) {
        // A header past the end of the file is absent: the walk ends there.
        if (pos > *size - 8) {
            return kMP4AtomNotFound;
        }
        std::array<std::uint8_t, 8> header{};
        if (readAt(mFileHandle, header.data(), header.size(), pos) != 8) {
            return kMP4AtomNotFound;
        }
        const std::uint32_t atomSize = readBigEndian32(header.data());
        // Deliberate: a zero size ends the walk as not found (no "to the end of the file").
        if (atomSize == 0) {
            return kMP4AtomNotFound;
        }
        if (readBigEndian32(header.data() + 4) == type) {
            return atomSize <= *size - pos ? pos : kMP4AtomNotFound;
        }
        // Deliberate: a size of 1 is a step of one byte, not a 64-bit size.
        pos += atomSize;
    }
    return kMP4AtomNotFound;
}

std::uint64_t MP4FileAtom::findOffsetOfChildAtom(std::uint32_t type, std::uint64_t start,
                                                 std::uint64_t end) const
{
    const auto size = detail::fileSizeOf(mFileHandle);
    if (!size || end < 4 || *size < 4) {
        return kMP4AtomNotFound;
    }
    // Positions whose four bytes lie inside the search range and inside the file.
    const std::uint64_t stop = std::min(end - 4, *size - 3);
    std::array<std::uint8_t, 4> pattern{};
    writeBigEndian32(pattern.data(), type);

    Bytes window(kSearchWindow + 3);
    for (std::uint64_t base = start; base < stop;) {
        const std::size_t want = std::size_t(std::min<std::uint64_t>(kSearchWindow, stop - base));
        const ssize_t got = readAt(mFileHandle, window.data(), want + 3, base);
        if (got < ssize_t(want + 3)) {
            return kMP4AtomNotFound;
        }
        const auto first = window.begin();
        const auto hit = std::search(first, first + std::ptrdiff_t(want + 3), pattern.begin(),
                                     pattern.end());
        const auto index = std::uint64_t(hit - first);
        if (index < want) {
            const std::uint64_t pos = base + index;
            return pos >= 4 ? pos - 4 : kMP4AtomNotFound;
        }
        base += want;
    }
    return kMP4AtomNotFound;
}

std::shared_ptr<MP4Atom> MP4FileAtom::childAtomWithType(std::uint32_t type) const
{
    const auto length = lengthWithinFile();
    if (!length) {
        return nullptr;
    }
    const std::uint64_t offset =
        offsetOfChildAtom(type, mOffset + childDataOffset(), mOffset + *length);
    return offset == kMP4AtomNotFound ? nullptr : fileAtomWithOffset(offset, mFileHandle);
}

std::shared_ptr<MP4Atom> MP4FileAtom::findChildAtomWithType(std::uint32_t type) const
{
    const auto length = lengthWithinFile();
    if (!length) {
        return nullptr;
    }
    const std::uint64_t offset =
        findOffsetOfChildAtom(type, mOffset + childDataOffset(), mOffset + *length);
    if (offset == kMP4AtomNotFound) {
        return nullptr;
    }
    auto child = fileAtomWithOffset(offset, mFileHandle);
    return child->lengthWithinFile() ? child : nullptr;
}

std::optional<Bytes> MP4FileAtom::data() const
{
    const auto length = lengthWithinFile();
    if (!length) {
        return std::nullopt;
    }
    Bytes bytes(*length);
    if (readAt(mFileHandle, bytes.data(), bytes.size(), mOffset) != ssize_t(bytes.size())) {
        return std::nullopt;
    }
    return bytes;
}

std::optional<Bytes> MP4FileAtom::childData() const
{
    const auto length = lengthWithinFile();
    if (!length) {
        return std::nullopt;
    }
    const std::uint32_t start = childDataOffset();
    if (*length < start) {
        return std::nullopt;
    }
    Bytes bytes(*length - start);
    if (readAt(mFileHandle, bytes.data(), bytes.size(), mOffset + start) !=
        ssize_t(bytes.size())) {
        return std::nullopt;
    }
    return bytes;
}

void MP4FileAtom::setChildData(std::span<const std::uint8_t> data)
{
    const std::uint32_t length = this->length() - childDataOffset();
    // A buffer shorter than the payload cannot fill it: the write it needs cannot be made.
    VELL_TAG_ASSERT(data.size() >= length, "bytes_written == length");
    const ssize_t bytes_written = writeAt(mFileHandle, data.data(), length, mOffset + childDataOffset());
    VELL_TAG_ASSERT(bytes_written == ssize_t(length), "bytes_written == length");
}

std::uint32_t MP4FileAtom::addChild(std::shared_ptr<MP4Atom> child)
{
    const std::optional<Bytes> data = child ? child->data() : std::nullopt;
    VELL_TAG_ASSERT(data.has_value(), "bytes_written == [[atom data] length]");
    const std::uint32_t oldLength = length();
    const ssize_t bytes_written =
        brix_insertdata(mFileHandle, data->data(), data->size(), mOffset + oldLength);
    VELL_TAG_ASSERT(bytes_written == ssize_t(data->size()), "bytes_written == [[atom data] length]");
    const auto added = std::uint32_t(data->size());
    setLength(oldLength + added);
    return added;
}

std::uint32_t MP4FileAtom::replaceChildAtomOfType(std::uint32_t type, std::shared_ptr<MP4Atom> atom)
{
    const auto oldChild = childAtomWithType(type);
    if (!oldChild) {
        return addChild(std::move(atom));
    }
    const std::optional<Bytes> newData = atom ? atom->data() : std::nullopt;
    VELL_TAG_ASSERT(newData.has_value(), "bytes_written == [[newChild data] length]");
    const std::uint32_t oldLength = length();
    const std::int64_t deltaLength = std::int64_t(newData->size()) - oldChild->length();
    const std::uint64_t at = oldChild->offset();
    if (deltaLength < 0) {
        brix_reducefile(mFileHandle, std::uint64_t(-deltaLength), at);
    } else if (deltaLength > 0) {
        // The first deltaLength bytes of the new atom fill the gap; all is overwritten below.
        const ssize_t bytes_added =
            brix_insertdata(mFileHandle, newData->data(), std::size_t(deltaLength), at);
        VELL_TAG_ASSERT(bytes_added == deltaLength, "bytes_added == deltaLength");
    }
    const ssize_t bytes_written = writeAt(mFileHandle, newData->data(), newData->size(), at);
    VELL_TAG_ASSERT(bytes_written == ssize_t(newData->size()),
                    "bytes_written == [[newChild data] length]");
    const auto delta = std::uint32_t(deltaLength);
    setLength(oldLength + delta);
    return delta;
}

// MP4MemoryAtom ---------------------------------------------------------------------------------

std::uint32_t MP4MemoryAtom::length() const
{
    std::uint32_t length = 8 + std::uint32_t(mChildData ? mChildData->size() : 0);
    for (const auto& child : mChildArray) {
        length += child->length();
    }
    return length;
}

std::optional<Bytes> MP4MemoryAtom::data() const
{
    Bytes bytes(8);
    writeBigEndian32(bytes.data(), length());
    writeBigEndian32(bytes.data() + 4, mType);
    if (mChildData) {
        bytes.insert(bytes.end(), mChildData->begin(), mChildData->end());
    }
    for (const auto& child : mChildArray) {
        const auto childBytes = child->data();
        if (!childBytes) {
            return std::nullopt;
        }
        bytes.insert(bytes.end(), childBytes->begin(), childBytes->end());
    }
    return bytes;
}

std::uint32_t MP4MemoryAtom::addChild(std::shared_ptr<MP4Atom> child)
{
    if (!child) {
        return 0;
    }
    const std::uint32_t length = child->length();
    mChildArray.push_back(std::move(child));
    return length;
}

std::shared_ptr<MP4Atom> MP4MemoryAtom::childAtomWithType(std::uint32_t type) const
{
    for (const auto& child : mChildArray) {
        if (child->type() == type) {
            return child;
        }
    }
    return nullptr;
}

std::uint32_t MP4MemoryAtom::replaceChildAtomOfType(std::uint32_t type,
                                                    std::shared_ptr<MP4Atom> atom)
{
    const auto found = std::find_if(mChildArray.begin(), mChildArray.end(),
                                    [type](const auto& child) { return child->type() == type; });
    if (found == mChildArray.end() || !atom) {
        return addChild(std::move(atom));
    }
    const std::uint32_t oldLength = (*found)->length();
    mChildArray.erase(found);
    // Deliberate: the replacement goes to the end of the list, not to the old child's place.
    const std::uint32_t newLength = atom->length();
    mChildArray.push_back(std::move(atom));
    return newLength - oldLength;
}

} // namespace vell
