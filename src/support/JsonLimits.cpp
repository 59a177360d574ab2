// JSON nesting pre-check: one pass, strings skipped with their escapes.
#include "support/JsonLimits.h"

namespace vell {

bool jsonNestingWithin(std::string_view text, std::size_t maxDepth) noexcept
{
    std::size_t depth = 0;
    bool inString = false;
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (inString) {
            if (c == '\\') {
                ++i; // the escaped character cannot end the string
            } else if (c == '"') {
                inString = false;
            }
            continue;
        }
        switch (c) {
        case '"':
            inString = true;
            break;
        case '[':
        case '{':
            if (++depth > maxDepth) {
                return false;
            }
            break;
        case ']':
        case '}':
            if (depth > 0) {
                --depth;
            }
            break;
        default:
            break;
        }
    }
    return true;
}

} // namespace vell
