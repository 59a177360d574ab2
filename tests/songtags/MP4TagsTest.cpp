// MP4 tags: reading items, writing them in place, and repairing the chunk offsets.
#include <VellAudio/MP4Tags.h>

#include "songtags/mp4/MP4Atom.h"

#include "SongTagTestSupport.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace vell {
namespace {

using test::atom;
using test::be32;
using test::Bytes;
using test::concat;

constexpr std::uint32_t kTitle = 0xA96E616D;

/// An item atom as stored: ITEM { data { flags, locale, value } }.
Bytes item(std::string_view type, std::uint32_t dataType, const Bytes& value)
{
    return atom(type, atom("data", concat({be32(dataType), be32(0), value})));
}

Bytes udtaWith(const Bytes& items)
{
    return atom("udta", atom("meta", concat({be32(0), atom("hdlr", Bytes(26, 0)), atom("ilst", items)})));
}

class MP4TagsTest : public testing::Test {
protected:
    std::unique_ptr<MP4Tags> open(const Bytes& data)
    {
        test::writeBytes(path(), data);
        return MP4Tags::create(path(), O_RDWR);
    }
    std::filesystem::path path() const { return mDirectory / "song.m4a"; }
    Bytes contents() const { return test::readBytes(path()); }

    test::TemporaryDirectory mDirectory;
};

TEST_F(MP4TagsTest, SettingATitleBuildsTheTreeAndShiftsChunkOffsetsWhenMediaFollows)
{
    for (const bool mdatFirst : {false, true}) {
        SCOPED_TRACE(mdatFirst ? "mdat first" : "moov first");
        const Bytes before = test::makeMP4({.mdatFirst = mdatFirst});
        auto tags = open(before);
        EXPECT_EQ(tags->title(), std::nullopt);
        tags->setTitle("Blue in Green");
        const Bytes after = contents();

        const std::size_t itemSize = 8 + 16 + 13;
        EXPECT_EQ(after.size(), before.size() + 8 + 12 + 34 + 8 + itemSize);
        EXPECT_EQ(tags->title(), "Blue in Green");
        EXPECT_EQ(test::chunkContents(after, 16), test::chunkContents(before, 16));
        const auto oldOffsets = test::chunkOffsets(before)[0];
        const auto newOffsets = test::chunkOffsets(after)[0];
        for (std::size_t i = 0; i < oldOffsets.size(); ++i) {
            EXPECT_EQ(newOffsets[i] - oldOffsets[i], mdatFirst ? 0u : 8 + 12 + 34 + 8 + itemSize);
        }

        // A shorter value shrinks the file and lowers the offsets by the difference.
        tags->setTitle("Blue");
        EXPECT_EQ(contents().size(), after.size() - 9);
        EXPECT_EQ(tags->title(), "Blue");
        EXPECT_EQ(test::chunkContents(contents(), 16), test::chunkContents(before, 16));
    }
}

TEST_F(MP4TagsTest, ValuesReadByDataType)
{
    const Bytes items = concat({item("\xA9nam", 1, concat({Bytes{0, 0}, test::bytes("So What"), Bytes{0}})),
                                item("\xA9" "ART", 1, Bytes{'M', 0xC3, 0xA9, 'l'}),
                                item("\xA9" "alb", 1, Bytes{'K', 0xC0, 0x80}), // overlong NUL
                                item("\xA9" "cmt", 2, test::bytes("UTF-16 type")),
                                item("\xA9" "day", 1, test::bytes("1959-08-17T07:00:00Z")),
                                item("covr", 13, test::jpegImage(8, 4))});
    auto tags = open(test::makeMP4({.udta = udtaWith(items)}));
    EXPECT_EQ(tags->title(), "So What");
    EXPECT_EQ(tags->artist(), "M\xC3\xA9l");
    EXPECT_EQ(tags->album(), std::nullopt);
    EXPECT_EQ(tags->comment(), std::nullopt);
    EXPECT_EQ(tags->lyrics(), std::nullopt);
    EXPECT_EQ(tags->releaseDate(), "1959-08-17T07:00:00Z");
    ASSERT_TRUE(tags->coverArt());
    EXPECT_EQ(tags->coverArt()->width(), 8);

    // Writing any cover stores PNG (type 14); raw bytes (type 0) are decoded too.
    tags->setCoverArt(VellImage::imageWithData(test::jpegImage(4, 2)));
    std::uint32_t flags = 0;
    const auto stored = MP4Tags::readDataAtom(*tags->readAtom(fourCharCode("covr")), &flags);
    EXPECT_EQ(flags, kPNGAtomType);
    EXPECT_EQ(VellImage::imageWithData(*stored)->sourceFormat(), "png");
    tags->setData(test::pngImage(3, 3), fourCharCode("covr"), kDataAtomType);
    EXPECT_EQ(tags->coverArt()->height(), 3);
    tags->setData(test::pngImage(3, 3), fourCharCode("covr"), kUINT8AtomType);
    EXPECT_EQ(tags->coverArt(), std::nullopt);
}

TEST_F(MP4TagsTest, ChunkOffsetRepairCoversTheFirstTrackAndLeavesTheFirstWideOffset)
{
    for (const bool wide : {false, true}) {
        SCOPED_TRACE(wide ? "co64" : "stco");
        const Bytes before = test::makeMP4({.tracks = 2, .wideOffsets = wide});
        open(before)->setAlbum("Kind of Blue");
        const auto oldOffsets = test::chunkOffsets(before);
        const auto newOffsets = test::chunkOffsets(contents());
        const std::uint64_t grown = contents().size() - before.size();
        // Track 1 moves with the media, except co64's first entry; track 2 is left alone.
        for (std::size_t i = 0; i < oldOffsets[0].size(); ++i) {
            EXPECT_EQ(newOffsets[0][i], oldOffsets[0][i] + (wide && i == 0 ? 0 : grown)) << i;
        }
        EXPECT_EQ(newOffsets[1], oldOffsets[1]);
    }
    EXPECT_EQ(MP4Tags::fixStco32(concat({be32(0), be32(1), be32(10), Bytes{1, 2}}), -4),
              concat({be32(0), be32(1), be32(6), Bytes{1, 2}}));
}

TEST_F(MP4TagsTest, UserDataRoundTripsAndItsLookupLimitIsTheIdentifiersFirstWord)
{
    auto tags = open(test::makeMP4({}));
    const MP4UUID small = {0, 0, 0, 40, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    tags->setUserData(test::bytes("practice"), small, kStringAtomType);
    const auto value = tags->readUUIDAtom(small);
    ASSERT_TRUE(value);
    EXPECT_EQ(std::get<std::string>(*value), "practice");
    // Only the first uuid atom is examined; another identifier replaces it.
    MP4UUID other = small;
    other[15] = 99;
    EXPECT_EQ(tags->readUUIDAtom(other), std::nullopt);
    // A first word below 8 leaves no room for the data atom: nothing, as designed.
    const MP4UUID tiny = {0, 0, 0, 4, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12};
    tags->setUserData(test::bytes("x"), tiny, kStringAtomType);
    EXPECT_EQ(tags->readUUIDAtom(tiny), std::nullopt);
    EXPECT_EQ(tags->readUUIDAtom(small), std::nullopt);
}

TEST_F(MP4TagsTest, DamagedFilesReadAsNoTagsAndNeverReadPastTheData)
{
    const Bytes whole = test::makeMP4({.mdatFirst = true, .udta = udtaWith(item("\xA9nam", 1, test::bytes("T")))});
    const std::string_view moovType = "moov";
    const auto moovStart = std::size_t(std::search(whole.begin(), whole.end(), moovType.begin(), moovType.end()) -
                                       whole.begin()) - 4;
    // Every cut inside moov: a partial download has no tags.
    for (std::size_t cut = moovStart; cut < whole.size(); ++cut) {
        SCOPED_TRACE(cut);
        auto tags = open(Bytes(whole.begin(), whole.begin() + std::ptrdiff_t(cut)));
        EXPECT_EQ(tags->title(), std::nullopt);
        EXPECT_EQ(tags->coverArt(), std::nullopt);
    }
    EXPECT_EQ(open(whole)->title(), "T");

    // A million tiny atoms before moov are walked in bounded time and memory.
    Bytes tiny;
    tiny.reserve(8'000'100);
    for (int i = 0; i < 1'000'000; ++i) {
        const Bytes one = atom("free");
        tiny.insert(tiny.end(), one.begin(), one.end());
    }
    const Bytes moov = atom("moov", udtaWith(item("\xA9nam", 1, test::bytes("deep"))));
    tiny.insert(tiny.end(), moov.begin(), moov.end());
    EXPECT_EQ(open(tiny)->title(), "deep");

    // No moov: nothing is written, the file is untouched.
    const Bytes noMovie = concat({atom("ftyp", Bytes(8)), atom("mdat", Bytes(40, 1))});
    test::LogCapture log;
    open(noMovie)->setTitle("x");
    EXPECT_EQ(contents(), noMovie);
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.lines()[0], "MP4Tags.cpp : (ERROR) No moov atom found in file!");
}

} // namespace
} // namespace vell
