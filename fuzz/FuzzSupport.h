// Helpers the fuzz targets share: a scratch directory and whole-file writes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string_view>

namespace vell::fuzz {

/// A directory of this process's own, made at first use and removed at exit. In memory
/// (/dev/shm) where that exists, since some targets write a file for every input.
const std::filesystem::path& scratchDirectory();

/// Replaces the file at path with the bytes given; false when it cannot be written.
bool writeBytes(const std::filesystem::path& path, const std::uint8_t* data, std::size_t size);

/// The input as text.
inline std::string_view asText(const std::uint8_t* data, std::size_t size)
{
    return size == 0 ? std::string_view()
                     : std::string_view(reinterpret_cast<const char*>(data), size);
}

} // namespace vell::fuzz
