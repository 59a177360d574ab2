// A strict, bounded parse of the MP4 box tree and of each track's chunk table.
#include "songtags/mp4/MP4BoxTree.h"

#include "songtags/TagFileOperations.h"
#include "songtags/mp4/MP4Atom.h"
#include "support/Format.h"

#include <algorithm>
#include <array>

namespace vell::detail {
namespace {

constexpr int kMaxDepth = 16;
constexpr std::size_t kMaxBoxes = 2'000'000;

Error parseError(const std::string& reason)
{
    return makeUserError("The file's MP4 structure could not be read.", reason);
}

bool isContainer(std::uint32_t type, const MP4Box* parent)
{
    static constexpr std::uint32_t kContainers[] = {
        fourCharCode("moov"), fourCharCode("trak"), fourCharCode("mdia"), fourCharCode("minf"),
        fourCharCode("stbl"), fourCharCode("udta"), fourCharCode("edts"), fourCharCode("dinf"),
        fourCharCode("mvex"), fourCharCode("moof"), fourCharCode("traf"), fourCharCode("meta"),
        fourCharCode("ilst")};
    if (parent && parent->type == fourCharCode("ilst")) {
        return true; // items hold their `data` atoms
    }
    return std::find(std::begin(kContainers), std::end(kContainers), type) !=
           std::end(kContainers);
}

struct Parser {
    int fd;
    std::uint64_t fileSize;
    std::size_t count = 0;

    std::optional<Error> parseChildren(MP4Box* parent, std::uint64_t start, std::uint64_t end,
                                       std::vector<MP4Box>& out, int depth)
    {
        if (depth > kMaxDepth) {
            return parseError("The atoms are nested too deeply.");
        }
        std::uint64_t pos = start;
        while (pos < end) {
            if (++count > kMaxBoxes) {
                return parseError("The file has too many atoms.");
            }
            if (end - pos < 8) {
                return parseError(format("A %llu-byte gap at %llu is too short for an atom.",
                                         (unsigned long long)(end - pos), (unsigned long long)pos));
            }
            std::array<std::uint8_t, 16> header{};
            const std::size_t want = end - pos >= 16 ? 16 : 8;
            if (readAt(fd, header.data(), want, pos) != ssize_t(want)) {
                return parseError("The file could not be read.");
            }
            MP4Box box;
            box.offset = pos;
            box.type = readBigEndian32(header.data() + 4);
            const std::uint32_t size32 = readBigEndian32(header.data());
            if (size32 == 1) {
                if (want < 16) {
                    return parseError("A 64-bit atom size runs past its parent.");
                }
                box.size = std::uint64_t(readBigEndian32(header.data() + 8)) << 32 |
                           readBigEndian32(header.data() + 12);
                box.payloadOffset = 16;
                box.usesExtendedSize = true;
            } else if (size32 == 0) {
                box.size = end - pos;
                box.usesExtendedSize = true;
            } else {
                box.size = size32;
            }
            if (box.size < box.payloadOffset || box.size > end - pos) {
                return parseError(format("The atom at %llu has a size that does not fit.",
                                         (unsigned long long)pos));
            }
            if (isContainer(box.type, parent)) {
                if (box.type == fourCharCode("meta")) {
                    // Full-box `meta` has version and flags first; a few writers leave them out.
                    std::array<std::uint8_t, 8> probe{};
                    const bool bare =
                        box.size >= 16 && readAt(fd, probe.data(), 8, pos + 8) == 8 &&
                        readBigEndian32(probe.data() + 4) == fourCharCode("hdlr");
                    box.payloadOffset += bare ? 0 : 4;
                }
                if (box.size < box.payloadOffset) {
                    return parseError("A container atom is too short.");
                }
                if (auto error = parseChildren(&box, pos + box.payloadOffset, pos + box.size,
                                               box.children, depth + 1)) {
                    return error;
                }
            }
            pos += box.size;
            out.push_back(std::move(box));
        }
        return std::nullopt;
    }
};

bool containsType(const std::vector<MP4Box>& boxes, std::uint32_t type)
{
    return std::any_of(boxes.begin(), boxes.end(), [type](const MP4Box& box) {
        return box.type == type || containsType(box.children, type);
    });
}

} // namespace

const MP4Box* MP4Box::child(std::uint32_t childType) const
{
    for (const auto& box : children) {
        if (box.type == childType) {
            return &box;
        }
    }
    return nullptr;
}

std::vector<const MP4Box*> MP4Box::childrenOfType(std::uint32_t childType) const
{
    std::vector<const MP4Box*> found;
    for (const auto& box : children) {
        if (box.type == childType) {
            found.push_back(&box);
        }
    }
    return found;
}

const MP4Box* MP4BoxTree::top(std::uint32_t type) const
{
    for (const auto& box : boxes) {
        if (box.type == type) {
            return &box;
        }
    }
    return nullptr;
}

const MP4Box* MP4BoxTree::find(std::initializer_list<std::uint32_t> path) const
{
    const MP4Box* box = nullptr;
    for (const std::uint32_t type : path) {
        box = box ? box->child(type) : top(type);
        if (!box) {
            return nullptr;
        }
    }
    return box;
}

bool MP4BoxTree::contains(std::uint32_t type) const
{
    return containsType(boxes, type);
}

Result<MP4BoxTree> parseMP4BoxTree(int fileHandle)
{
    const auto size = fileSizeOf(fileHandle);
    if (!size) {
        return parseError("The file could not be read.");
    }
    MP4BoxTree tree;
    tree.fileSize = *size;
    Parser parser{fileHandle, *size};
    if (auto error = parser.parseChildren(nullptr, 0, *size, tree.boxes, 0)) {
        return std::move(*error);
    }
    return tree;
}

std::optional<std::vector<std::uint8_t>> payloadOf(int fileHandle, const MP4Box& box,
                                                   std::uint64_t maxBytes)
{
    const std::uint64_t length = box.size - box.payloadOffset;
    if (length > maxBytes) {
        return std::nullopt;
    }
    std::vector<std::uint8_t> bytes(length);
    if (readAt(fileHandle, bytes.data(), bytes.size(), box.offset + box.payloadOffset) !=
        ssize_t(bytes.size())) {
        return std::nullopt;
    }
    return bytes;
}

Result<std::vector<MP4Chunk>> chunksOfTrack(int fileHandle, const MP4Box& trak)
{
    const MP4Box* stbl = trak.child(fourCharCode("mdia"));
    stbl = stbl ? stbl->child(fourCharCode("minf")) : nullptr;
    stbl = stbl ? stbl->child(fourCharCode("stbl")) : nullptr;
    if (!stbl) {
        return parseError("A track has no sample table.");
    }
    const MP4Box* stco = stbl->child(fourCharCode("stco"));
    const MP4Box* co64 = stbl->child(fourCharCode("co64"));
    const MP4Box* stsc = stbl->child(fourCharCode("stsc"));
    const MP4Box* stsz = stbl->child(fourCharCode("stsz"));
    if ((!stco && !co64) || !stsc || !stsz) {
        return parseError("A track's sample table is incomplete.");
    }
    const auto offsets = payloadOf(fileHandle, stco ? *stco : *co64);
    const auto runs = payloadOf(fileHandle, *stsc);
    const auto sizes = payloadOf(fileHandle, *stsz);
    if (!offsets || !runs || !sizes || offsets->size() < 8 || runs->size() < 8 ||
        sizes->size() < 12) {
        return parseError("A track's sample table could not be read.");
    }
    const std::uint64_t width = stco ? 4 : 8;
    const std::uint64_t chunkCount = readBigEndian32(offsets->data() + 4);
    const std::uint64_t runCount = readBigEndian32(runs->data() + 4);
    const std::uint32_t uniformSize = readBigEndian32(sizes->data() + 4);
    const std::uint64_t sampleCount = readBigEndian32(sizes->data() + 8);
    if (chunkCount > (offsets->size() - 8) / width || runCount > (runs->size() - 8) / 12 ||
        (uniformSize == 0 && sampleCount > (sizes->size() - 12) / 4)) {
        return parseError("A track's sample table has more entries than bytes.");
    }

    std::vector<MP4Chunk> chunks(chunkCount);
    std::uint64_t sample = 0;
    std::uint64_t nextRun = 0;
    std::uint64_t perChunk = 0;
    for (std::uint64_t chunk = 0; chunk < chunkCount; ++chunk) {
        const std::uint8_t* entry = offsets->data() + 8 + chunk * width;
        chunks[chunk].offset = width == 4 ? readBigEndian32(entry)
                                          : std::uint64_t(readBigEndian32(entry)) << 32 |
                                                readBigEndian32(entry + 4);
        // The run in force: the last whose first chunk (1-based) is at or before this one.
        while (nextRun < runCount && readBigEndian32(runs->data() + 8 + nextRun * 12) <= chunk + 1) {
            perChunk = readBigEndian32(runs->data() + 8 + nextRun * 12 + 4);
            ++nextRun;
        }
        for (std::uint64_t k = 0; k < perChunk && sample < sampleCount; ++k, ++sample) {
            chunks[chunk].length +=
                uniformSize ? uniformSize : readBigEndian32(sizes->data() + 12 + sample * 4);
        }
    }
    return chunks;
}

bool sameBytes(int fileA, std::uint64_t offsetA, int fileB, std::uint64_t offsetB,
               std::uint64_t length)
{
    constexpr std::size_t kBlock = 256 * 1024;
    std::vector<std::uint8_t> a(std::min<std::uint64_t>(kBlock, length));
    std::vector<std::uint8_t> b(a.size());
    for (std::uint64_t done = 0; done < length;) {
        const auto n = std::size_t(std::min<std::uint64_t>(kBlock, length - done));
        if (readAt(fileA, a.data(), n, offsetA + done) != ssize_t(n) ||
            readAt(fileB, b.data(), n, offsetB + done) != ssize_t(n) ||
            !std::equal(a.begin(), a.begin() + std::ptrdiff_t(n), b.begin())) {
            return false;
        }
        done += n;
    }
    return true;
}

} // namespace vell::detail
