// Fuzz target: keyed archives and the structural CBOR check in front of their decoder.
//
// Invariants: reading never throws; a refusal says it is corrupt coder data; only archives of
// this version or older open; typed decoding returns what the value holds or notes a mismatch;
// every value archived again reads back the same; and the structural check never refuses CBOR
// the decoder reads, unless it nests too deeply.
#include "FuzzSupport.h"
#include "FuzzTarget.h"

#include "support/CborCheck.h"

#include <VellAudio/KeyedArchive.h>

#include <algorithm>
#include <span>
#include <vector>

namespace {

using vell::ArchiveValue;
using vell::KeyedUnarchiver;

// Arrays and maps nested around the deepest scalar (0 for a scalar), without recursion.
std::size_t containerDepth(const ArchiveValue& value)
{
    std::size_t deepest = 0;
    std::vector<std::pair<const ArchiveValue*, std::size_t>> pending{{&value, 0}};
    while (!pending.empty()) {
        const auto [node, depth] = pending.back();
        pending.pop_back();
        if (node->is_structured()) {
            deepest = std::max(deepest, depth + 1);
            for (const auto& child : *node) {
                pending.emplace_back(&child, depth + 1);
            }
        }
    }
    return deepest;
}

// The decoder recurses once per nesting level, and each byte can open a level: only inputs
// this small are handed to it unchecked (a few thousand levels overflow the stack under
// AddressSanitizer).
constexpr std::size_t kLargestUncheckedInput = 1024;

// Whether an array or map declares 2^64 - 1 items, which the decoder takes for an
// indefinite length (its marker for one) and the check, rightly, for a count beyond the data.
bool declaresLargestCount(std::span<const std::uint8_t> bytes)
{
    for (std::size_t i = 0; i + 9 <= bytes.size(); ++i) {
        if ((bytes[i] == 0x9b || bytes[i] == 0xbb) &&
            std::all_of(bytes.begin() + static_cast<std::ptrdiff_t>(i + 1),
                        bytes.begin() + static_cast<std::ptrdiff_t>(i + 9),
                        [](std::uint8_t b) { return b == 0xff; })) {
            return true;
        }
    }
    return false;
}

void checkAgainstDecoder(std::span<const std::uint8_t> bytes)
{
    if (bytes.size() > kLargestUncheckedInput || declaresLargestCount(bytes)) {
        return;
    }
    const std::size_t maxDepth = vell::kKeyedArchiveMaxDepth + 2;
    const auto check = vell::detail::checkCbor(bytes, maxDepth);
    ArchiveValue decoded;
    try {
        decoded = ArchiveValue::from_cbor(bytes.begin(), bytes.end(), /*strict=*/true,
                                          /*allow_exceptions=*/false);
    } catch (const ArchiveValue::exception&) {
        // Some refusals throw even so (a declared size beyond what a container can hold).
        return;
    }
    // Indefinite-length strings count as a level of their own in the check: leave one spare.
    if (!decoded.is_discarded() && containerDepth(decoded) + 1 < maxDepth) {
        VELL_FUZZ_CHECK(check == vell::detail::CborCheck::ok);
    }
}

int checkTypedDecoding(const KeyedUnarchiver& archive, const std::string& key)
{
    const auto value = archive.decodeObjectForKey(key);
    VELL_FUZZ_REQUIRE(value.has_value());
    VELL_FUZZ_CHECK(archive.containsValueForKey(key));

    // Conversions between numbers and Booleans never note a mismatch; anything else does.
    const bool hadError = archive.error().has_value();
    archive.decodeBoolForKey(key);
    archive.decodeIntegerForKey(key);
    archive.decodeUnsignedIntegerForKey(key);
    const double number = archive.decodeDoubleForKey(key);
    if (value->is_number() || value->is_boolean()) {
        VELL_FUZZ_CHECK(archive.error().has_value() == hadError);
    } else {
        VELL_FUZZ_CHECK(archive.error().has_value());
        VELL_FUZZ_CHECK(number == 0.0);
    }
    if (value->is_number_integer()) {
        VELL_FUZZ_CHECK(archive.decodeIntegerForKey(key) == value->get<long long>() ||
                        value->is_number_unsigned());
    }
    if (value->is_number_unsigned()) {
        VELL_FUZZ_CHECK(archive.decodeUnsignedIntegerForKey(key) ==
                        value->get<unsigned long long>());
    }

    const auto text = archive.decodeStringForKey(key);
    if (value->is_string()) {
        VELL_FUZZ_CHECK(text && *text == value->get_ref<const std::string&>());
    } else {
        VELL_FUZZ_CHECK(!text && archive.error().has_value());
    }
    const auto bytes = archive.decodeBytesForKey(key);
    if (value->is_binary()) {
        const auto& binary = value->get_binary();
        VELL_FUZZ_CHECK(bytes &&
                        std::equal(bytes->begin(), bytes->end(), binary.begin(), binary.end()));
    } else {
        VELL_FUZZ_CHECK(!bytes && archive.error().has_value());
    }
    return 0;
}

} // namespace

VELL_FUZZ_TARGET(KeyedArchive)
{
    const std::span<const std::uint8_t> bytes(data, size);
    checkAgainstDecoder(bytes);

    vell::Error error;
    const auto archive = KeyedUnarchiver::create(bytes, &error);
    if (!archive) {
        VELL_FUZZ_CHECK(error.domain() == vell::NSCocoaErrorDomain);
        VELL_FUZZ_CHECK(error.code() == vell::kCoderReadCorruptError);
        return 0;
    }
    VELL_FUZZ_CHECK(!archive->error().has_value());
    // Only archives of this version or older open.
    const auto header = ArchiveValue::from_cbor(bytes.begin(), bytes.end());
    const auto& version = header.at("$version");
    VELL_FUZZ_CHECK(version.is_number_unsigned() ? version.get<std::uint64_t>() <= 1
                                                 : version.get<std::int64_t>() <= 1);

    // Archived again, key by key, every value reads back the same (compared as CBOR, so that a
    // NaN equals itself).
    const std::vector<std::string> keys = archive->allKeys();
    vell::KeyedArchiver archiver;
    for (const auto& key : keys) {
        archiver.encodeObject(*archive->decodeObjectForKey(key), key);
    }
    const auto again = KeyedUnarchiver::create(archiver.encodedData());
    VELL_FUZZ_REQUIRE(again != nullptr);
    VELL_FUZZ_CHECK(again->allKeys() == keys);
    for (const auto& key : keys) {
        const auto first = archive->decodeObjectForKey(key);
        const auto second = again->decodeObjectForKey(key);
        VELL_FUZZ_REQUIRE(first && second);
        VELL_FUZZ_CHECK(ArchiveValue::to_cbor(*first) == ArchiveValue::to_cbor(*second));
    }

    for (const auto& key : keys) {
        checkTypedDecoding(*archive, key);
    }
    return 0;
}
