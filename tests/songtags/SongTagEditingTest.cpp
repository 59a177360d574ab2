// The safe editor: verification refusals, and every file operation of an edit failed in turn
// (error, short write, full disk, a crash) for the in-place library edit and the safe editor.
#include <VellAudio/MP4Tags.h>
#include <VellAudio/SongTagEditing.h>

#include "songtags/TagFileOperations.h"

#include "SongTagTestSupport.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <set>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

namespace vell {
namespace {

using detail::TagFileOperations;
using test::Bytes;

enum class Fault { Error, ShortWrite, DiskFull, Crash };

// The injection state: the call that fails (counting every operation) and how.
long gCall = 0;
long gFailAt = 0;
Fault gFault = Fault::Error;

/// True when this call is the one to fail; a crash ends the (forked) process here.
bool failsNow()
{
    if (++gCall != gFailAt) {
        return false;
    }
    if (gFault == Fault::Crash) {
        ::_exit(0);
    }
    return true;
}

int errorNumber()
{
    return gFault == Fault::DiskFull ? ENOSPC : EIO;
}

const TagFileOperations kFaulty = {
    [](const char* path, int flags, mode_t mode) {
        return failsNow() ? (errno = EACCES, -1) : ::open(path, flags, mode);
    },
    [](int fd) { return ::close(fd); },
    [](int fd, void* buffer, std::size_t count, off_t offset) -> ssize_t {
        return failsNow() ? (errno = EIO, -1) : ::pread(fd, buffer, count, offset);
    },
    [](int fd, const void* buffer, std::size_t count, off_t offset) -> ssize_t {
        if (!failsNow()) {
            return ::pwrite(fd, buffer, count, offset);
        }
        if (gFault == Fault::ShortWrite && count > 1) {
            return ::pwrite(fd, buffer, count / 2, offset);
        }
        errno = errorNumber();
        return -1;
    },
    [](int fd, off_t length) { return failsNow() ? (errno = errorNumber(), -1) : ::ftruncate(fd, length); },
    [](int fd, off_t offset, off_t length) {
        return failsNow() ? errorNumber() : ::posix_fallocate(fd, offset, length);
    },
    [](int fd, struct stat* info) { return failsNow() ? (errno = EIO, -1) : ::fstat(fd, info); },
    [](int fd) { return failsNow() ? (errno = EIO, -1) : ::fsync(fd); },
    [](const char* from, const char* to) { return failsNow() ? (errno = EIO, -1) : ::rename(from, to); },
    [](const char* path) { return ::unlink(path); },
};

/// Installs the faulty operations failing call number failAt (0: none) for a scope.
class ScopedFaults {
public:
    ScopedFaults(long failAt, Fault fault) : mPrevious(detail::setTagFileOperations(kFaulty))
    {
        gCall = 0;
        gFailAt = failAt;
        gFault = fault;
    }
    ~ScopedFaults() { detail::setTagFileOperations(mPrevious); }

private:
    TagFileOperations mPrevious;
};

SongTagChanges someChanges()
{
    SongTagChanges changes;
    changes.title = "Freddie Freeloader";
    changes.artist = "Miles Davis";
    changes.coverArt = VellImage::imageWithData(test::pngImage(6, 6));
    return changes;
}

class SongTagEditingTest : public testing::Test {
protected:
    std::filesystem::path write(const Bytes& data)
    {
        test::writeBytes(path(), data);
        return path();
    }
    std::filesystem::path path() const { return mDirectory / "song.m4a"; }
    std::size_t filesInDirectory() const
    {
        return std::size_t(std::distance(std::filesystem::directory_iterator(mDirectory.path()),
                                         std::filesystem::directory_iterator()));
    }

    test::TemporaryDirectory mDirectory;
};

TEST_F(SongTagEditingTest, AVerifiedEditReplacesTheFileAndKeepsEveryChunk)
{
    const Bytes before = test::makeMP4({.chunks = 40, .chunkSize = 300});
    write(before);
    std::filesystem::permissions(path(), std::filesystem::perms(0640));
    Error error;
    ASSERT_TRUE(editMP4SongTagsSafely(path(), someChanges(), &error)) << error.description();
    const auto tags = MP4Tags::create(path(), O_RDONLY);
    EXPECT_EQ(tags->title(), "Freddie Freeloader");
    EXPECT_EQ(tags->artist(), "Miles Davis");
    EXPECT_EQ(tags->coverArt()->width(), 6);
    EXPECT_EQ(test::chunkContents(test::readBytes(path()), 300), test::chunkContents(before, 300));
    EXPECT_EQ(std::filesystem::status(path()).permissions(), std::filesystem::perms(0640));
    EXPECT_EQ(filesInDirectory(), 1u);
}

TEST_F(SongTagEditingTest, LayoutsTheRepairCannotHandleAreRefusedWithTheReason)
{
    struct Case {
        test::MP4Layout layout;
        const char* reason;
    };
    const Case cases[] = {{{.wideOffsets = true}, "64-bit chunk offsets"},
                          {{.tracks = 2}, "several tracks"},
                          {{.fragmented = true}, "fragmented"},
                          {{.mdatFirst = true, .tracks = 2, .wideOffsets = true}, nullptr}};
    for (const auto& [layout, reason] : cases) {
        SCOPED_TRACE(reason ? reason : "accepted");
        const Bytes before = test::makeMP4(layout);
        write(before);
        Error error;
        const bool edited = editMP4SongTagsSafely(path(), someChanges(), &error);
        EXPECT_EQ(edited, reason == nullptr);
        if (reason) {
            EXPECT_NE(error.localizedFailureReason().value_or("").find(reason), std::string::npos)
                << error.description();
            EXPECT_EQ(test::readBytes(path()), before);
        }
        EXPECT_EQ(filesInDirectory(), 1u);
    }
    write(test::bytes("not a movie at all"));
    EXPECT_FALSE(editMP4SongTagsSafely(path(), someChanges()));
    EXPECT_EQ(test::readBytes(path()), test::bytes("not a movie at all"));
}

/// Fails each operation of the in-place library edit in turn. The library stops with one of
/// its designed texts (here thrown by the hook rather than aborting) and may leave the file
/// damaged; a failed reservation never does.
TEST_F(SongTagEditingTest, InPlaceEditFailuresStopWithDesignedTexts)
{
    const std::set<std::string> designed = {
        "bytes_read == 4", "bytes_written == 4", "bytes_written == [[atom data] length]",
        "bytes_added == deltaLength", "bytes_written == [[newChild data] length]", "status == 0",
        "bytes_read == chunkSize", "bytes_written == chunkSize", "bytes_read == copySize",
        "bytes_written == copySize", "fileLength >= deletionLength"};
    const Bytes before = test::makeMP4({.chunks = 2000, .chunkSize = 8});
    const detail::TagFatalHook previous = detail::setTagFatalHook(
        [](const char* expression, const char*, int) { throw std::runtime_error(expression); });
    std::set<std::string> seen;
    int damaged = 0;
    for (const Fault fault : {Fault::Error, Fault::ShortWrite, Fault::DiskFull}) {
        for (long failAt = 1;; ++failAt) {
            write(before);
            std::string stopped;
            long calls = 0;
            {
                const ScopedFaults faults(failAt, fault);
                try {
                    if (const auto tags = MP4Tags::create(path(), O_RDWR)) {
                        tags->setTitle("All Blues");
                    }
                } catch (const std::runtime_error& error) {
                    stopped = error.what();
                }
                calls = gCall;
            }
            if (calls < failAt) {
                break; // every operation has had its turn
            }
            if (!stopped.empty()) {
                EXPECT_TRUE(designed.count(stopped)) << stopped;
                seen.insert(stopped);
                const Bytes after = test::readBytes(path());
                damaged += after != before;
            }
        }
    }
    detail::setTagFatalHook(previous);
    for (const auto& text : seen) {
        std::printf("in-place edit stopped with: %s\n", text.c_str());
    }
    std::printf("in-place edits stopped with a damaged file: %d\n", damaged);
    EXPECT_TRUE(seen.count("status == 0"));
    EXPECT_TRUE(seen.count("bytes_written == chunkSize"));
}

/// Fails each operation of the safe edit in turn, and crashes a child at each: the original is
/// either untouched or fully edited, never damaged.
TEST_F(SongTagEditingTest, TheSafeEditorNeverLeavesTheOriginalDamaged)
{
    const Bytes before = test::makeMP4({.chunks = 30, .chunkSize = 8});
    write(before);
    ASSERT_TRUE(editMP4SongTagsSafely(path(), someChanges()));
    const Bytes edited = test::readBytes(path());

    for (const Fault fault : {Fault::Error, Fault::ShortWrite, Fault::DiskFull, Fault::Crash}) {
        for (long failAt = 1;; ++failAt) {
            SCOPED_TRACE(testing::Message() << "fault " << int(fault) << " at call " << failAt);
            write(before);
            long calls = 0;
            bool succeeded = false;
            if (fault == Fault::Crash) {
                const pid_t child = ::fork();
                if (child == 0) {
                    const ScopedFaults faults(failAt, fault);
                    editMP4SongTagsSafely(path(), someChanges());
                    ::_exit(3); // the edit ran to its end without reaching the crash
                }
                int status = 0;
                ::waitpid(child, &status, 0);
                calls = WIFEXITED(status) && WEXITSTATUS(status) == 3 ? 0 : failAt;
            } else {
                const ScopedFaults faults(failAt, fault);
                Error error;
                succeeded = editMP4SongTagsSafely(path(), someChanges(), &error);
                calls = gCall;
                EXPECT_TRUE(succeeded || error.localizedFailureReason().has_value());
            }
            const Bytes after = test::readBytes(path());
            EXPECT_TRUE(after == before || after == edited);
            if (succeeded) {
                EXPECT_EQ(after, edited);
            }
            if (fault != Fault::Crash) {
                EXPECT_EQ(filesInDirectory(), 1u);
            }
            if (calls < failAt) {
                break;
            }
        }
    }
}

} // namespace
} // namespace vell
