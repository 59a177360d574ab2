// The file-operation table of the tag code and its fatal hook.
#include "songtags/TagFileOperations.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <limits>
#include <unistd.h>

namespace vell::detail {
namespace {

int systemOpen(const char* path, int flags, mode_t mode)
{
    return ::open(path, flags, mode);
}

const TagFileOperations kSystem = {
    systemOpen,     ::close, ::pread,  ::pwrite, ::ftruncate, ::posix_fallocate,
    ::fstat,        ::fsync, ::rename, ::unlink,
};

TagFileOperations gOperations = kSystem;
thread_local TagFatalHook tFatalHook = nullptr;

} // namespace

const TagFileOperations& tagFileOperations() noexcept
{
    return gOperations;
}

const TagFileOperations& systemTagFileOperations() noexcept
{
    return kSystem;
}

TagFileOperations setTagFileOperations(const TagFileOperations& operations) noexcept
{
    const TagFileOperations previous = gOperations;
    gOperations = operations;
    return previous;
}

TagFatalHook setTagFatalHook(TagFatalHook hook) noexcept
{
    const TagFatalHook previous = tFatalHook;
    tFatalHook = hook;
    return previous;
}

void tagAssertionFailed(const char* expression, const char* file, int line)
{
    if (tFatalHook) {
        tFatalHook(expression, file, line);
    }
    std::fprintf(stderr, "%s:%d: assertion failed: %s\n", file, line, expression);
    std::abort();
}

ssize_t readAt(int fd, void* buffer, std::size_t count, std::uint64_t offset)
{
    if (offset > std::uint64_t(std::numeric_limits<off_t>::max()) - count) {
        return -1;
    }
    std::size_t done = 0;
    while (done < count) {
        const ssize_t n = gOperations.pread(fd, static_cast<char*>(buffer) + done, count - done,
                                            off_t(offset + done));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return done > 0 ? ssize_t(done) : n;
        }
        done += std::size_t(n);
    }
    return ssize_t(done);
}

ssize_t writeAt(int fd, const void* buffer, std::size_t count, std::uint64_t offset)
{
    if (offset > std::uint64_t(std::numeric_limits<off_t>::max()) - count) {
        return -1;
    }
    std::size_t done = 0;
    while (done < count) {
        const ssize_t n = gOperations.pwrite(fd, static_cast<const char*>(buffer) + done,
                                             count - done, off_t(offset + done));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return done > 0 ? ssize_t(done) : n;
        }
        done += std::size_t(n);
    }
    return ssize_t(done);
}

std::optional<std::uint64_t> fileSizeOf(int fd)
{
    struct stat info {};
    if (gOperations.fstat(fd, &info) != 0 || info.st_size < 0) {
        return std::nullopt;
    }
    return std::uint64_t(info.st_size);
}

} // namespace vell::detail
