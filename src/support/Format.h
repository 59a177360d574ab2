// printf-style formatting into a std::string (the standard library here has no std::format).
#pragma once

#include <string>

namespace vell {

/// Formats like snprintf and returns the whole result, however long.
[[gnu::format(printf, 1, 2)]] std::string format(const char* fmt, ...);

} // namespace vell
