// In-place growth and shrinking of a file, moving its tail a page at a time.
#include "songtags/mp4/FileInsertion.h"

#include "songtags/TagFileOperations.h"

#include <algorithm>
#include <unistd.h>
#include <vector>

namespace vell {

using detail::readAt;
using detail::tagFileOperations;
using detail::writeAt;

std::size_t insertionPageSize() noexcept
{
    const long size = ::sysconf(_SC_PAGESIZE);
    return size > 0 ? std::size_t(size) : 4096;
}

ssize_t brix_insertdata(int fileHandle, const std::uint8_t* bytes, std::size_t count,
                        std::uint64_t at)
{
    VELL_TAG_ASSERT(bytes != nullptr, "inData");
    if (count == 0) {
        return 0;
    }
    const std::uint64_t pageSize = insertionPageSize();
    const auto size = detail::fileSizeOf(fileHandle);
    VELL_TAG_ASSERT(size.has_value(), "status == 0");
    std::uint64_t end = *size;

    // Reserve every byte the file will hold before any byte moves, so a full disk or a file-size
    // limit stops the edit while the file is still whole.
    const std::uint64_t finalSize = std::max(end, at) + count;
    int status = tagFileOperations().fallocate(fileHandle, 0, off_t(finalSize));
    VELL_TAG_ASSERT(status == 0, "status == 0");
    status = tagFileOperations().ftruncate(fileHandle, off_t(end + count));
    VELL_TAG_ASSERT(status == 0, "status == 0");

    if (end > at) {
        std::vector<std::uint8_t> buffer(pageSize);
        std::uint64_t previousStart = 0;
        do {
            previousStart = end - std::min(end, pageSize);
            const std::uint64_t start = std::max(previousStart, at);
            const std::size_t chunkSize = std::size_t(std::min(pageSize, end - start));
            const ssize_t bytes_read = readAt(fileHandle, buffer.data(), chunkSize, start);
            VELL_TAG_ASSERT(bytes_read == ssize_t(chunkSize), "bytes_read == chunkSize");
            const ssize_t bytes_written =
                writeAt(fileHandle, buffer.data(), chunkSize, start + count);
            VELL_TAG_ASSERT(bytes_written == ssize_t(chunkSize), "bytes_written == chunkSize");
            end = start;
        } while (previousStart > at);
    }
    return writeAt(fileHandle, bytes, count, at);
}

void brix_reducefile(int fileHandle, std::uint64_t deletionLength, std::uint64_t at)
{
    const std::uint64_t fileLength = detail::fileSizeOf(fileHandle).value_or(0);
    VELL_TAG_ASSERT(fileLength >= deletionLength, "fileLength >= deletionLength");
    const std::uint64_t newSize = fileLength - deletionLength;
    if (newSize > at) {
        const std::uint64_t pageSize = insertionPageSize();
        std::vector<std::uint8_t> buffer(pageSize);
        for (std::uint64_t dst = at; dst < newSize;) {
            const std::uint64_t src = dst + deletionLength;
            const std::size_t copySize = std::size_t(std::min(pageSize, fileLength - src));
            const ssize_t bytes_read = readAt(fileHandle, buffer.data(), copySize, src);
            VELL_TAG_ASSERT(bytes_read == ssize_t(copySize), "bytes_read == copySize");
            const ssize_t bytes_written = writeAt(fileHandle, buffer.data(), copySize, dst);
            VELL_TAG_ASSERT(bytes_written == ssize_t(copySize), "bytes_written == copySize");
            dst += copySize;
        }
    }
    const int status = tagFileOperations().ftruncate(fileHandle, off_t(newSize));
    VELL_TAG_ASSERT(status == 0, "status == 0");
}

} // namespace vell
