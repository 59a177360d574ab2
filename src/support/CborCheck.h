// A bounded structural check of CBOR bytes, run before handing them to a recursive decoder.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace vell::detail {

enum class CborCheck {
    ok,
    truncated,     ///< an item or a declared length runs past the end
    malformed,     ///< a reserved encoding, a misplaced break, or a tag
    tooDeep,       ///< nesting beyond the limit
    trailingBytes, ///< bytes left after the one top-level item
};

/// Walks exactly one CBOR data item spanning all of data without recursion: every length is
/// checked against the bytes left before it is used, arrays and maps nest at most maxDepth deep,
/// and tags (which archives never hold) are refused. Definite and indefinite lengths are both
/// accepted.
CborCheck checkCbor(std::span<const std::uint8_t> data, std::size_t maxDepth) noexcept;

} // namespace vell::detail
