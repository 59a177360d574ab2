// The ID3v2 reader: header checks, frame search, text and picture frames, bounded reads.
#include <VellAudio/MP3Tags.h>

#include "songtags/mp3/BRIXID3v2Frame.h"
#include "songtags/mp3/BRIXID3v2Tag.h"

#include "SongTagTestSupport.h"
#include "TestSupport.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <random>
#include <unistd.h>

namespace vell {
namespace {

using test::Bytes;
using test::concat;
using test::id3Frame;
using test::id3Tag;

constexpr std::uint16_t k23 = 0x0300;
constexpr std::uint16_t k24 = 0x0400;

/// A text frame body: the encoding byte, then the bytes.
Bytes textBody(std::uint8_t encoding, const Bytes& text)
{
    return concat({{encoding}, text});
}

/// The MP3 file a tag opens (the tag and some bytes standing for audio).
class BRIXID3v2TagTest : public testing::Test {
protected:
    std::shared_ptr<BRIXID3v2Tag> open(const Bytes& data)
    {
        test::writeBytes(path(), data);
        if (mFd >= 0) {
            ::close(mFd);
        }
        mFd = ::open(path().c_str(), O_RDONLY);
        return BRIXID3v2Tag::create(mFd);
    }
    std::optional<std::string> title(const Bytes& data)
    {
        const auto tag = open(data);
        const auto frame = tag ? tag->textFrameWithIdentifier(kBRIXID3v2TitleFrameIdentifier) : nullptr;
        return frame ? std::optional(frame->text()) : std::nullopt;
    }
    std::filesystem::path path() const { return mDirectory / "song.mp3"; }
    void TearDown() override
    {
        if (mFd >= 0) {
            ::close(mFd);
        }
    }

    test::TemporaryDirectory mDirectory;
    int mFd = -1;
};

TEST_F(BRIXID3v2TagTest, OnlyVersions23And24AtTheVeryStartAreTags)
{
    const Bytes frames = id3Frame("TIT2", textBody(3, test::bytes("Title")), k23);
    const Bytes audio(64, 0xFF);
    EXPECT_TRUE(open(concat({id3Tag(k23, frames), audio})));
    EXPECT_TRUE(open(concat({id3Tag(k24, frames), audio})));
    EXPECT_FALSE(open(concat({id3Tag(0x0200, frames), audio})));
    EXPECT_FALSE(open(concat({id3Tag(0x0401, frames), audio})));
    EXPECT_FALSE(open(concat({Bytes{0}, id3Tag(k23, frames), audio})));
    EXPECT_FALSE(open(test::bytes("ID")));
    EXPECT_FALSE(open({}));
}

TEST_F(BRIXID3v2TagTest, FrameSizesAreSynchsafeOnlyInVersion24)
{
    // 0x00 00 01 00 is 256 as a plain number and 128 as a synchsafe one.
    const Bytes body = textBody(3, Bytes(255, 'a'));
    const Bytes rawSize = concat({test::bytes("TIT2"), test::be32(256), Bytes{0, 0}, body});
    EXPECT_EQ(title(concat({id3Tag(k23, rawSize), Bytes(300, 0)}))->size(), 255u);
    EXPECT_EQ(title(concat({id3Tag(k24, rawSize), Bytes(300, 0)}))->size(), 127u);
}

TEST_F(BRIXID3v2TagTest, TextFramesAreDecodedAsUTF8WhateverTheirEncodingByte)
{
    const auto titled = [](std::uint8_t encoding, const Bytes& text) {
        return concat({id3Tag(k24, id3Frame("TIT2", textBody(encoding, text), k24)), Bytes(32, 0xFF)});
    };
    EXPECT_EQ(title(titled(3, Bytes{'C', 'a', 'f', 0xC3, 0xA9, 0, 0})), "Caf\xC3\xA9");
    EXPECT_EQ(title(titled(0, test::bytes("Plain ASCII"))), "Plain ASCII");
    EXPECT_EQ(title(titled(0, Bytes{'C', 'a', 'f', 0xE9})), std::nullopt); // Latin-1 é
    EXPECT_EQ(title(titled(1, Bytes{0xFF, 0xFE, 'H', 0, 'i', 0})), std::nullopt); // UTF-16
    EXPECT_EQ(title(id3Tag(k23, id3Frame("TIT2", {}, k23))), "");
    // Invalid UTF-8 of every kind yields no frame.
    for (const Bytes& bad : {Bytes{0x80}, Bytes{0xC3}, Bytes{0xC0, 0xAF}, Bytes{0xE0, 0x80, 0xAF},
                             Bytes{0xED, 0xA0, 0x80}, Bytes{0xF4, 0x90, 0x80, 0x80}, Bytes{0xF8, 0x88, 0x80, 0x80, 0x80},
                             Bytes{0xFF}, Bytes{0xE2, 0x82}, Bytes{'a', 0xC3, 'b'}}) {
        SCOPED_TRACE(testing::PrintToString(bad));
        EXPECT_EQ(title(titled(3, bad)), std::nullopt);
    }
}

TEST_F(BRIXID3v2TagTest, HostileSizesEndInNothingWithoutReadingPastTheFile)
{
    // A frame of size 0xFFFFFFFF, a tag claiming 256 MB in a 1 KB file, a frame cut short.
    const Bytes huge = concat({test::bytes("TIT2"), test::be32(0xFFFFFFFF), Bytes{0, 0, 3, 'x'}});
    EXPECT_EQ(title(concat({id3Tag(k23, huge), Bytes(1000, 0)})), std::nullopt);
    const Bytes claim = id3Tag(k24, id3Frame("TIT2", textBody(3, test::bytes("ok")), k24), (256 << 20) - 1);
    EXPECT_EQ(title(concat({claim, Bytes(1000, 0)})), "ok");
    const Bytes whole = id3Tag(k23, id3Frame("TIT2", textBody(3, test::bytes("cut")), k23));
    EXPECT_EQ(title(Bytes(whole.begin(), whole.end() - 1)), std::nullopt);
    // An identifier found inside an earlier frame's content is taken as a frame there.
    const Bytes hidden = concat({test::bytes("TIT2"), test::be32(5), Bytes{0, 0, 3, 'z', 'z'}});
    const Bytes inside = id3Frame("COMM", textBody(3, hidden), k23);
    EXPECT_EQ(title(concat({id3Tag(k23, inside), Bytes(16, 0)})), "zz");
}

TEST_F(BRIXID3v2TagTest, PictureDataStartsAfterTheDescriptionsCharacterCount)
{
    const Bytes png = test::pngImage(5, 4);
    const auto pictureFrame = [&](std::uint8_t encoding, const Bytes& description) {
        const Bytes body = concat({{encoding}, test::bytes("image/png"), {0}, {3}, description, {0}, png});
        // Audio after the tag: the whole frame size is read from the picture's start.
        return concat({id3Tag(k23, id3Frame("APIC", body, k23)), Bytes(256, 0xFF)});
    };
    const auto picture = [&](const Bytes& file) {
        const auto tag = open(file);
        return tag ? tag->pictureFrameWithIdentifier(kBRIXID3v2ArtworkFrameIdentifier) : nullptr;
    };
    const auto ascii = picture(pictureFrame(3, test::bytes("Cover")));
    ASSERT_TRUE(ascii);
    EXPECT_EQ(ascii->image().width(), 5);
    EXPECT_EQ(ascii->MIMEType(), "image/png");
    EXPECT_EQ(ascii->pictureType(), 3);
    EXPECT_EQ(ascii->pictureDescription(), "Cover");
    // "é" is 2 bytes but one character: the picture is looked for a byte early and fails.
    EXPECT_FALSE(picture(pictureFrame(3, Bytes{0xC3, 0xA9})));
    // Without bytes after the tag the read of the whole frame size runs short.
    Bytes atEnd = pictureFrame(3, test::bytes("Cover"));
    atEnd.resize(atEnd.size() - 256);
    EXPECT_FALSE(picture(atEnd));
}

TEST_F(BRIXID3v2TagTest, BufferedScansAnswerAsOneReadPerByte)
{
    // Random bytes over several read windows with the pattern planted near window edges.
    Bytes data(300'000);
    std::mt19937 random(3);
    for (auto& byte : data) {
        byte = std::uint8_t('A' + random() % 4);
    }
    for (const std::size_t at : {std::size_t(65534), std::size_t(131071), std::size_t(299'996)}) {
        std::copy_n("TPE1", 4, data.begin() + std::ptrdiff_t(at));
    }
    data[200'000] = 0;
    open(data);
    const std::array<std::int64_t, 4> table = {-1, 0, 0, 0};
    const std::array<std::uint8_t, 4> pattern = {'T', 'P', 'E', '1'};
    // The same scan with one positioned read per byte.
    const auto reference = [&](std::uint64_t from, std::uint64_t to) {
        const std::uint64_t end = std::min<std::uint64_t>(data.size(), to);
        std::uint64_t m = from;
        std::size_t i = 0;
        for (;;) {
            if (m + i >= end) {
                return end;
            }
            std::uint8_t byte = 0;
            EXPECT_EQ(::pread(mFd, &byte, 1, off_t(m + i)), 1);
            if (byte == pattern[i]) {
                if (++i == 4) {
                    return m;
                }
                continue;
            }
            m = table[i] >= 0 ? m + i - std::uint64_t(table[i]) : m + i + 1;
            i = table[i] >= 0 ? std::size_t(table[i]) : 0;
        }
    };
    for (const auto& [from, to] : {std::pair<std::uint64_t, std::uint64_t>{0, 400'000}, {65535, 300'000},
                                   {131072, 299'999}, {10, 20}, {299'990, 300'000}}) {
        SCOPED_TRACE(from);
        EXPECT_EQ(BRIXID3v2Tag::kmpOffsetOfString(pattern, mFd, from, to, table), reference(from, to));
    }
    EXPECT_EQ(BRIXID3v2Tag::getLengthOfNullTerminatedString(mFd, 70'000, detail::TextEncoding::UTF8),
              200'000u - 70'000u);
    EXPECT_EQ(BRIXID3v2Tag::getLengthOfNullTerminatedString(mFd, 200'001, detail::TextEncoding::UTF8),
              std::nullopt);
    EXPECT_EQ(BRIXID3v2Tag::getLengthOfNullTerminatedString(mFd, 300'000, detail::TextEncoding::UTF8),
              std::nullopt);
}

TEST_F(BRIXID3v2TagTest, MP3TagsReadTheSevenFieldsAndSettersTouchOnlyMemory)
{
    const Bytes frames = concat({id3Frame("TIT2", textBody(3, test::bytes("Title")), k24),
                                 id3Frame("TPE1", textBody(3, test::bytes("Artist")), k24),
                                 id3Frame("COMM", textBody(3, test::bytes(std::string_view("eng\0Nice", 8))), k24),
                                 id3Frame("TDOR", textBody(3, test::bytes("1959")), k24)});
    const Bytes file = concat({id3Tag(k24, frames), Bytes(64, 0xFF)});
    test::writeBytes(path(), file);
    auto tags = MP3Tags::create(path());
    ASSERT_TRUE(tags);
    EXPECT_EQ(tags->title(), "Title");
    EXPECT_EQ(tags->artist(), "Artist");
    EXPECT_EQ(tags->album(), std::nullopt);
    EXPECT_EQ(tags->comment(), std::string("eng\0Nice", 8));
    EXPECT_EQ(tags->releaseDate(), "1959");
    EXPECT_EQ(tags->coverArt(), std::nullopt);
    EXPECT_EQ(tags->description(),
              std::string("<MP3Tags: title: Title, artist: Artist, comment: eng\0Nice, >", 60));
    tags->setTitle("Changed");
    EXPECT_EQ(tags->title(), "Changed");
    EXPECT_EQ(test::readBytes(path()), file);
}

} // namespace
} // namespace vell
