// Loop seams: the stretcher is fed the wrapped stream, so a loop's tail never carries audio from
// past its end and the seam is as smooth as the music itself.
#include "EngineTestSupport.h"

#include "VellAudio/VellExtendedAudioFilePlayer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <numbers>

namespace vell::test {
namespace {

constexpr double kRate = 44100;

/// The amplitude of a frequency in signal[from, from + length) (Goertzel, Hann window).
double amplitudeAt(const std::vector<float>& signal, std::size_t from, std::size_t length,
                   double hz)
{
    const double w = 2 * std::numbers::pi * hz / kRate;
    double s1 = 0, s2 = 0, windowSum = 0;
    for (std::size_t i = 0; i < length; ++i) {
        const double window =
            0.5 - 0.5 * std::cos(2 * std::numbers::pi * double(i) / double(length));
        const double s = signal[from + i] * window + 2 * std::cos(w) * s1 - s2;
        s2 = s1;
        s1 = s;
        windowSum += window;
    }
    return std::sqrt(s1 * s1 + s2 * s2 - 2 * std::cos(w) * s1 * s2) * 2 / windowSum;
}

TEST(LoopSeams, NothingPastTheLoopEndBleedsInAndSeamsStaySmooth)
{
    // One second of 220 Hz (a whole number of periods), then a second of a distinct 1760 Hz.
    const Frame second = Frame(kRate);
    std::vector<float> samples(std::size_t(2 * second));
    for (std::size_t i = 0; i < samples.size(); ++i) {
        const double hz = Frame(i) < second ? 220 : 1760;
        samples[i] = float(0.5 * std::sin(2 * std::numbers::pi * hz * double(i) / kRate));
    }
    for (const double speed : {0.75, 1.0}) {
        SCOPED_TRACE(speed);
        ScopedDefaults defaults;
        auto player = VellExtendedAudioFilePlayer::create(
            BRIXExtendedAudioFile::createWithSamples({samples, samples}, kRate));
        ASSERT_TRUE(player);
        player->setPlaybackSpeed(speed);
        player->enableLoopingInRange(0, second);
        player->setCurrentFrame(0);
        ASSERT_TRUE(player->beginOfflineRendering(1024));
        const auto pass = std::size_t(double(second) / speed);
        const std::size_t latency = std::size_t(player->processingLatency());
        OfflineRender render;
        ASSERT_TRUE(render.run(*player, 20 * pass + latency + 4096, 512));
        player->endOfflineRendering();

        const std::vector<float>& out = render.left;
        // The music's own largest step, away from the seams.
        double ownStep = 0;
        for (std::size_t i = latency + pass / 4; i < latency + pass * 3 / 4; ++i) {
            ownStep = std::max(ownStep, double(std::fabs(out[i] - out[i - 1])));
        }
        const std::size_t window = 4096;
        double worstBleed = -1000, worstStep = 0;
        for (int k = 1; k <= 20; ++k) {
            const std::size_t seam = latency + std::size_t(k) * pass;
            const double music = amplitudeAt(out, seam - window / 2, window, 220);
            const double bleed = amplitudeAt(out, seam - window / 2, window, 1760);
            EXPECT_GT(music, 0.3) << "seam " << k;
            EXPECT_LT(20 * std::log10(bleed / music), -60) << "seam " << k;
            worstBleed = std::max(worstBleed, 20 * std::log10(bleed / music));
            double step = 0;
            for (std::size_t i = seam - 256; i < seam + 256; ++i) {
                step = std::max(step, double(std::fabs(out[i] - out[i - 1])));
            }
            EXPECT_LE(step, ownStep * 1.1) << "seam " << k;
            worstStep = std::max(worstStep, step / ownStep);
        }
        RecordProperty(speed == 1.0 ? "worst_at_1" : "worst_at_0_75",
                       std::to_string(worstBleed) + " dB, step x" + std::to_string(worstStep));
    }
}

} // namespace
} // namespace vell::test
