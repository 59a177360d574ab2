// Keyed archives: round trips of every kind of value, conversions, and bytes that are not one.
#include "VellAudio/KeyedArchive.h"

#include "support/CborCheck.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>

namespace vell {
namespace {

using Bytes = std::vector<std::uint8_t>;

Bytes sampleArchive()
{
    KeyedArchiver archiver;
    archiver.encodeDouble(0.1, "playbackVolume");
    archiver.encodeBool(true, "metronomeEnabled");
    archiver.encodeInteger(-3, "transpositionInterval");
    archiver.encodeUnsignedInteger(18446744073709551615ull, "loopRange.length");
    archiver.encodeString("Intro \u00e9t\u00e9", "title");
    archiver.encodeBytes(Bytes{0x00, 0xff, 0x10}, "blob");
    archiver.encodeObject(ArchiveValue(0.75), "noteEntryPlaybackVolume");
    archiver.encodeObject(
        ArchiveValue{
            {"regions", ArchiveValue::array({1, 2.5, "x", false})},
            {"raw", ArchiveValue::binary(Bytes{1, 2, 3})},
            {"inner", ArchiveValue{{"deep", ArchiveValue::array({ArchiveValue::object()})}}}},
        "nested");
    return archiver.encodedData();
}

std::unique_ptr<KeyedUnarchiver> open(const Bytes& data, Error* error = nullptr)
{
    return KeyedUnarchiver::create(data, error);
}

TEST(KeyedArchiveTest, EveryKindOfValueRoundTrips)
{
    auto unarchiver = open(sampleArchive());
    ASSERT_TRUE(unarchiver);
    EXPECT_EQ(unarchiver->decodeDoubleForKey("playbackVolume"), 0.1); // exactly
    EXPECT_TRUE(unarchiver->decodeBoolForKey("metronomeEnabled"));
    EXPECT_EQ(unarchiver->decodeIntegerForKey("transpositionInterval"), -3);
    EXPECT_EQ(unarchiver->decodeUnsignedIntegerForKey("loopRange.length"), 18446744073709551615ull);
    EXPECT_EQ(unarchiver->decodeStringForKey("title"), "Intro \u00e9t\u00e9");
    EXPECT_EQ(unarchiver->decodeBytesForKey("blob"), (Bytes{0x00, 0xff, 0x10}));
    EXPECT_EQ(unarchiver->decodeDoubleForKey("noteEntryPlaybackVolume"), 0.75);

    const auto nested = unarchiver->decodeObjectForKey("nested");
    ASSERT_TRUE(nested);
    EXPECT_EQ((*nested)["regions"], ArchiveValue::array({1, 2.5, "x", false}));
    ASSERT_TRUE((*nested)["raw"].is_binary());
    EXPECT_EQ(Bytes((*nested)["raw"].get_binary()), (Bytes{1, 2, 3}));
    EXPECT_TRUE((*nested)["inner"]["deep"][0].is_object());

    EXPECT_EQ(unarchiver->allKeys().size(), 8u);

    // Absent keys decode to zero and nothing, and absence is not an error.
    EXPECT_FALSE(unarchiver->containsValueForKey("playbackSpeed"));
    EXPECT_EQ(unarchiver->decodeDoubleForKey("playbackSpeed"), 0.0);
    EXPECT_FALSE(unarchiver->decodeBoolForKey("loopEnabled"));
    EXPECT_EQ(unarchiver->decodeIntegerForKey("countInMode"), 0);
    EXPECT_FALSE(unarchiver->decodeStringForKey("absentTitle"));
    EXPECT_FALSE(unarchiver->decodeBytesForKey("absentBlob"));
    EXPECT_FALSE(unarchiver->decodeObjectForKey("absentNested"));
    EXPECT_FALSE(unarchiver->error());
}

TEST(KeyedArchiveTest, NumbersConvertAndOtherMismatchesReportAnError)
{
    KeyedArchiver archiver;
    archiver.encodeInteger(2, "speedAsInteger");
    archiver.encodeDouble(-2.75, "framesAsDouble");
    archiver.encodeDouble(1e300, "huge");
    archiver.encodeDouble(0.5, "flag");
    archiver.encodeString("1.0", "text");
    archiver.encodeInteger(-5, "negative");
    archiver.encodeBool(true, "x");
    archiver.encodeBool(false, "x"); // a key encoded again keeps the last value
    auto unarchiver = open(archiver.encodedData());
    ASSERT_TRUE(unarchiver);

    EXPECT_EQ(unarchiver->decodeDoubleForKey("speedAsInteger"), 2.0);
    EXPECT_EQ(unarchiver->decodeIntegerForKey("framesAsDouble"), -2); // toward zero
    EXPECT_EQ(unarchiver->decodeIntegerForKey("huge"), std::numeric_limits<long long>::max());
    EXPECT_TRUE(unarchiver->decodeBoolForKey("flag"));
    EXPECT_EQ(unarchiver->decodeUnsignedIntegerForKey("negative"), 0u);
    EXPECT_FALSE(unarchiver->decodeBoolForKey("x"));
    EXPECT_FALSE(unarchiver->error());

    EXPECT_EQ(unarchiver->decodeDoubleForKey("text"), 0.0);
    ASSERT_TRUE(unarchiver->error());
    EXPECT_EQ(unarchiver->error()->code(), kCoderReadCorruptError);
    EXPECT_NE(unarchiver->error()->localizedFailureReason()->find("text"), std::string::npos);
    EXPECT_FALSE(unarchiver->decodeStringForKey("speedAsInteger"));
    // The first mismatch stays the one reported.
    EXPECT_NE(unarchiver->error()->localizedFailureReason()->find("text"), std::string::npos);
}

TEST(KeyedArchiveTest, BytesThatAreNotAnArchiveGiveAnError)
{
    const auto header = [](ArchiveValue archiver, ArchiveValue version, ArchiveValue top) {
        return ArchiveValue::to_cbor(
            ArchiveValue{{"$archiver", archiver}, {"$version", version}, {"$top", top}});
    };
    const std::vector<std::pair<const char*, Bytes>> cases = {
        {"empty", {}},
        {"text", {'h', 'e', 'l', 'l', 'o'}},
        {"CBOR array", ArchiveValue::to_cbor(ArchiveValue::array({1, 2}))},
        {"map without header", ArchiveValue::to_cbor(ArchiveValue{{"playbackVolume", 1.0}})},
        {"wrong archiver", header("Other", 1, ArchiveValue::object())},
        {"newer version", header("VellKeyedArchiver", 2, ArchiveValue::object())},
        {"version past the signed range",
         header("VellKeyedArchiver", 18446744073709551615ull, ArchiveValue::object())},
        {"top not a map", header("VellKeyedArchiver", 1, 5)},
        {"array claiming 2^64-1 items", {0x9b, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff, 0xff}},
        {"string longer than the data", {0x7a, 0x7f, 0xff, 0xff, 0xff, 'a'}},
        {"tagged item", {0xc1, 0x1a, 0, 0, 0, 0}},
        {"stray break", {0xff}},
        {"reserved encoding", {0x1c}},
        {"trailing bytes",
         [] {
             Bytes b = sampleArchive();
             b.push_back(0x00);
             return b;
         }()},
        {"map key not a string", {0xa1, 0x01, 0x02}},
    };
    for (const auto& [name, bytes] : cases) {
        SCOPED_TRACE(name);
        Error error;
        EXPECT_FALSE(open(bytes, &error));
        EXPECT_EQ(error.domain(), NSCocoaErrorDomain);
        EXPECT_EQ(error.code(), kCoderReadCorruptError);
        EXPECT_FALSE(error.localizedDescription().empty());
    }
    EXPECT_TRUE(open(header("VellKeyedArchiver", 1, ArchiveValue::object())));
}

TEST(KeyedArchiveTest, DeepNestingIsRefusedWithoutRecursing)
{
    // A million nested one-element arrays would overflow the stack of a recursive decoder.
    Bytes bytes(1'000'000, 0x81);
    bytes.push_back(0x00);
    Error error;
    EXPECT_FALSE(open(bytes, &error));
    EXPECT_EQ(error.code(), kCoderReadCorruptError);
    EXPECT_EQ(detail::checkCbor(bytes, kKeyedArchiveMaxDepth), detail::CborCheck::tooDeep);

    // Nesting up to the limit is fine.
    ArchiveValue value = 0;
    for (std::size_t i = 0; i < kKeyedArchiveMaxDepth - 1; ++i) {
        value = ArchiveValue::array({value});
    }
    KeyedArchiver archiver;
    archiver.encodeObject(value, "deep");
    EXPECT_TRUE(open(archiver.encodedData()));
}

TEST(KeyedArchiveTest, EveryTruncationAndRandomCorruptionFailsCleanly)
{
    const Bytes good = sampleArchive();
    for (std::size_t size = 0; size < good.size(); ++size) {
        SCOPED_TRACE(size);
        Error error;
        EXPECT_FALSE(open(Bytes(good.begin(), good.begin() + static_cast<long>(size)), &error));
        EXPECT_EQ(error.code(), kCoderReadCorruptError);
    }

    std::mt19937 random(1234);
    for (int round = 0; round < 3000; ++round) {
        Bytes mutated = good;
        const int flips = 1 + static_cast<int>(random() % 4);
        for (int i = 0; i < flips; ++i) {
            mutated[random() % mutated.size()] = static_cast<std::uint8_t>(random());
        }
        Error error;
        auto unarchiver = open(mutated, &error);
        if (!unarchiver) {
            EXPECT_EQ(error.code(), kCoderReadCorruptError);
            continue;
        }
        // Whatever was read must decode without trouble.
        for (const auto& key : unarchiver->allKeys()) {
            (void)unarchiver->decodeDoubleForKey(key);
            (void)unarchiver->decodeStringForKey(key);
            (void)unarchiver->decodeObjectForKey(key);
        }
    }
}

TEST(CborCheckTest, IndefiniteLengthsAndBreaks)
{
    using detail::CborCheck;
    using detail::checkCbor;
    // [_ 1, [2]], {_ "a": 1} and (_ "ab" "c") as chunks
    EXPECT_EQ(checkCbor(Bytes{0x9f, 0x01, 0x81, 0x02, 0xff}, 8), CborCheck::ok);
    EXPECT_EQ(checkCbor(Bytes{0xbf, 0x61, 'a', 0x01, 0xff}, 8), CborCheck::ok);
    EXPECT_EQ(checkCbor(Bytes{0x7f, 0x62, 'a', 'b', 0x61, 'c', 0xff}, 8), CborCheck::ok);
    EXPECT_EQ(checkCbor(Bytes{0x9f, 0x01}, 8), CborCheck::truncated);
    EXPECT_EQ(checkCbor(Bytes{0x82, 0x01, 0xff}, 8), CborCheck::malformed);
    EXPECT_EQ(checkCbor(Bytes{0x1f}, 8), CborCheck::malformed); // indefinite integer
    EXPECT_EQ(checkCbor(Bytes{0x81, 0x81, 0x00}, 2), CborCheck::ok);
    EXPECT_EQ(checkCbor(Bytes{0x9f, 0x9f, 0x9f, 0xff, 0xff, 0xff}, 2), CborCheck::tooDeep);
}

} // namespace
} // namespace vell
