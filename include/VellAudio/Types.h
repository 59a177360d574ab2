// Shared basic types: frames and frame ranges on a file's time line.
#pragma once

#include <cstdint>
#include <limits>

namespace vell {

/// A count of sample frames at the file's own sample rate (`std::int64_t` is `long` here).
using Frame = long long;

/// A frame that is not found.
inline constexpr Frame kFrameNotFound = std::numeric_limits<Frame>::max();

} // namespace vell
