// The file operations the tag code makes, behind a replaceable table, and its fatal hook.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <sys/stat.h>
#include <sys/types.h>

namespace vell::detail {

/// Every system call the tag readers, the in-place editor and the safe editor make. Tests
/// replace entries to fail one operation at a time. Thread: set before use, from one thread.
struct TagFileOperations {
    int (*open)(const char* path, int flags, mode_t mode);
    int (*close)(int fd);
    ssize_t (*pread)(int fd, void* buffer, std::size_t count, off_t offset);
    ssize_t (*pwrite)(int fd, const void* buffer, std::size_t count, off_t offset);
    int (*ftruncate)(int fd, off_t length);
    /// posix_fallocate: 0 or the error number.
    int (*fallocate)(int fd, off_t offset, off_t length);
    int (*fstat)(int fd, struct stat* info);
    int (*fsync)(int fd);
    int (*rename)(const char* from, const char* to);
    int (*unlink)(const char* path);
};

/// The operations in use.
const TagFileOperations& tagFileOperations() noexcept;
/// The real system calls.
const TagFileOperations& systemTagFileOperations() noexcept;
/// Installs operations; returns the previous ones.
TagFileOperations setTagFileOperations(const TagFileOperations& operations) noexcept;

/// Called with the expression text of a failed in-place editing assertion. The default prints
/// "FILE:LINE: assertion failed: EXPRESSION" and aborts; a hook may throw instead to abandon
/// the edit (the safe editor does), but must not return.
using TagFatalHook = void (*)(const char* expression, const char* file, int line);
/// Installs a hook for the calling thread (null: the default); returns the previous one.
TagFatalHook setTagFatalHook(TagFatalHook hook) noexcept;

[[noreturn]] void tagAssertionFailed(const char* expression, const char* file, int line);

// Positioned I/O through the table, retrying interrupted and partial transfers. They answer the
// bytes moved (fewer at the end of the file or on an error) or -1 when nothing could be moved.
ssize_t readAt(int fd, void* buffer, std::size_t count, std::uint64_t offset);
ssize_t writeAt(int fd, const void* buffer, std::size_t count, std::uint64_t offset);
/// The file's size, or nothing when it cannot be found.
std::optional<std::uint64_t> fileSizeOf(int fd);

} // namespace vell::detail

/// Stops the edit, naming the designed expression text, unless cond holds.
#define VELL_TAG_ASSERT(cond, text)                                                                \
    ((cond) ? (void)0 : ::vell::detail::tagAssertionFailed((text), __FILE__, __LINE__))
