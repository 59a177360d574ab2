// printf-style formatting into a std::string.
#include "support/Format.h"

#include <cstdarg>
#include <cstdio>

namespace vell {

std::string format(const char* fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    va_list copy;
    va_copy(copy, args);
    const int length = std::vsnprintf(nullptr, 0, fmt, copy);
    va_end(copy);
    std::string text;
    if (length > 0) {
        text.resize(static_cast<std::size_t>(length) + 1);
        std::vsnprintf(text.data(), text.size(), fmt, args);
        text.resize(static_cast<std::size_t>(length));
    }
    va_end(args);
    return text;
}

} // namespace vell
