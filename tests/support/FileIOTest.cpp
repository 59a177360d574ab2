// Whole-file reads, atomic writes (also when the write fails half-way), file wrappers, JSON depth.
#include "support/FileIO.h"
#include "VellAudio/FileWrapper.h"
#include "support/JsonLimits.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <fstream>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace vell {
namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<std::uint8_t>;

Bytes bytesOf(std::string_view text)
{
    return Bytes(text.begin(), text.end());
}

std::vector<std::string> directoryNames(const fs::path& directory)
{
    std::vector<std::string> names;
    for (const auto& entry : fs::directory_iterator(directory)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

class FileIOTest : public ::testing::Test {
protected:
    test::TemporaryDirectory mDirectory;
};

TEST_F(FileIOTest, AtomicWriteReplacesContentsKeepsTheModeAndLeavesNoTemporary)
{
    const auto path = mDirectory / "settings.json";
    ASSERT_TRUE(writeFileAtomically(path, bytesOf("{\"a\":1}")));
    struct stat info {};
    ASSERT_EQ(::stat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0644u);

    ASSERT_EQ(::chmod(path.c_str(), 0600), 0);
    ASSERT_TRUE(writeFileAtomically(path, bytesOf("{}")));
    EXPECT_EQ(*readWholeFile(path), bytesOf("{}"));
    ASSERT_EQ(::stat(path.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);
    EXPECT_EQ(directoryNames(mDirectory.path()), std::vector<std::string>{"settings.json"});

    // Empty contents are a valid file too.
    ASSERT_TRUE(writeFileAtomically(path, Bytes{}));
    EXPECT_TRUE(readWholeFile(path)->empty());
}

TEST_F(FileIOTest, WriteFailingHalfWayLeavesTheOldFileWhole)
{
    // A child process limited to small files: its write of a large file fails part-way
    // (EFBIG), as a full disk would. The old file must stay as it was, with no temporary left.
    const auto path = mDirectory / "document.json";
    ASSERT_TRUE(writeFileAtomically(path, bytesOf("old contents")));

    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        std::signal(SIGXFSZ, SIG_IGN);
        rlimit limit{4096, 4096};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        const Bytes large(100'000, 'x');
        auto result = writeFileAtomically(path, large);
        const bool reportedTooLarge =
            !result && result.error().integerForKey(kPOSIXErrorCodeKey) == EFBIG;
        ::_exit(reportedTooLarge ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0) << "the write did not fail with EFBIG";

    EXPECT_EQ(*readWholeFile(path), bytesOf("old contents"));
    EXPECT_EQ(directoryNames(mDirectory.path()), std::vector<std::string>{"document.json"});
}

TEST_F(FileIOTest, ReadErrorsNameTheFileAndTheCause)
{
    auto missing = readWholeFile(mDirectory / "missing.json");
    ASSERT_FALSE(missing);
    EXPECT_EQ(missing.error().domain(), NSCocoaErrorDomain);
    EXPECT_EQ(missing.error().code(), kFileReadNoSuchFileError);
    EXPECT_EQ(missing.error().stringForKey(NSFilePathErrorKey),
              (mDirectory / "missing.json").string());
    EXPECT_NE(missing.error().localizedDescription().find("missing.json"), std::string::npos);

    auto directory = readWholeFile(mDirectory.path());
    ASSERT_FALSE(directory);
    EXPECT_EQ(directory.error().integerForKey(kPOSIXErrorCodeKey), EISDIR);

    const auto big = mDirectory / "big.bin";
    ASSERT_TRUE(writeFileAtomically(big, Bytes(100, 0)));
    auto tooLarge = readWholeFile(big, 99);
    ASSERT_FALSE(tooLarge);
    EXPECT_EQ(tooLarge.error().code(), kFileReadTooLargeError);
    EXPECT_TRUE(readWholeFile(big, 100));

    auto unwritable = writeFileAtomically(mDirectory / "no-such-dir" / "x.json", bytesOf("x"));
    ASSERT_FALSE(unwritable);
    EXPECT_EQ(unwritable.error().code(), kFileNoSuchFileError);
}

TEST_F(FileIOTest, FileWrapperReadsWholeAndWritesAtomically)
{
    FileWrapper wrapper(bytesOf("{\"playbackSpeed\":0.5}"), "settings.json");
    Error error;
    ASSERT_TRUE(wrapper.writeToPath(mDirectory / wrapper.preferredFilename(), &error))
        << error.description();
    auto read = FileWrapper::create(mDirectory / "settings.json", &error);
    ASSERT_TRUE(read);
    EXPECT_TRUE(read->isRegularFile());
    EXPECT_EQ(read->regularFileContents(), wrapper.regularFileContents());
    EXPECT_EQ(read->preferredFilename(), "settings.json");

    EXPECT_FALSE(FileWrapper::create(mDirectory / "other.json", &error));
    EXPECT_EQ(error.code(), kFileReadNoSuchFileError);
    EXPECT_FALSE(FileWrapper::create(mDirectory / "other.json")); // no error slot: no crash
    EXPECT_FALSE(wrapper.writeToPath(mDirectory / "absent" / "settings.json", &error));
    EXPECT_EQ(error.code(), kFileNoSuchFileError);
}

TEST(JsonLimitsTest, CountsNestingOutsideStringsOnly)
{
    EXPECT_TRUE(jsonNestingWithin("[{\"a\":[1]},{\"b\":{}}]", 3));
    EXPECT_FALSE(jsonNestingWithin("{\"a\":{\"b\":[{}]}}", 3));
    // Brackets inside strings, also after escaped quotes and backslashes, do not count.
    EXPECT_TRUE(jsonNestingWithin("[\"\\\"[[[[\"]", 1));
    EXPECT_FALSE(jsonNestingWithin("[\"\\\\\", [[]]]", 2));
    EXPECT_TRUE(jsonNestingWithin(std::string(100000, ']'), 1));
    EXPECT_FALSE(jsonNestingWithin(std::string(100000, '['), kMaxJsonDepth));
}

} // namespace
} // namespace vell
