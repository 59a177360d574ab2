// Test audio: a known synthetic signal, WAV files written in code, and FFmpeg's own decode of a
// file as the reference to compare against.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace vell::test {

/// Interleaved float frames with their layout.
struct Audio {
    std::vector<float> samples; // interleaved
    int channels = 0;
    int sampleRate = 0;

    std::size_t frames() const { return channels > 0 ? samples.size() / std::size_t(channels) : 0; }
    float at(std::size_t frame, int channel) const
    {
        return samples[frame * std::size_t(channels) + std::size_t(channel)];
    }
};

/// A signal that never repeats, so alignment is unambiguous: a logarithmic sweep on the left,
/// a different sweep plus noise on the right (channels > 2 get further sweeps).
Audio makeTestSignal(std::size_t frames, int channels, int sampleRate);

/// Writes PCM WAV: 16, 24 or 32-bit integer, or 32-bit float. Any rate and channel count (the
/// header says what it is told, so out-of-range formats can be written too). With more than two
/// channels the extensible header carries channelMask.
void writeWav(const std::filesystem::path& path, const Audio& audio, int bits, bool isFloat,
              std::uint32_t channelMask = 0);

/// What `ffmpeg -i FILE [extra] -f f32le -` decodes (interleaved float), with the rate and
/// channel count ffprobe reports for the output. Empty samples when FFmpeg fails.
Audio decodeWithFFmpeg(const std::filesystem::path& path, const std::string& extraArguments = {});

/// Runs a shell command quietly; true on success.
bool run(const std::string& command);

/// The path quoted for the shell.
std::string quoted(const std::filesystem::path& path);

/// The lag in [-maxLag, maxLag] at which `decoded` best matches `reference` (decoded[i + lag]
/// against reference[i]) by cross-correlation of one channel over the middle of the signal.
int bestLag(const std::vector<float>& reference, const std::vector<float>& decoded, int maxLag);

} // namespace vell::test
