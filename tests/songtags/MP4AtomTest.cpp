// The atom model's walks and searches, the in-place primitives, and their designed aborts.
#include "songtags/TagFileOperations.h"
#include "songtags/mp4/FileInsertion.h"
#include "songtags/mp4/MP4Atom.h"

#include "SongTagTestSupport.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <random>
#include <unistd.h>

namespace vell {
namespace {

using test::atom;
using test::atomWithSize;
using test::be32;
using test::Bytes;
using test::concat;

class MP4AtomTest : public testing::Test {
protected:
    /// Writes the bytes to a file and opens it (read-write unless told).
    int open(const Bytes& data, int flags = O_RDWR)
    {
        mPath = mDirectory / "file.mp4";
        test::writeBytes(mPath, data);
        mFd = ::open(mPath.c_str(), flags);
        return mFd;
    }
    Bytes contents() const { return test::readBytes(mPath); }
    void TearDown() override
    {
        if (mFd >= 0) {
            ::close(mFd);
        }
    }

    test::TemporaryDirectory mDirectory;
    std::filesystem::path mPath;
    int mFd = -1;
};

TEST_F(MP4AtomTest, WalkStopsAtZeroSizeStepsLiterallyAndIgnoresAtomsPastTheFile)
{
    const Bytes wanted = atom("want", Bytes(4, 9));
    // A zero size ends the walk even though the wanted atom follows.
    int fd = open(atom("moov", concat({atomWithSize(0, "zero", Bytes(4)), wanted})));
    EXPECT_EQ(MP4Atom::fileAtomWithType(fourCharCode("moov"), fd)->childAtomWithType(fourCharCode("want")),
              nullptr);
    ::close(fd);

    // Sizes below 8 are steps of that many bytes: a 5-byte step lands on a header made of the
    // first atom's type bytes and the byte after.
    const Bytes stepped = concat({be32(5), Bytes{'A', 0, 0, 0}, Bytes{20}, test::bytes("want"), Bytes(12, 0)});
    fd = open(atom("moov", stepped));
    auto found = MP4Atom::fileAtomWithType(fourCharCode("moov"), fd)->childAtomWithType(fourCharCode("want"));
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->offset(), 8u + 5u);
    EXPECT_EQ(found->length(), 20u);
    ::close(fd);

    // A child running past the file, a parent running past the file, a header cut short.
    for (const Bytes& file : {atom("moov", atomWithSize(4000, "want", Bytes(8))),
                              concat({atomWithSize(4000, "moov", Bytes()), wanted}),
                              concat({atom("moov", Bytes()), Bytes{0, 0, 0, 16, 'w'}})}) {
        SCOPED_TRACE(file.size());
        fd = open(file);
        const auto moov = MP4Atom::fileAtomWithType(fourCharCode("moov"), fd);
        if (moov) {
            EXPECT_EQ(moov->childAtomWithType(fourCharCode("want")), nullptr);
            EXPECT_EQ(moov->findChildAtomWithType(fourCharCode("want")), nullptr);
        }
        EXPECT_EQ(MP4Atom::fileAtomWithType(fourCharCode("want"), fd), nullptr);
        ::close(fd);
        mFd = -1;
    }
}

TEST_F(MP4AtomTest, ByteSearchFindsTypesInsidePayloadsAndMetaChildrenStartAt12)
{
    // The search finds an atom hidden inside another's payload, which the walk never enters.
    const Bytes hidden = atom("wrap", concat({Bytes(70000, 1), atom("want", Bytes(3, 7))}));
    int fd = open(atom("moov", hidden));
    const auto moov = MP4Atom::fileAtomWithType(fourCharCode("moov"), fd);
    EXPECT_EQ(moov->childAtomWithType(fourCharCode("want")), nullptr);
    const auto found = moov->findChildAtomWithType(fourCharCode("want"));
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->offset(), 16u + 70000u);
    EXPECT_EQ(found->childData(), Bytes(3, 7));
    ::close(fd);

    // meta: 4 bytes of version and flags come before the children.
    fd = open(atom("meta", concat({be32(0), atom("hdlr", Bytes(4, 5))})));
    const auto meta = MP4Atom::fileAtomWithType(fourCharCode("meta"), fd);
    const auto hdlr = meta->childAtomWithType(fourCharCode("hdlr"));
    ASSERT_NE(hdlr, nullptr);
    EXPECT_EQ(hdlr->offset(), 12u);
    EXPECT_EQ(meta->childData()->size(), 12u);
    EXPECT_EQ(meta->description(), "{(24),('meta')}");
}

TEST_F(MP4AtomTest, MemoryAtomsComputeTheirBytesAndMoveAReplacedChildToTheEnd)
{
    auto parent = MP4Atom::memoryAtomWithType(fourCharCode("ilst"), Bytes{1, 2});
    for (const char* type : {"aaaa", "bbbb", "cccc"}) {
        parent->addChild(MP4Atom::memoryAtomWithType(fourCharCode(type), Bytes(4, 0)));
    }
    EXPECT_EQ(parent->length(), 8u + 2u + 3u * 12u);
    const std::uint32_t delta = parent->replaceChildAtomOfType(
        fourCharCode("aaaa"), MP4Atom::memoryAtomWithType(fourCharCode("aaaa"), Bytes(10, 0)));
    EXPECT_EQ(delta, 6u);
    ASSERT_EQ(parent->children().size(), 3u);
    EXPECT_EQ(parent->children().back()->type(), fourCharCode("aaaa"));
    const Bytes data = *parent->data();
    EXPECT_EQ(data.size(), parent->length());
    EXPECT_EQ(Bytes(data.begin(), data.begin() + 10), concat({be32(52), test::bytes("ilst"), {1, 2}}));
}

/// Insertions and removals compared with the same edit made in memory, across page bounds.
struct MoveCase {
    std::size_t fileSize;
    std::uint64_t at;
    std::size_t count;
};

class FileInsertionTest : public MP4AtomTest, public testing::WithParamInterface<MoveCase> {};

TEST_P(FileInsertionTest, InsertThenRemoveMatchesTheEditInMemory)
{
    const auto [fileSize, at, count] = GetParam();
    Bytes original(fileSize);
    std::mt19937 random(7);
    for (auto& byte : original) {
        byte = std::uint8_t(random());
    }
    Bytes inserted(count);
    for (auto& byte : inserted) {
        byte = std::uint8_t(random());
    }
    const int fd = open(original);

    EXPECT_EQ(brix_insertdata(fd, inserted.data(), inserted.size(), at), ssize_t(count));
    Bytes expected = original;
    if (at > expected.size()) {
        expected.resize(at + count, 0);
        std::copy(inserted.begin(), inserted.end(), expected.begin() + std::ptrdiff_t(at));
    } else {
        expected.insert(expected.begin() + std::ptrdiff_t(at), inserted.begin(), inserted.end());
    }
    ASSERT_EQ(contents(), expected);

    brix_reducefile(fd, count, at);
    expected.erase(expected.begin() + std::ptrdiff_t(std::min<std::uint64_t>(at, expected.size())),
                   expected.begin() + std::ptrdiff_t(std::min<std::uint64_t>(at + count, expected.size())));
    EXPECT_EQ(contents(), expected);
}

const std::size_t kPage = insertionPageSize();

INSTANTIATE_TEST_SUITE_P(
    Moves, FileInsertionTest,
    testing::Values(MoveCase{100, 10, 5}, MoveCase{100, 100, 7}, MoveCase{100, 150, 7},
                    MoveCase{3 * kPage + 123, 17, 100}, MoveCase{3 * kPage, kPage, kPage},
                    MoveCase{3 * kPage + 5, 3 * kPage - 1, 2 * kPage + 3}, MoveCase{0, 0, 9},
                    MoveCase{5 * kPage, 0, 1}));

TEST_F(MP4AtomTest, ReplacingAChildResizesTheFileAndItsParent)
{
    const Bytes tail = test::bytes("TAIL-BYTES");
    const auto fileWith = [&](std::size_t childPayload) {
        return concat({atom("moov", concat({atom("aaaa", Bytes(4, 1)),
                                            atom("item", Bytes(childPayload, 2)),
                                            atom("zzzz", Bytes(4, 3))})),
                       tail});
    };
    for (const std::size_t newPayload : {std::size_t(92), std::size_t(52), std::size_t(140)}) {
        SCOPED_TRACE(newPayload);
        const int fd = open(fileWith(92));
        auto moov = MP4Atom::fileAtomWithType(fourCharCode("moov"), fd);
        const std::uint32_t delta = moov->replaceChildAtomOfType(
            fourCharCode("item"), MP4Atom::memoryAtomWithType(fourCharCode("item"), Bytes(newPayload, 2)));
        EXPECT_EQ(std::int32_t(delta), std::int32_t(newPayload) - 92);
        EXPECT_EQ(contents(), fileWith(newPayload));
        ::close(fd);
        mFd = -1;
    }
    // Without such a child the new one is appended.
    const int fd = open(concat({atom("moov", Bytes()), tail}));
    auto moov = MP4Atom::fileAtomWithType(fourCharCode("moov"), fd);
    EXPECT_EQ(moov->replaceChildAtomOfType(fourCharCode("item"), MP4Atom::memoryAtomWithType(fourCharCode("item"), {})),
              8u);
    EXPECT_EQ(contents(), concat({atom("moov", atom("item")), tail}));
}

// The in-place primitives stop the process with their designed expression texts.
using MP4AtomDeathTest = MP4AtomTest;

TEST_F(MP4AtomDeathTest, EditingFailuresAbortWithTheirExpressionTexts)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const Bytes file = atom("moov", atom("aaaa", Bytes(4)));
    int fd = open(file, O_RDONLY);
    auto moov = MP4Atom::fileAtomWithType(fourCharCode("moov"), fd);
    EXPECT_DEATH(moov->addChild(MP4Atom::memoryAtomWithType(fourCharCode("udta"), {})),
                 "assertion failed: status == 0");
    EXPECT_DEATH(moov->setLength(99), "assertion failed: bytes_written == 4");
    EXPECT_DEATH(brix_insertdata(fd, nullptr, 3, 0), "assertion failed: inData");
    EXPECT_DEATH(brix_reducefile(fd, 1000, 0), "assertion failed: fileLength >= deletionLength");
    EXPECT_DEATH(moov->setChildData(Bytes(2)), "assertion failed: bytes_written == length");
    EXPECT_DEATH(MP4FileAtom(4000, fd).length(), "assertion failed: bytes_read == 4");
    // A zero count changes nothing, even on a read-only file.
    const std::uint8_t byte = 0;
    EXPECT_EQ(brix_insertdata(fd, &byte, 0, 0), 0);
}

} // namespace
} // namespace vell
