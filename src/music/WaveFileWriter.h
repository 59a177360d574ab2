// A small RIFF/WAVE writer: 16-bit PCM from float channels.
#pragma once

#include "support/Result.h"

#include <filesystem>
#include <span>
#include <vector>

namespace vell::detail {

/// Writes equal-length float channels (clipped to [-1, 1], rounded to 16 bits) as an
/// interleaved 16-bit PCM WAVE file. Fails for no channels, more than 16, unequal lengths,
/// data over 4 GiB or an I/O error (naming the path).
Result<void> writeWaveFile16(const std::filesystem::path& path,
                             const std::vector<std::span<const float>>& channels,
                             unsigned sampleRate);

} // namespace vell::detail
