// Renders the file player's output in 512-frame cycles (--cycle N: N frames) at 44.1 kHz with
// everything on (best stretcher level, half speed, +2 semitones, isolation, metronome and notes)
// and prints the CPU time of each cycle, and its wall time, as a share of the cycle's deadline.
//   engine_render_cycle FILE [--seconds S] [--cycle N] [--reader-waits] [--unpaced] [--changes S]
//                       [--repeat R]
// Paced (the default), a cycle starts every 11.6 ms (N / 44100 s) as on a device; --unpaced renders
// back to back. --changes S makes a change every S seconds, in turn a speed change (0.5 <-> 0.6), a
// transposition change (+2 <-> +3) and a seek 5 s back, and reports the cycles just after them
// apart: they include the stretcher's hand-over to a freshly primed instance. --repeat R renders
// the same cycles R times from fresh players and keeps each cycle's least time, which leaves the
// engine's own cost without the noise of a shared machine.
#include "BenchPlayer.h"

#include <VellAudio/TessalyCore.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <numeric>
#include <thread>
#include <vector>

namespace {

/// The test file's rate (the export and device format too).
constexpr double kRate = 44100;
/// Time after a change counted as its hand-over (past the 20 ms cross-fade).
constexpr double kChangeWindowSeconds = 0.1;

struct Options {
    const char* path = nullptr;
    double seconds = 60;
    double changeSeconds = 0;
    std::uint32_t cycleFrames = 512;
    bool readerWaits = false;
    bool paced = true;
    int repeat = 1;
};

bool parse(int argc, char** argv, Options& options)
{
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--reader-waits") == 0) {
            options.readerWaits = true;
        } else if (std::strcmp(argv[i], "--unpaced") == 0) {
            options.paced = false;
        } else if (std::strcmp(argv[i], "--seconds") == 0 && i + 1 < argc) {
            options.seconds = std::atof(argv[++i]);
        } else if (std::strcmp(argv[i], "--cycle") == 0 && i + 1 < argc) {
            options.cycleFrames = std::uint32_t(std::clamp(std::atoi(argv[++i]), 0, 8192));
        } else if (std::strcmp(argv[i], "--repeat") == 0 && i + 1 < argc) {
            options.repeat = std::atoi(argv[++i]);
        } else if (std::strcmp(argv[i], "--changes") == 0 && i + 1 < argc) {
            options.changeSeconds = std::atof(argv[++i]);
        } else if (argv[i][0] != '-' && options.path == nullptr) {
            options.path = argv[i];
        } else {
            return false;
        }
    }
    return options.path != nullptr && options.seconds > 0 && options.changeSeconds >= 0 &&
           options.repeat >= 1 && options.cycleFrames >= 16;
}

/// The value below which a share p of the sorted samples lie.
double percentile(const std::vector<double>& sorted, double p)
{
    const auto index = std::size_t(std::ceil(p * double(sorted.size())));
    return sorted[std::min(index > 0 ? index - 1 : 0, sorted.size() - 1)];
}

struct Summary {
    double median = 0;
    double p99 = 0;
    double worst = 0;
};

/// Prints the statistics of the cycles that keep selects, as shares of the deadline.
template <class Select>
Summary printStatistics(const char* name, const std::vector<double>& cycles, double deadline,
                        Select keep)
{
    std::vector<double> kept;
    for (std::size_t i = 0; i < cycles.size(); ++i) {
        if (keep(i)) {
            kept.push_back(100.0 * cycles[i] / deadline);
        }
    }
    if (kept.empty()) {
        return {};
    }
    const double mean = std::accumulate(kept.begin(), kept.end(), 0.0) / double(kept.size());
    std::sort(kept.begin(), kept.end());
    const Summary summary{percentile(kept, 0.5), percentile(kept, 0.99), kept.back()};
    std::printf("%-34s %5zu cycles  median %6.2f %%  p99 %6.2f %%  p99.9 %6.2f %%  worst %6.2f %%  "
                "mean %6.2f %%\n",
                name, kept.size(), summary.median, summary.p99, percentile(kept, 0.999),
                summary.worst, mean);
    return summary;
}

void sleepUntil(double monotonicSeconds)
{
    timespec t{};
    t.tv_sec = time_t(monotonicSeconds);
    t.tv_nsec = long((monotonicSeconds - double(t.tv_sec)) * 1e9);
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &t, nullptr) == EINTR) {
    }
}

/// Per-cycle times of one render.
struct Render {
    std::vector<double> cpu;
    std::vector<double> wall;
    /// 0, or 1 + the kind of the change made within kChangeWindow cycles before.
    std::vector<int> afterChange;
    std::size_t failed = 0;
    std::size_t changes = 0;
};

/// Renders seconds of output from a fresh player. False after a message on stderr.
bool renderOnce(const Options& options, Render& render)
{
    auto player = vellbench::openPlayer(options.path);
    if (!player) {
        return false;
    }
    if (player->sampleRate() != long(kRate)) {
        std::fprintf(stderr, "the file must be at 44.1 kHz\n");
        return false;
    }
    const auto storage = vellbench::makeStorage(*player, true);
    if (!storage) {
        return false;
    }
    player->setNoteEntryStorage(storage);
    player->setMetronomeEnabled(true);
    TessalyInstance* isolation = player->tessalyInstance();
    TessalySetBypass(isolation, false);
    TessalySetPan(isolation, 0.5f);
    TessalySetPanWidth(isolation, 0.6f);
    TessalySetStartFrequencyHz(isolation, 200.0f);
    TessalySetEndFrequencyHz(isolation, 5000.0f);
    player->setPlaybackSpeed(0.5);
    player->setTranspositionInterval(2);
    player->setCurrentFrame(0);

    const double rate = kRate;
    const std::uint32_t cycleFrames = options.cycleFrames;
    const double deadline = cycleFrames / rate;
    const auto cycles = std::size_t(options.seconds * rate / cycleFrames);
    const auto changeEvery = std::size_t(options.changeSeconds * rate / cycleFrames);
    const auto changeWindow = std::size_t(std::ceil(kChangeWindowSeconds / deadline));
    std::vector<std::vector<float>> buffers(player->channelCount(),
                                            std::vector<float>(cycleFrames));
    std::vector<float*> channels;
    for (auto& buffer : buffers) {
        channels.push_back(buffer.data());
    }
    render.cpu.assign(cycles, 0.0);
    render.wall.assign(cycles, 0.0);
    render.afterChange.assign(cycles, 0);
    render.failed = 0;
    render.changes = 0;

    vell::Error error;
    if (!player->beginOfflineRendering(cycleFrames, &error, options.readerWaits)) {
        std::fprintf(stderr, "beginOfflineRendering failed: %s\n", error.description().c_str());
        return false;
    }
    if (!options.readerWaits) {
        // As on a device: the prefetch thread has filled its buffers before the first cycle.
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
    }
    const double start = vellbench::clockSeconds(CLOCK_MONOTONIC);
    for (std::size_t i = 0; i < cycles; ++i) {
        if (options.paced) {
            sleepUntil(start + double(i) * deadline);
        }
        // Changes are made between cycles on this thread, as a host's main thread would: their
        // own cost is not the render thread's and is not counted.
        if (changeEvery > 0 && i > 0 && i % changeEvery == 0) {
            const int kind = int(render.changes++ % 3);
            switch (kind) {
            case 0:
                player->setPlaybackSpeed(player->playbackSpeed() < 0.55 ? 0.6 : 0.5);
                break;
            case 1:
                player->setTranspositionInterval(player->transpositionInterval() == 2 ? 3 : 2);
                break;
            default:
                player->setCurrentFrame(
                    std::max<vell::Frame>(player->currentFrame() - vell::Frame(5 * rate), 0));
                break;
            }
            for (std::size_t k = i; k < std::min(i + changeWindow, cycles); ++k) {
                render.afterChange[k] = kind + 1;
            }
        }
        const double wall0 = vellbench::clockSeconds(CLOCK_MONOTONIC);
        const double cpu0 = vellbench::clockSeconds(CLOCK_THREAD_CPUTIME_ID);
        if (!player->renderOffline(channels.data(), cycleFrames)) {
            ++render.failed;
        }
        render.cpu[i] = vellbench::clockSeconds(CLOCK_THREAD_CPUTIME_ID) - cpu0;
        render.wall[i] = vellbench::clockSeconds(CLOCK_MONOTONIC) - wall0;
    }
    player->endOfflineRendering();
    return true;
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    if (!parse(argc, argv, options)) {
        std::fprintf(stderr, "usage: engine_render_cycle FILE [--seconds S] [--cycle N] "
                             "[--reader-waits] [--unpaced] [--changes S] [--repeat R]\n");
        return 2;
    }
    vellbench::useStretcherLevel(206, 303);
    Render render;
    if (!renderOnce(options, render)) {
        return 1;
    }
    // The same cycles again: each cycle's smallest time is its own cost, without what other
    // processes and the machine added to it in some runs.
    for (int r = 1; r < options.repeat; ++r) {
        Render again;
        if (!renderOnce(options, again)) {
            return 1;
        }
        for (std::size_t i = 0; i < render.cpu.size(); ++i) {
            render.cpu[i] = std::min(render.cpu[i], again.cpu[i]);
            render.wall[i] = std::min(render.wall[i], again.wall[i]);
        }
        render.failed += again.failed;
    }
    const std::vector<double>& cpu = render.cpu;
    const std::vector<double>& wall = render.wall;
    const std::vector<int>& afterChange = render.afterChange;
    const std::size_t cycles = cpu.size();
    const std::size_t changes = render.changes;
    const std::size_t failed = render.failed;
    const double deadline = options.cycleFrames / kRate;

    std::printf("%zu cycles of %u frames (%.1f s of output), deadline %.2f ms, %s, reader %s",
                cycles, options.cycleFrames, double(cycles) * deadline, 1e3 * deadline,
                options.paced ? "paced in real time" : "back to back",
                options.readerWaits ? "waits for data" : "as on a device (never waits)");
    if (changes > 0) {
        std::printf(", %zu changes", changes);
    }
    if (options.repeat > 1) {
        std::printf(", each cycle's least time over %d runs", options.repeat);
    }
    std::printf("\n");
    if (failed > 0) {
        std::printf("renderOffline failed in %zu cycles\n", failed);
    }
    const auto any = [](std::size_t) { return true; };
    const auto steady = [&afterChange](std::size_t i) { return i > 0 && afterChange[i] == 0; };
    const auto changed = [&afterChange](std::size_t i) { return afterChange[i] != 0; };
    const Summary all = printStatistics("thread CPU, all cycles", cpu, deadline, any);
    const Summary rest =
        printStatistics(changes > 0 ? "thread CPU, first and changes out" : "thread CPU, first out",
                        cpu, deadline, steady);
    if (changes > 0) {
        printStatistics("thread CPU, 0.1 s after changes", cpu, deadline, changed);
    }
    printStatistics("wall, all cycles", wall, deadline, any);
    printStatistics(changes > 0 ? "wall, first and changes out" : "wall, first out", wall, deadline,
                    steady);
    if (changes > 0) {
        printStatistics("wall, 0.1 s after changes", wall, deadline, changed);
    }

    if (changes > 0) {
        static const char* const kKinds[] = {"speed change", "transposition change", "seek"};
        std::printf("worst within 0.1 s after a");
        for (int kind = 0; kind < 3; ++kind) {
            double worst = 0;
            for (std::size_t i = 0; i < cycles; ++i) {
                worst = afterChange[i] == kind + 1 ? std::max(worst, cpu[i]) : worst;
            }
            std::printf("%s %s: %.1f %%", kind > 0 ? "," : "", kKinds[kind],
                        100.0 * worst / deadline);
        }
        std::printf(" (CPU)\n");
    }
    std::printf("first cycles (CPU):");
    for (std::size_t k = 0; k < std::min<std::size_t>(6, cycles); ++k) {
        std::printf(" #%zu %.1f%%", k, 100.0 * cpu[k] / deadline);
    }
    std::printf("\n");
    std::vector<std::size_t> order(cycles);
    std::iota(order.begin(), order.end(), std::size_t(0));
    const std::size_t shown = std::min<std::size_t>(8, cycles);
    std::partial_sort(order.begin(), order.begin() + long(shown), order.end(),
                      [&cpu](std::size_t a, std::size_t b) { return cpu[a] > cpu[b]; });
    std::printf("costliest (CPU):   ");
    for (std::size_t k = 0; k < shown; ++k) {
        const std::size_t i = order[k];
        std::printf(" #%zu%s %.1f%%", i, afterChange[i] != 0 ? "*" : "", 100.0 * cpu[i] / deadline);
    }
    std::printf("%s\n", changes > 0 ? "  (* within 0.1 s of a change)" : "");
    std::printf("RESULT cpu_median_pct=%.2f cpu_p99_pct=%.2f cpu_worst_pct=%.2f "
                "steady_worst_pct=%.2f\n",
                all.median, all.p99, all.worst, rest.worst);
    return 0;
}
