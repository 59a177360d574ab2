// Helpers of the engine tests: click tracks, offline rendering through a player, onsets.
#pragma once

#include <VellAudio/BRIXExtendedAudioFile.h>
#include <VellAudio/UserDefaults.h>
#include <VellAudio/VellExtendedAudioFilePlayer.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <vector>

namespace vell::test {

/// A stereo file of silence with a click (a unit impulse at level) at each frame of clicks.
inline std::shared_ptr<BRIXExtendedAudioFile>
makeClickFile(double sampleRate, Frame frames, const std::vector<Frame>& clicks, float level = 0.9f)
{
    std::vector<float> left(std::size_t(frames), 0.0f);
    for (Frame click : clicks) {
        if (click >= 0 && click < frames) {
            left[std::size_t(click)] = level;
        }
    }
    std::vector<float> right = left;
    return BRIXExtendedAudioFile::createWithSamples({std::move(left), std::move(right)},
                                                    sampleRate);
}

/// A grid of frames: first, first + spacing, ... below end.
inline std::vector<Frame> gridFrames(Frame first, double spacing, Frame end)
{
    std::vector<Frame> frames;
    for (double f = double(first); f < double(end); f += spacing) {
        frames.push_back(Frame(std::llround(f)));
    }
    return frames;
}

/// The frames where a signal rises above threshold (relative to its peak, in dB) after at
/// least gap frames below it, refined to the first frame above.
inline std::vector<double> onsets(const std::vector<float>& signal, double thresholdDb = -30.0,
                                  std::size_t gap = 2000)
{
    float peak = 0;
    for (float x : signal) {
        peak = std::max(peak, std::abs(x));
    }
    std::vector<double> result;
    if (peak <= 0) {
        return result;
    }
    const float threshold = peak * float(std::pow(10.0, thresholdDb / 20.0));
    std::size_t quiet = gap;
    for (std::size_t i = 0; i < signal.size(); ++i) {
        if (std::abs(signal[i]) >= threshold) {
            if (quiet >= gap) {
                result.push_back(double(i));
            }
            quiet = 0;
        } else {
            ++quiet;
        }
    }
    return result;
}

/// Renders a player offline in blocks, keeping the left channel and, after each block, the
/// frame the player reports as heard.
struct OfflineRender {
    std::vector<float> left;
    std::vector<float> right;
    /// (output frames rendered so far, tracked frame) after each block.
    std::vector<std::pair<std::size_t, Frame>> tracked;

    bool run(VellExtendedAudioFilePlayer& player, std::size_t frames, std::uint32_t block)
    {
        std::vector<float> l(block), r(block);
        float* channels[2] = {l.data(), r.data()};
        for (std::size_t done = 0; done < frames;) {
            const auto n = std::uint32_t(std::min<std::size_t>(block, frames - done));
            if (!player.renderOffline(channels, n)) {
                return false;
            }
            left.insert(left.end(), l.begin(), l.begin() + n);
            right.insert(right.end(), r.begin(), r.begin() + n);
            done += n;
            tracked.emplace_back(left.size(), player.currentFrame());
        }
        return true;
    }
};

/// Gives the test a throwaway user-defaults store with the stretcher level set.
class ScopedDefaults {
public:
    explicit ScopedDefaults(long long lambda = 206, long long quality = 303)
        : mPrevious(UserDefaults::setStandard(UserDefaults::makeInMemory()))
    {
        UserDefaults::standard()->setInteger(lambda, "VellDiracLambda");
        UserDefaults::standard()->setInteger(quality, "VellDiracQuality");
    }
    ~ScopedDefaults() { UserDefaults::setStandard(mPrevious); }

private:
    std::shared_ptr<UserDefaults> mPrevious;
};

inline double median(std::vector<double> values)
{
    if (values.empty()) {
        return NAN;
    }
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

inline double percentile(std::vector<double> values, double p)
{
    if (values.empty()) {
        return NAN;
    }
    std::sort(values.begin(), values.end());
    return values[std::min(values.size() - 1, std::size_t(p * double(values.size())))];
}

} // namespace vell::test
