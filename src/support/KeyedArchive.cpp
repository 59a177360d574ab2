// Keyed archives: a CBOR map with a small header around the keyed values.
#include "VellAudio/KeyedArchive.h"

#include "support/CborCheck.h"
#include "support/Format.h"
#include "support/Localized.h"

#include <cmath>
#include <limits>

namespace vell {

using detail::CborCheck;

namespace {

constexpr std::string_view kArchiverKey = "$archiver";
constexpr std::string_view kArchiverName = "VellKeyedArchiver";
constexpr std::string_view kVersionKey = "$version";
constexpr std::string_view kTopKey = "$top";
constexpr long long kArchiveVersion = 1;

Error corruptArchiveError(std::string_view reason)
{
    return Error(NSCocoaErrorDomain, kCoderReadCorruptError,
                 {{std::string(NSLocalizedDescriptionKey),
                   localizedString("The data couldn\u2019t be read because it isn\u2019t in the "
                                   "correct format.")},
                  {std::string(NSLocalizedFailureReasonErrorKey), std::string(reason)}});
}

const char* describe(CborCheck check)
{
    switch (check) {
    case CborCheck::ok:
        return "well-formed";
    case CborCheck::truncated:
        return "the data ends inside an item";
    case CborCheck::malformed:
        return "the data holds an invalid encoding";
    case CborCheck::tooDeep:
        return "values nest too deeply";
    case CborCheck::trailingBytes:
        return "bytes follow the archive";
    }
    return "unknown";
}

} // namespace

KeyedArchiver::KeyedArchiver() : mRoot(ArchiveValue::object()) {}

void KeyedArchiver::encodeBool(bool value, std::string_view key)
{
    mRoot[std::string(key)] = value;
}

void KeyedArchiver::encodeInteger(long long value, std::string_view key)
{
    mRoot[std::string(key)] = value;
}

void KeyedArchiver::encodeUnsignedInteger(unsigned long long value, std::string_view key)
{
    mRoot[std::string(key)] = value;
}

void KeyedArchiver::encodeDouble(double value, std::string_view key)
{
    mRoot[std::string(key)] = value;
}

void KeyedArchiver::encodeString(std::string_view value, std::string_view key)
{
    mRoot[std::string(key)] = std::string(value);
}

void KeyedArchiver::encodeBytes(std::span<const std::uint8_t> bytes, std::string_view key)
{
    mRoot[std::string(key)] =
        ArchiveValue::binary(std::vector<std::uint8_t>(bytes.begin(), bytes.end()));
}

void KeyedArchiver::encodeObject(const ArchiveValue& value, std::string_view key)
{
    mRoot[std::string(key)] = value;
}

std::vector<std::uint8_t> KeyedArchiver::encodedData() const
{
    ArchiveValue archive = ArchiveValue::object();
    archive[std::string(kArchiverKey)] = kArchiverName;
    archive[std::string(kVersionKey)] = kArchiveVersion;
    archive[std::string(kTopKey)] = mRoot;
    return ArchiveValue::to_cbor(archive);
}

std::unique_ptr<KeyedUnarchiver> KeyedUnarchiver::create(std::span<const std::uint8_t> data,
                                                         Error* outError)
{
    // Two levels of header around the caller's values.
    const CborCheck check = detail::checkCbor(data, kKeyedArchiveMaxDepth + 2);
    if (check != CborCheck::ok) {
        assignError(outError, corruptArchiveError(describe(check)));
        return nullptr;
    }
    ArchiveValue archive;
    try {
        archive = ArchiveValue::from_cbor(data.begin(), data.end(), /*strict=*/true,
                                          /*allow_exceptions=*/false);
    } catch (const std::exception& exception) {
        assignError(outError, corruptArchiveError(exception.what()));
        return nullptr;
    }
    if (archive.is_discarded()) {
        assignError(outError, corruptArchiveError("the data is not valid CBOR"));
        return nullptr;
    }
    if (!archive.is_object()) {
        assignError(outError, corruptArchiveError("the data is not a keyed archive"));
        return nullptr;
    }
    const auto archiver = archive.find(kArchiverKey);
    const auto version = archive.find(kVersionKey);
    const auto top = archive.find(kTopKey);
    if (archiver == archive.end() || *archiver != kArchiverName || version == archive.end() ||
        !version->is_number_integer() || top == archive.end() || !top->is_object()) {
        assignError(outError, corruptArchiveError("the data is not a keyed archive"));
        return nullptr;
    }
    // An unsigned version past the signed range is newer still, not negative.
    const bool newer = version->is_number_unsigned()
                           ? version->get<unsigned long long>() >
                                 static_cast<unsigned long long>(kArchiveVersion)
                           : version->get<long long>() > kArchiveVersion;
    if (newer) {
        assignError(outError,
                    corruptArchiveError(format("archive version %s is newer than this reader",
                                               version->dump().c_str())));
        return nullptr;
    }
    return std::unique_ptr<KeyedUnarchiver>(new KeyedUnarchiver(std::move(*top)));
}

const ArchiveValue* KeyedUnarchiver::find(std::string_view key) const
{
    const auto it = mRoot.find(key);
    return it == mRoot.end() ? nullptr : &*it;
}

void KeyedUnarchiver::noteMismatch(std::string_view key, const char* expected) const
{
    if (!mError) {
        mError = corruptArchiveError(format("the value for key \u201c%.*s\u201d is not %s",
                                            static_cast<int>(key.size()), key.data(), expected));
    }
}

bool KeyedUnarchiver::containsValueForKey(std::string_view key) const
{
    return find(key) != nullptr;
}

std::vector<std::string> KeyedUnarchiver::allKeys() const
{
    std::vector<std::string> keys;
    for (const auto& item : mRoot.items()) {
        keys.push_back(item.key());
    }
    return keys;
}

bool KeyedUnarchiver::decodeBoolForKey(std::string_view key) const
{
    const ArchiveValue* value = find(key);
    if (!value) {
        return false;
    }
    if (value->is_boolean()) {
        return value->get<bool>();
    }
    if (value->is_number_integer()) {
        return value->get<long long>() != 0;
    }
    if (value->is_number_float()) {
        return value->get<double>() != 0.0;
    }
    noteMismatch(key, "a Boolean");
    return false;
}

long long KeyedUnarchiver::decodeIntegerForKey(std::string_view key) const
{
    const ArchiveValue* value = find(key);
    if (!value) {
        return 0;
    }
    if (value->is_number_unsigned()) {
        const auto u = value->get<unsigned long long>();
        return u > static_cast<unsigned long long>(std::numeric_limits<long long>::max())
                   ? std::numeric_limits<long long>::max()
                   : static_cast<long long>(u);
    }
    if (value->is_number_integer()) {
        return value->get<long long>();
    }
    if (value->is_boolean()) {
        return value->get<bool>() ? 1 : 0;
    }
    if (value->is_number_float()) {
        const double d = value->get<double>();
        if (std::isnan(d)) {
            return 0;
        }
        // Truncated toward zero, saturating at the ends of the range.
        if (d >= 9223372036854775807.0) {
            return std::numeric_limits<long long>::max();
        }
        if (d <= -9223372036854775808.0) {
            return std::numeric_limits<long long>::min();
        }
        return static_cast<long long>(d);
    }
    noteMismatch(key, "an integer");
    return 0;
}

unsigned long long KeyedUnarchiver::decodeUnsignedIntegerForKey(std::string_view key) const
{
    const ArchiveValue* value = find(key);
    if (value && value->is_number_unsigned()) {
        return value->get<unsigned long long>();
    }
    const long long signedValue = decodeIntegerForKey(key);
    return signedValue < 0 ? 0 : static_cast<unsigned long long>(signedValue);
}

double KeyedUnarchiver::decodeDoubleForKey(std::string_view key) const
{
    const ArchiveValue* value = find(key);
    if (!value) {
        return 0.0;
    }
    if (value->is_number()) {
        return value->get<double>();
    }
    if (value->is_boolean()) {
        return value->get<bool>() ? 1.0 : 0.0;
    }
    noteMismatch(key, "a number");
    return 0.0;
}

std::optional<std::string> KeyedUnarchiver::decodeStringForKey(std::string_view key) const
{
    const ArchiveValue* value = find(key);
    if (!value) {
        return std::nullopt;
    }
    if (!value->is_string()) {
        noteMismatch(key, "a string");
        return std::nullopt;
    }
    return value->get<std::string>();
}

std::optional<std::vector<std::uint8_t>>
KeyedUnarchiver::decodeBytesForKey(std::string_view key) const
{
    const ArchiveValue* value = find(key);
    if (!value) {
        return std::nullopt;
    }
    if (!value->is_binary()) {
        noteMismatch(key, "bytes");
        return std::nullopt;
    }
    const auto& bytes = value->get_binary();
    return std::vector<std::uint8_t>(bytes.begin(), bytes.end());
}

std::optional<ArchiveValue> KeyedUnarchiver::decodeObjectForKey(std::string_view key) const
{
    const ArchiveValue* value = find(key);
    if (!value) {
        return std::nullopt;
    }
    return *value;
}

} // namespace vell
