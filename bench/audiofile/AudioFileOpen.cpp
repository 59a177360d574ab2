// Opens one audio file and prints how long the decode took and the memory it needed. With a
// second file given, that one is opened first, so FFmpeg's one-time set-up (its tables, the code
// pages its probing touches) is counted apart from what this open needs.
#include "VellAudio/BRIXExtendedAudioFile.h"

#include <chrono>
#include <cstdio>
#include <fstream>
#include <sys/resource.h>
#include <unistd.h>

namespace {

/// Resident memory now, in KiB.
long residentKiB()
{
    long pages = 0;
    long resident = 0;
    std::ifstream("/proc/self/statm") >> pages >> resident;
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2 && argc != 3) {
        std::fprintf(stderr, "usage: audiofile_open FILE [WARM-UP-FILE]\n");
        return 2;
    }
    if (argc == 3 && !vell::BRIXExtendedAudioFile::create(argv[2])) {
        std::fprintf(stderr, "cannot open %s\n", argv[2]);
        return 1;
    }
    const long before = residentKiB();
    const auto start = std::chrono::steady_clock::now();
    vell::Error error;
    const auto file = vell::BRIXExtendedAudioFile::create(argv[1], &error);
    const std::chrono::duration<double> elapsed = std::chrono::steady_clock::now() - start;
    if (!file) {
        std::fprintf(stderr, "%s\n", error.description().c_str());
        return 1;
    }
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    const long long decodedBytes =
        file->frameCount() * static_cast<long long>(file->channelCount() * sizeof(float));
    std::printf("open_s=%.4f frames=%lld decoded_kib=%lld rss_before_kib=%ld peak_rss_kib=%ld\n",
                elapsed.count(), file->frameCount(), decodedBytes / 1024, before,
                usage.ru_maxrss);
    return 0;
}
