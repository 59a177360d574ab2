// Structural CBOR check: an explicit stack of open containers, every length bounded.
#include "support/CborCheck.h"

#include <vector>

namespace vell::detail {

namespace {

struct OpenContainer {
    std::uint64_t remaining; ///< items still to come in a definite container
    bool indefinite;
};

} // namespace

CborCheck checkCbor(std::span<const std::uint8_t> data, std::size_t maxDepth) noexcept
{
    const std::size_t size = data.size();
    std::size_t pos = 0;
    // The bottom entry stands for the single top-level item.
    std::vector<OpenContainer> open;
    try {
        open.reserve(16);
        open.push_back({1, false});
    } catch (...) {
        return CborCheck::malformed;
    }

    while (!open.empty()) {
        OpenContainer& top = open.back();
        if (!top.indefinite && top.remaining == 0) {
            open.pop_back();
            continue;
        }
        if (pos >= size) {
            return CborCheck::truncated;
        }
        const std::uint8_t initial = data[pos++];
        if (initial == 0xff) {
            if (!top.indefinite) {
                return CborCheck::malformed;
            }
            open.pop_back();
            continue;
        }
        if (!top.indefinite) {
            --top.remaining;
        }
        const unsigned major = initial >> 5;
        const unsigned info = initial & 0x1f;

        std::uint64_t argument = info;
        bool indefinite = false;
        if (info >= 24 && info <= 27) {
            const std::size_t width = std::size_t(1) << (info - 24);
            if (width > size - pos) {
                return CborCheck::truncated;
            }
            argument = 0;
            for (std::size_t i = 0; i < width; ++i) {
                argument = (argument << 8) | data[pos + i];
            }
            pos += width;
        } else if (info >= 28 && info <= 30) {
            return CborCheck::malformed;
        } else if (info == 31) {
            if (major != 2 && major != 3 && major != 4 && major != 5) {
                return CborCheck::malformed;
            }
            indefinite = true;
        }

        switch (major) {
        case 0: // unsigned integer
        case 1: // negative integer
        case 7: // simple value or float; its bytes were consumed as the argument
            break;
        case 2: // byte string
        case 3: // text string
            if (indefinite) {
                // Chunks follow until a break; each is checked as an item of its own.
                open.push_back({0, true});
            } else {
                if (argument > size - pos) {
                    return CborCheck::truncated;
                }
                pos += static_cast<std::size_t>(argument);
            }
            break;
        case 4: // array
        case 5: // map
            if (indefinite) {
                open.push_back({0, true});
            } else {
                // Every item takes at least one byte, so a count beyond the bytes left can
                // only be a lie.
                const std::uint64_t items = major == 5 ? argument * 2 : argument;
                if (argument > size - pos || (major == 5 && argument > (size - pos) / 2)) {
                    return CborCheck::truncated;
                }
                open.push_back({items, false});
            }
            break;
        default: // 6: tag
            return CborCheck::malformed;
        }
        // The bottom entry is the top-level item, not a container.
        if (open.size() - 1 > maxDepth) {
            return CborCheck::tooDeep;
        }
        if (open.capacity() == open.size()) {
            try {
                open.reserve(open.size() * 2);
            } catch (...) {
                return CborCheck::tooDeep;
            }
        }
    }
    return pos == size ? CborCheck::ok : CborCheck::trailingBytes;
}

} // namespace vell::detail
