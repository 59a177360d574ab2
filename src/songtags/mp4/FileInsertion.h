// In-place primitives: open a gap in a file and fill it, or close one, a memory page at a time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

namespace vell {

/// Grows the file by count bytes at `at`: the space is reserved first, the tail [at, end) moves
/// up by count a page at a time from the end backwards, then the bytes are written at `at`.
/// Answers what the final write moved (the caller checks it equals count). A null bytes
/// pointer is the assertion "inData"; a failed reservation or growth is "status == 0"; short
/// moves are "bytes_read == chunkSize" and "bytes_written == chunkSize".
ssize_t brix_insertdata(int fileHandle, const std::uint8_t* bytes, std::size_t count,
                        std::uint64_t at);

/// Removes deletionLength bytes at `at`: the tail moves down a page at a time from the front,
/// then the file is truncated. Assertions: "fileLength >= deletionLength",
/// "bytes_read == copySize", "bytes_written == copySize", "status == 0".
void brix_reducefile(int fileHandle, std::uint64_t deletionLength, std::uint64_t at);

/// The chunk size of the moves: the system's memory page size.
std::size_t insertionPageSize() noexcept;

} // namespace vell
