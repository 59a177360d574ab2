// The keyed archive: typed values under string keys, encoded as CBOR.
#pragma once

#include "VellAudio/Error.h"

#include <nlohmann/json.hpp>

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace vell {

/// A value in an archive: a JSON-like tree whose leaves are Booleans, integers, doubles,
/// strings and byte strings (`nlohmann::json::binary_t`), nested in dictionaries and arrays.
using ArchiveValue = nlohmann::json;

/// The error code of bytes that are not a keyed archive (Cocoa's "corrupt coder data").
inline constexpr long kCoderReadCorruptError = 4864;
/// Dictionaries and arrays nest at most this deep in an archive that is read back.
inline constexpr std::size_t kKeyedArchiveMaxDepth = 128;

/// Builds an archive. Encoding a key again replaces its value.
/// Thread: one thread at a time.
class KeyedArchiver {
public:
    KeyedArchiver();

    void encodeBool(bool value, std::string_view key);
    void encodeInteger(long long value, std::string_view key);
    void encodeUnsignedInteger(unsigned long long value, std::string_view key);
    void encodeDouble(double value, std::string_view key);
    void encodeString(std::string_view value, std::string_view key);
    void encodeBytes(std::span<const std::uint8_t> bytes, std::string_view key);
    /// Any value tree, a number object among them.
    void encodeObject(const ArchiveValue& value, std::string_view key);

    /// The archive as CBOR bytes.
    std::vector<std::uint8_t> encodedData() const;

private:
    ArchiveValue mRoot;
};

/// Reads an archive. A key that is absent decodes to 0, false or nothing; a value of another
/// kind than asked for decodes the same way and leaves `error()` set (numbers and Booleans
/// convert into each other freely).
/// Thread: one thread at a time.
class KeyedUnarchiver {
public:
    /// Reads data, checking it is a well-formed archive first; never throws, never trusts a
    /// size in the data. Nothing (and *outError filled) for bytes that are not an archive.
    static std::unique_ptr<KeyedUnarchiver> create(std::span<const std::uint8_t> data,
                                                   Error* outError = nullptr);

    bool containsValueForKey(std::string_view key) const;
    std::vector<std::string> allKeys() const;

    bool decodeBoolForKey(std::string_view key) const;
    long long decodeIntegerForKey(std::string_view key) const;
    unsigned long long decodeUnsignedIntegerForKey(std::string_view key) const;
    double decodeDoubleForKey(std::string_view key) const;
    std::optional<std::string> decodeStringForKey(std::string_view key) const;
    std::optional<std::vector<std::uint8_t>> decodeBytesForKey(std::string_view key) const;
    std::optional<ArchiveValue> decodeObjectForKey(std::string_view key) const;

    /// The first type mismatch met while decoding, if any.
    const std::optional<Error>& error() const noexcept { return mError; }

private:
    explicit KeyedUnarchiver(ArchiveValue root) : mRoot(std::move(root)) {}
    const ArchiveValue* find(std::string_view key) const;
    void noteMismatch(std::string_view key, const char* expected) const;

    ArchiveValue mRoot;
    mutable std::optional<Error> mError;
};

} // namespace vell
