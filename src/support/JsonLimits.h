// A cheap pre-check of JSON text before parsing: how deeply arrays and objects nest.
#pragma once

#include <cstddef>
#include <string_view>

namespace vell {

/// Arrays and objects nest at most this deep in JSON the engine reads.
inline constexpr std::size_t kMaxJsonDepth = 256;

/// Whether the arrays and objects of text nest no deeper than maxDepth. Brackets inside strings
/// do not count. Says nothing else about validity: a parser must still read the text. Values
/// nested deeper would make recursive walks (printing, CBOR encoding) overflow the stack.
bool jsonNestingWithin(std::string_view text, std::size_t maxDepth = kMaxJsonDepth) noexcept;

} // namespace vell
