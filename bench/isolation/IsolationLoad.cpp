// Streams a minute of synthetic 44.1 kHz stereo music through the isolation engine in device-sized
// blocks and prints the processing time as a share of the audio's duration (one core).
#include <VellAudio/TessalyCore.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <numbers>
#include <random>
#include <vector>

namespace {

constexpr uint32_t kRate = 44100;
constexpr std::size_t kSeconds = 60;

double threadSeconds()
{
    timespec t{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return double(t.tv_sec) + 1e-9 * double(t.tv_nsec);
}

/// Ten seconds of three panned tones over noise, looped: content in every bin and position.
std::vector<std::vector<float>> music()
{
    const std::size_t frames = 10 * kRate;
    std::vector<std::vector<float>> mix(2, std::vector<float>(frames));
    std::mt19937 random(1);
    std::normal_distribution<float> noise(0.0f, 0.05f);
    const double f0[] = {196.0, 293.7, 440.0};
    const double pan[] = {0.15, 0.5, 0.85};
    for (std::size_t n = 0; n < frames; ++n) {
        double left = noise(random), right = noise(random);
        for (int v = 0; v < 3; ++v) {
            double s = 0.0;
            for (int k = 1; k <= 8; ++k)
                s += std::sin(2.0 * std::numbers::pi * f0[v] * k * n / kRate) / k;
            left += 0.1 * s * std::cos(pan[v] * std::numbers::pi / 2);
            right += 0.1 * s * std::sin(pan[v] * std::numbers::pi / 2);
        }
        mix[0][n] = float(left);
        mix[1][n] = float(right);
    }
    return mix;
}

/// CPU seconds to process kSeconds of audio with the given setting.
double measure(const std::vector<std::vector<float>>& input, uint32_t block, bool bypass)
{
    TessalyInstance* t = TessalyCreate(kRate, 2, 8192);
    TessalySetBypass(t, bypass);
    TessalySetPan(t, 0.3f);
    TessalySetPanWidth(t, 0.4f);
    TessalySetStartFrequencyHz(t, 150.0f);
    TessalySetEndFrequencyHz(t, 6000.0f);
    std::vector<std::vector<float>> buffer(2, std::vector<float>(block));
    const std::size_t length = input[0].size();
    const std::size_t total = kSeconds * kRate;
    const double start = threadSeconds();
    for (std::size_t done = 0; done < total; done += block) {
        const std::size_t at = done % (length - block);
        for (int c = 0; c < 2; ++c)
            std::copy_n(input[c].begin() + long(at), block, buffer[c].begin());
        float* channels[2] = {buffer[0].data(), buffer[1].data()};
        TessalyProcess(t, channels, block, channels, block);
    }
    const double elapsed = threadSeconds() - start;
    TessalyDestroy(t);
    return elapsed;
}

} // namespace

int main(int argc, char** argv)
{
    const uint32_t block = argc > 1 ? uint32_t(std::atoi(argv[1])) : 512;
    if (block < 1 || block > 8192) {
        std::fprintf(stderr, "usage: isolation_load [BLOCK 1...8192]\n");
        return 2;
    }
    const auto input = music();
    const double on = measure(input, block, false);
    const double bypassed = measure(input, block, true);
    std::printf("isolation on:  %6.2f %% of real time (%zu s of 44.1 kHz stereo, blocks of %u)\n",
                100.0 * on / kSeconds, kSeconds, block);
    std::printf("bypassed:      %6.2f %% of real time\n", 100.0 * bypassed / kSeconds);
    std::printf("budget:         10.00 %% of real time -> %s\n",
                on / kSeconds <= 0.10 ? "within" : "OVER");
    return 0;
}
