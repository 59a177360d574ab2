// Test audio: a known synthetic signal, WAV files written in code, FFmpeg's decode as reference.
#include "AudioTestFiles.h"

#include "TestSupport.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <numbers>

namespace vell::test {

namespace {

void put16(std::string& out, std::uint16_t value)
{
    out.push_back(char(value & 0xFF));
    out.push_back(char(value >> 8));
}

void put32(std::string& out, std::uint32_t value)
{
    put16(out, std::uint16_t(value & 0xFFFF));
    put16(out, std::uint16_t(value >> 16));
}

} // namespace

Audio makeTestSignal(std::size_t frames, int channels, int sampleRate)
{
    Audio audio;
    audio.channels = channels;
    audio.sampleRate = sampleRate;
    audio.samples.resize(frames * std::size_t(channels));
    std::uint32_t noise = 12345;
    const double seconds = double(frames) / sampleRate;
    for (int c = 0; c < channels; ++c) {
        const double f0 = 80.0 * (c + 1);
        const double f1 = std::min(7000.0 + 500.0 * c, sampleRate * 0.4);
        const double k = std::log(f1 / f0) / seconds;
        for (std::size_t i = 0; i < frames; ++i) {
            const double t = double(i) / sampleRate;
            // Phase of an exponential sweep from f0 to f1.
            const double phase = 2 * std::numbers::pi * f0 * (std::exp(k * t) - 1) / k;
            double value = 0.4 * std::sin(phase);
            if (c % 2 == 1) {
                noise = noise * 1664525u + 1013904223u;
                value =
                    0.3 * std::sin(phase * 0.73 + 0.5) + 0.1 * (double(noise >> 8) / 8388608.0 - 1);
            }
            audio.samples[i * std::size_t(channels) + std::size_t(c)] = float(value);
        }
    }
    return audio;
}

void writeWav(const std::filesystem::path& path, const Audio& audio, int bits, bool isFloat,
              std::uint32_t channelMask)
{
    const bool extensible = audio.channels > 2;
    const auto bytesPerSample = std::uint32_t(bits / 8);
    const auto blockAlign = std::uint32_t(audio.channels) * bytesPerSample;
    std::string data;
    data.reserve(audio.samples.size() * bytesPerSample);
    for (float sample : audio.samples) {
        if (isFloat) {
            std::uint32_t raw = 0;
            std::memcpy(&raw, &sample, 4);
            put32(data, raw);
            continue;
        }
        const double scale = std::ldexp(1.0, bits - 1);
        const double clamped = std::clamp(double(sample) * scale, -scale, scale - 1);
        const auto value = std::int64_t(std::lround(clamped));
        for (std::uint32_t b = 0; b < bytesPerSample; ++b) {
            data.push_back(char((std::uint64_t(value) >> (8 * b)) & 0xFF));
        }
    }

    std::string fmt;
    put16(fmt, extensible ? 0xFFFE : (isFloat ? 3 : 1));
    put16(fmt, std::uint16_t(audio.channels));
    put32(fmt, std::uint32_t(audio.sampleRate));
    put32(fmt, std::uint32_t(audio.sampleRate) * blockAlign);
    put16(fmt, std::uint16_t(blockAlign));
    put16(fmt, std::uint16_t(bits));
    if (extensible) {
        put16(fmt, 22);
        put16(fmt, std::uint16_t(bits));
        put32(fmt, channelMask);
        // The subformat GUID: the format tag followed by the fixed tail.
        put32(fmt, isFloat ? 3 : 1);
        const unsigned char tail[12] = {0x00, 0x00, 0x10, 0x00, 0x80, 0x00,
                                        0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71};
        fmt.append(reinterpret_cast<const char*>(tail), sizeof(tail));
    }

    std::string file = "RIFF";
    put32(file, std::uint32_t(4 + 8 + fmt.size() + 8 + data.size()));
    file += "WAVEfmt ";
    put32(file, std::uint32_t(fmt.size()));
    file += fmt;
    file += "data";
    put32(file, std::uint32_t(data.size()));
    file += data;
    std::ofstream(path, std::ios::binary).write(file.data(), std::streamsize(file.size()));
}

std::string quoted(const std::filesystem::path& path)
{
    std::string text = "'";
    for (char c : path.string()) {
        text += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return text + "'";
}

bool run(const std::string& command)
{
    return runCommand(command + " >/dev/null 2>&1") == 0;
}

Audio decodeWithFFmpeg(const std::filesystem::path& path, const std::string& extraArguments)
{
    Audio audio;
    int status = 0;
    const std::string probe =
        commandOutput("ffmpeg -v error -i " + quoted(path) + " " + extraArguments +
                          " -f wav -c:a pcm_f32le - 2>/dev/null | ffprobe -v error -show_entries "
                          "stream=sample_rate,channels -of csv=p=0 -",
                      &status);
    if (status != 0 ||
        std::sscanf(probe.c_str(), "%d,%d", &audio.sampleRate, &audio.channels) != 2) {
        return {};
    }
    const std::string raw = commandOutput("ffmpeg -v error -i " + quoted(path) + " " +
                                              extraArguments + " -f f32le - 2>/dev/null",
                                          &status);
    if (status != 0) {
        return {};
    }
    audio.samples.resize(raw.size() / sizeof(float));
    std::memcpy(audio.samples.data(), raw.data(), audio.samples.size() * sizeof(float));
    return audio;
}

int bestLag(const std::vector<float>& reference, const std::vector<float>& decoded, int maxLag)
{
    const auto length = std::min(reference.size(), decoded.size());
    if (length <= std::size_t(4 * maxLag)) {
        return 0;
    }
    // A window in the middle is plenty for a signal that never repeats.
    const std::size_t begin = std::size_t(2 * maxLag);
    const std::size_t end = std::min(length - std::size_t(2 * maxLag), begin + 16384);
    int best = 0;
    double bestScore = -1e300;
    for (int lag = -maxLag; lag <= maxLag; ++lag) {
        double score = 0;
        for (std::size_t i = begin; i < end; ++i) {
            score += double(reference[i]) * decoded[std::size_t(std::ptrdiff_t(i) + lag)];
        }
        if (score > bestScore) {
            bestScore = score;
            best = lag;
        }
    }
    return best;
}

} // namespace vell::test
