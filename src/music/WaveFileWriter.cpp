// A small RIFF/WAVE writer: 16-bit PCM from float channels.
#include "music/WaveFileWriter.h"

#include "music/MusicError.h"
#include "support/Format.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <fstream>

namespace vell::detail {

namespace {

void putLE(std::vector<char>& out, std::uint32_t value, int bytes)
{
    for (int i = 0; i < bytes; ++i) {
        out.push_back(static_cast<char>((value >> (8 * i)) & 0xFF));
    }
}

} // namespace

Result<void> writeWaveFile16(const std::filesystem::path& path,
                             const std::vector<std::span<const float>>& channels,
                             unsigned sampleRate)
{
    if (channels.empty() || channels.size() > 16) {
        return makeMusicError(
            format("cannot write %s: %zu channels", path.c_str(), channels.size()));
    }
    const std::size_t frames = channels.front().size();
    for (const auto& channel : channels) {
        if (channel.size() != frames) {
            return makeMusicError(
                format("cannot write %s: channels differ in length", path.c_str()));
        }
    }
    const auto channelCount = static_cast<std::uint32_t>(channels.size());
    const std::uint64_t dataBytes = static_cast<std::uint64_t>(frames) * channelCount * 2;
    if (dataBytes > 0xFFFFFFFFull - 36) {
        return makeMusicError(format("cannot write %s: more than 4 GiB of samples", path.c_str()));
    }

    std::vector<char> header;
    header.insert(header.end(), {'R', 'I', 'F', 'F'});
    putLE(header, static_cast<std::uint32_t>(36 + dataBytes), 4);
    header.insert(header.end(), {'W', 'A', 'V', 'E', 'f', 'm', 't', ' '});
    putLE(header, 16, 4); // fmt chunk size
    putLE(header, 1, 2);  // PCM
    putLE(header, channelCount, 2);
    putLE(header, sampleRate, 4);
    putLE(header, sampleRate * channelCount * 2, 4); // bytes per second
    putLE(header, channelCount * 2, 2);              // block align
    putLE(header, 16, 2);                            // bits per sample
    header.insert(header.end(), {'d', 'a', 't', 'a'});
    putLE(header, static_cast<std::uint32_t>(dataBytes), 4);

    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    if (!file) {
        return makeMusicError(format("cannot write %s: %s", path.c_str(), std::strerror(errno)));
    }
    file.write(header.data(), static_cast<std::streamsize>(header.size()));

    std::vector<char> block;
    constexpr std::size_t kFramesPerBlock = 8192;
    for (std::size_t start = 0; start < frames && file; start += kFramesPerBlock) {
        const std::size_t end = std::min(frames, start + kFramesPerBlock);
        block.clear();
        for (std::size_t i = start; i < end; ++i) {
            for (const auto& channel : channels) {
                const float sample =
                    std::isfinite(channel[i]) ? std::clamp(channel[i], -1.0f, 1.0f) : 0.0f;
                const auto value = static_cast<std::int16_t>(std::lrint(sample * 32767.0f));
                putLE(block, static_cast<std::uint16_t>(value), 2);
            }
        }
        file.write(block.data(), static_cast<std::streamsize>(block.size()));
    }
    file.flush();
    if (!file) {
        return makeMusicError(format("cannot write %s: %s", path.c_str(), std::strerror(errno)));
    }
    return {};
}

} // namespace vell::detail
