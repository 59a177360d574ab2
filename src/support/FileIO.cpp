// Whole-file reads and crash-safe writes (temporary file, fsync, rename, directory fsync).
#include "support/FileIO.h"

#include "support/Format.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace vell {

namespace {

/// Closes a descriptor on every path out.
class FileDescriptor {
public:
    explicit FileDescriptor(int fd) : mFd(fd) {}
    ~FileDescriptor() { close(); }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;

    int get() const noexcept { return mFd; }
    bool valid() const noexcept { return mFd >= 0; }
    int close() noexcept
    {
        int result = 0;
        if (mFd >= 0) {
            result = ::close(mFd);
            mFd = -1;
        }
        return result;
    }

private:
    int mFd;
};

long codeFor(bool writing, int errnum)
{
    switch (errnum) {
    case ENOENT:
    case ENOTDIR:
        return writing ? kFileNoSuchFileError : kFileReadNoSuchFileError;
    case EACCES:
    case EPERM:
    case EROFS:
        return writing ? kFileWriteNoPermissionError : kFileReadNoPermissionError;
    case ENOSPC:
    case EDQUOT:
        return kFileWriteOutOfSpaceError;
    case EFBIG:
        return writing ? kFileWriteUnknownError : kFileReadTooLargeError;
    default:
        return writing ? kFileWriteUnknownError : kFileReadUnknownError;
    }
}

} // namespace

Error fileError(bool writing, int errnum, const std::filesystem::path& path)
{
    const std::string name = path.filename().string();
    const std::string description =
        writing ? format("The file \u201c%s\u201d couldn\u2019t be saved: %s.", name.c_str(),
                         std::strerror(errnum))
                : format("The file \u201c%s\u201d couldn\u2019t be opened: %s.", name.c_str(),
                         std::strerror(errnum));
    return Error(NSCocoaErrorDomain, codeFor(writing, errnum),
                 {{std::string(NSLocalizedDescriptionKey), description},
                  {std::string(NSFilePathErrorKey), path.string()},
                  {std::string(kPOSIXErrorCodeKey), static_cast<long long>(errnum)}});
}

Result<std::vector<std::uint8_t>> readWholeFile(const std::filesystem::path& path,
                                                std::size_t maxBytes)
{
    FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!fd.valid()) {
        return fileError(false, errno, path);
    }
    struct stat info {};
    if (::fstat(fd.get(), &info) != 0) {
        return fileError(false, errno, path);
    }
    if (S_ISDIR(info.st_mode)) {
        return fileError(false, EISDIR, path);
    }
    if (info.st_size < 0 || static_cast<std::uint64_t>(info.st_size) > maxBytes) {
        return fileError(false, EFBIG, path);
    }
    std::vector<std::uint8_t> contents;
    contents.reserve(static_cast<std::size_t>(info.st_size));
    // Read to the end rather than trusting the size: the file may change while we read.
    std::uint8_t buffer[65536];
    for (;;) {
        const ssize_t got = ::read(fd.get(), buffer, sizeof buffer);
        if (got < 0) {
            if (errno == EINTR) {
                continue;
            }
            return fileError(false, errno, path);
        }
        if (got == 0) {
            break;
        }
        if (contents.size() + static_cast<std::size_t>(got) > maxBytes) {
            return fileError(false, EFBIG, path);
        }
        contents.insert(contents.end(), buffer, buffer + got);
    }
    return contents;
}

std::string temporaryFilePrefix(const std::filesystem::path& path)
{
    return path.filename().string() + ".tmp-";
}

Result<void> writeFileAtomically(const std::filesystem::path& path,
                                 std::span<const std::uint8_t> contents,
                                 std::filesystem::perms newFileMode)
{
    const std::filesystem::path directory =
        path.has_parent_path() ? path.parent_path() : std::filesystem::path(".");
    std::string temporary = (directory / (temporaryFilePrefix(path) + "XXXXXX")).string();

    FileDescriptor fd(::mkostemp(temporary.data(), O_CLOEXEC));
    if (!fd.valid()) {
        return fileError(true, errno, path);
    }
    auto fail = [&](int errnum) -> Result<void> {
        fd.close();
        ::unlink(temporary.c_str());
        return fileError(true, errnum, path);
    };

    mode_t mode = static_cast<mode_t>(newFileMode);
    struct stat existing {};
    if (::stat(path.c_str(), &existing) == 0) {
        mode = existing.st_mode & 07777;
    }
    if (::fchmod(fd.get(), mode) != 0) {
        return fail(errno);
    }

    std::size_t written = 0;
    while (written < contents.size()) {
        const ssize_t put = ::write(fd.get(), contents.data() + written, contents.size() - written);
        if (put < 0) {
            if (errno == EINTR) {
                continue;
            }
            return fail(errno);
        }
        written += static_cast<std::size_t>(put);
    }
    if (::fsync(fd.get()) != 0) {
        return fail(errno);
    }
    if (fd.close() != 0) {
        return fail(errno);
    }
    if (::rename(temporary.c_str(), path.c_str()) != 0) {
        const int errnum = errno;
        ::unlink(temporary.c_str());
        return fileError(true, errnum, path);
    }
    // Make the rename itself durable. A failure here leaves a complete file either way, so it
    // is not reported.
    FileDescriptor dir(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (dir.valid()) {
        ::fsync(dir.get());
    }
    return {};
}

} // namespace vell
