// Text decoding of tag bytes into UTF-8 strings: strict UTF-8, Latin-1 and UTF-16.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace vell::detail {

enum class TextEncoding { Latin1, UTF16LittleEndian, UTF16BigEndian, UTF8, ASCII };

/// The bytes as a UTF-8 string; nothing when they are not valid in the encoding (overlong
/// forms, surrogates, code points past U+10FFFF, cut sequences, odd UTF-16 lengths, unpaired
/// surrogates, non-ASCII bytes for ASCII). A byte-order mark is kept as U+FEFF.
std::optional<std::string> decodeText(std::span<const std::uint8_t> bytes, TextEncoding encoding);

/// The string without NUL characters at either end.
std::string trimmingNULs(std::string text);

/// The number of UTF-16 code units of a valid UTF-8 string.
std::size_t utf16Length(const std::string& utf8);

} // namespace vell::detail
