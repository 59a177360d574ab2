// Signals and measurements for the stretcher: click trains through a stretcher, onsets, tones.
// Shared by the stretcher tests and the calibration and benchmark tools in bench/stretch.
#pragma once

#include "audio/stretch/Stretcher.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <memory>
#include <numbers>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace vell::test {

using Channels = std::vector<std::vector<float>>;

/// Test-name suffix of a level ("Best", "Good", "LowCPU").
inline std::string levelName(StretchLevel level)
{
    return level == StretchLevel::best ? "Best" : level == StretchLevel::good ? "Good" : "LowCPU";
}

inline std::string levelParamName(const ::testing::TestParamInfo<StretchLevel>& param)
{
    return levelName(param.param);
}

/// Feeds a stretcher from a buffer, silence after its end, and notes every pull.
class BufferSource {
public:
    struct Pull {
        long long start = 0; ///< input frame of the block's first frame
        long frames = 0;
    };

    explicit BufferSource(Channels input, std::size_t maxPulls = 1 << 16)
        : mInput(std::move(input))
    {
        mPulls.reserve(maxPulls); // pulls are noted on the render thread: never reallocate
    }

    static long pull(float** channelData, long frames, void* owner) noexcept
    {
        return static_cast<BufferSource*>(owner)->supply(channelData, frames);
    }

    /// Moves the next pull to input frame position (what the engine does on a seek).
    void seek(long long position) noexcept { mPosition = position; }

    const std::vector<Pull>& pulls() const { return mPulls; }
    long long position() const { return mPosition; }

private:
    long supply(float** channelData, long frames) noexcept
    {
        const long long length = mInput.empty() ? 0 : (long long)mInput[0].size();
        for (std::size_t c = 0; c < mInput.size(); ++c) {
            for (long i = 0; i < frames; ++i) {
                const long long at = mPosition + i;
                channelData[c][i] = at < length ? mInput[c][std::size_t(at)] : 0.0f;
            }
        }
        if (mPulls.size() < mPulls.capacity()) {
            mPulls.push_back({mPosition, frames});
        }
        mPosition += frames;
        return frames;
    }

    Channels mInput;
    long long mPosition = 0;
    std::vector<Pull> mPulls;
};

/// A stretcher fed by a BufferSource.
struct StretchRig {
    std::unique_ptr<BufferSource> source;
    std::unique_ptr<detail::Stretcher> stretcher;

    StretchRig(const detail::Stretcher::Config& config, Channels input)
        : source(std::make_unique<BufferSource>(std::move(input)))
    {
        stretcher = detail::Stretcher::create(config, &BufferSource::pull, source.get());
    }

    /// Renders frames output frames in slices of slice frames, appended to out.
    void render(Channels& out, long frames, long slice)
    {
        const auto channels = std::size_t(stretcher->channels());
        out.resize(channels);
        std::vector<float*> pointers(channels);
        long done = 0;
        while (done < frames) {
            const long n = std::min(slice, frames - done);
            for (std::size_t c = 0; c < channels; ++c) {
                out[c].resize(out[c].size() + std::size_t(n));
                pointers[c] = out[c].data() + out[c].size() - std::size_t(n);
            }
            stretcher->process(pointers.data(), n);
            done += n;
        }
    }
};

/// Unit impulses at the given input frames, in every channel.
inline Channels clickSignal(int channels, long long frames, const std::vector<long long>& at)
{
    Channels signal(static_cast<std::size_t>(channels),
                    std::vector<float>(static_cast<std::size_t>(frames), 0.0f));
    for (long long position : at) {
        for (auto& channel : signal) {
            channel[std::size_t(position)] = 1.0f;
        }
    }
    return signal;
}

/// The onset of the burst around expected: the first frame within ±halfWindow whose magnitude
/// reaches a quarter of the burst's peak. (A stretched click can come out as a few copies of
/// itself, the first not always the loudest; a quarter picks the first strong one steadily,
/// where half would jump between copies.) Nothing when the window is silent.
inline std::optional<double> onsetNear(const std::vector<float>& signal, double expected,
                                       double halfWindow)
{
    const auto first = std::max<long long>(0, (long long)std::floor(expected - halfWindow));
    const auto last =
        std::min<long long>((long long)signal.size(), (long long)std::ceil(expected + halfWindow));
    float peak = 0.0f;
    for (long long i = first; i < last; ++i) {
        peak = std::max(peak, std::fabs(signal[std::size_t(i)]));
    }
    if (peak < 1e-4f) {
        return std::nullopt;
    }
    for (long long i = first; i < last; ++i) {
        if (std::fabs(signal[std::size_t(i)]) >= 0.25f * peak) {
            return double(i);
        }
    }
    return std::nullopt;
}

/// Where clicks come out relative to input frame x timeFactor, in output frames.
struct OnsetErrors {
    std::vector<double> errors;
    int missing = 0;

    double mean() const
    {
        double sum = 0.0;
        for (double e : errors) {
            sum += e;
        }
        return errors.empty() ? 0.0 : sum / double(errors.size());
    }
    double lowest() const { return errors.empty() ? 0.0 : *std::min_element(errors.begin(), errors.end()); }
    double highest() const { return errors.empty() ? 0.0 : *std::max_element(errors.begin(), errors.end()); }
};

/// Click positions for a train: one per spacing input frames, each moved on by a fraction of
/// 1024 frames from a golden-ratio (Weyl) sequence started by seed, so that the clicks fall
/// evenly at every phase of any hop size that divides 1024 and their mean error is the
/// stretcher's, not the sample's.
inline std::vector<long long> clickPositions(int count, long long first, long long spacing,
                                             std::uint32_t seed)
{
    constexpr double kGolden = 0.6180339887498949;
    std::vector<long long> at;
    for (int i = 0; i < count; ++i) {
        const double fraction = std::fmod(0.1 * seed + kGolden * i, 1.0);
        at.push_back(first + i * spacing + (long long)(fraction * 1024.0));
    }
    return at;
}

/// Stretches a click train at fixed factors from a fresh start and measures each click's onset
/// error (output onset - input frame x timeFactor). guess: the expected error, centre of the
/// search window; the window spans ±0.45 of the output spacing (16384 frames at 44.1 and 48 kHz,
/// twice that at 88.2 and 96 kHz, times spacingScale).
inline OnsetErrors measureClicks(detail::Stretcher::Config config,
                                 const detail::StretchParameters& parameters, int count,
                                 double guess = 0.0, std::uint32_t seed = 7, long slice = 512,
                                 double spacingScale = 1.0)
{
    const double scale = config.sampleRate >= 88200.0 ? 2.0 : 1.0;
    const double outputSpacing = 16384.0 * scale * spacingScale;
    const auto spacing = (long long)std::ceil(outputSpacing / parameters.timeFactor);
    const long long first = spacing + 4096;
    const auto at = clickPositions(count, first, spacing, seed);
    const long long inputFrames = first + (count + 1) * spacing;
    StretchRig rig(config, clickSignal(config.channels, inputFrames, at));
    rig.stretcher->setParameters(parameters);
    rig.stretcher->reset(true);
    Channels out;
    rig.render(out, long(double(inputFrames) * parameters.timeFactor), slice);
    OnsetErrors result;
    for (long long position : at) {
        const double expected = double(position) * parameters.timeFactor;
        const auto onset = onsetNear(out[0], expected + guess, 0.45 * outputSpacing);
        if (onset) {
            result.errors.push_back(*onset - expected);
        } else {
            ++result.missing;
        }
    }
    return result;
}

/// A sine of frequency hz, amplitude 0.5, in every channel.
inline Channels sineSignal(int channels, long long frames, double hz, double sampleRate)
{
    Channels signal(static_cast<std::size_t>(channels), std::vector<float>(static_cast<std::size_t>(frames)));
    for (long long i = 0; i < frames; ++i) {
        const auto value = float(0.5 * std::sin(2.0 * std::numbers::pi * hz * double(i) / sampleRate));
        for (auto& channel : signal) {
            channel[std::size_t(i)] = value;
        }
    }
    return signal;
}

/// The frequency of a (near) sine in signal[from, from + length), from the mean distance
/// between its upward zero crossings (interpolated to a fraction of a frame).
inline double sineFrequency(const std::vector<float>& signal, std::size_t from, std::size_t length,
                            double sampleRate)
{
    double first = -1.0, last = -1.0;
    int crossings = 0;
    for (std::size_t i = from + 1; i < from + length && i < signal.size(); ++i) {
        const double a = signal[i - 1], b = signal[i];
        if (a < 0.0 && b >= 0.0) {
            const double at = double(i - 1) + a / (a - b);
            if (crossings == 0) {
                first = at;
            }
            last = at;
            ++crossings;
        }
    }
    return crossings < 2 ? 0.0 : double(crossings - 1) * sampleRate / (last - first);
}

/// Root mean square of signal[from, from + length).
inline double rms(const std::vector<float>& signal, std::size_t from, std::size_t length)
{
    double sum = 0.0;
    for (std::size_t i = from; i < from + length && i < signal.size(); ++i) {
        sum += double(signal[i]) * signal[i];
    }
    return std::sqrt(sum / double(std::max<std::size_t>(length, 1)));
}

} // namespace vell::test
