// Exports a whole file through the file player at a given speed and stretcher level, and prints
// the wall-clock and CPU time of the export and of the whole process.
#include "BenchPlayer.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <sys/resource.h>

namespace {

double processCpuSeconds()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           1e-6 * double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 6) {
        std::fprintf(stderr, "usage: engine_export IN OUT.wav LAMBDA QUALITY SPEED [metronome]\n");
        return 2;
    }
    const double processStart = vellbench::clockSeconds(CLOCK_MONOTONIC);
    const bool metronome = argc > 6 && std::strcmp(argv[6], "metronome") == 0;
    vellbench::useStretcherLevel(std::atoll(argv[3]), std::atoll(argv[4]));
    auto player = vellbench::openPlayer(argv[1]);
    if (!player) {
        return 1;
    }
    std::shared_ptr<vell::VellNoteEntryStorage> storage;
    if (metronome) {
        storage = vellbench::makeStorage(*player, false);
        if (!storage) {
            return 1;
        }
        player->setNoteEntryStorage(storage);
        player->setMetronomeEnabled(true);
    }
    player->setPlaybackSpeed(std::atof(argv[5]));

    const double wall0 = vellbench::clockSeconds(CLOCK_MONOTONIC);
    const double cpu0 = vellbench::clockSeconds(CLOCK_PROCESS_CPUTIME_ID);
    vell::Error error;
    const bool written = player->writeSamplesInRange(0, player->totalFrames(), argv[2], &error);
    const double wall = vellbench::clockSeconds(CLOCK_MONOTONIC) - wall0;
    const double cpu = vellbench::clockSeconds(CLOCK_PROCESS_CPUTIME_ID) - cpu0;
    if (!written) {
        std::fprintf(stderr, "export failed: %s\n", error.description().c_str());
        return 1;
    }
    const long long frames = player->totalFrames();
    player.reset();
    std::printf("export_wall_s=%.3f export_cpu_s=%.3f process_wall_s=%.3f process_cpu_s=%.3f "
                "frames=%lld\n",
                wall, cpu, vellbench::clockSeconds(CLOCK_MONOTONIC) - processStart,
                processCpuSeconds(), frames);
    return 0;
}
