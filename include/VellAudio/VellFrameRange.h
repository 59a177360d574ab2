// The user interface's frame range: a location and a length on the file's time line.
#pragma once

#include <cstdint>

namespace vell {

/// Loop ranges and region ranges: location and length in frames, both unsigned 64-bit.
struct VellFrameRange {
    std::uint64_t location = 0;
    std::uint64_t length = 0;

    friend constexpr bool operator==(const VellFrameRange&, const VellFrameRange&) = default;
};

constexpr VellFrameRange VellMakeFrameRange(std::uint64_t location, std::uint64_t length) noexcept
{
    return VellFrameRange{location, length};
}

} // namespace vell
