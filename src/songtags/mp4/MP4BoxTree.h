// An independent, strict parse of an MP4 file's box tree (ISO sizes: 0 to the end, 1 for
// 64-bit), used to check an edited copy against its original.
#pragma once

#include "support/Result.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace vell::detail {

struct MP4Box {
    std::uint32_t type = 0;
    std::uint64_t offset = 0;
    std::uint64_t size = 0;
    /// Where the payload (or the first child) starts, relative to offset.
    std::uint64_t payloadOffset = 8;
    bool usesExtendedSize = false;
    std::vector<MP4Box> children;

    std::uint64_t end() const noexcept { return offset + size; }
    const MP4Box* child(std::uint32_t type) const;
    std::vector<const MP4Box*> childrenOfType(std::uint32_t type) const;
};

struct MP4BoxTree {
    std::uint64_t fileSize = 0;
    std::vector<MP4Box> boxes;

    const MP4Box* top(std::uint32_t type) const;
    /// The first box along a path of types from the top level.
    const MP4Box* find(std::initializer_list<std::uint32_t> path) const;
    /// Whether any box in the tree has the type.
    bool contains(std::uint32_t type) const;
};

/// Parses the whole file: every box must lie inside its parent and the file; containers are
/// followed to a depth of 16 and at most 2,000,000 boxes are read. The error's failure reason
/// says what is wrong.
Result<MP4BoxTree> parseMP4BoxTree(int fileHandle);

/// One track's chunks: where each starts and how many bytes its samples take.
struct MP4Chunk {
    std::uint64_t offset = 0;
    std::uint64_t length = 0;
};

/// The chunks of a `trak` box from stco or co64, stsc and stsz; an error when they disagree.
Result<std::vector<MP4Chunk>> chunksOfTrack(int fileHandle, const MP4Box& trak);

/// The payload bytes of a box (at most maxBytes), or nothing.
std::optional<std::vector<std::uint8_t>> payloadOf(int fileHandle, const MP4Box& box,
                                                   std::uint64_t maxBytes = 64u << 20);

/// Whether two byte ranges of two files hold the same bytes (read a block at a time).
bool sameBytes(int fileA, std::uint64_t offsetA, int fileB, std::uint64_t offsetB,
               std::uint64_t length);

} // namespace vell::detail
