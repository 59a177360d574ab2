// Measures where clicks come out of each stretcher level and writes the offset table of
// src/audio/stretch/StretchCalibrationTable.inc, or checks the compensated timing.
//   stretch_calibrate table LEVEL RATE   one level's block of the table at one window scale
//                                        (stdout; calibrate.sh assembles the whole table)
//   stretch_calibrate check LEVEL RATE   compensated onset errors over a matrix of factors
//   stretch_calibrate point LEVEL RATE TF PF [raw]
#include "StretchTestSupport.h"

#include "audio/stretch/StretchCalibration.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

using vell::StretchLevel;
using vell::detail::Stretcher;
using vell::detail::StretchParameters;
using Grid = vell::detail::StretchCalibrationGrid;

namespace {

StretchLevel levelNamed(const char* name);

Stretcher::Config configFor(StretchLevel level, double rate, bool compensate)
{
    Stretcher::Config config;
    config.level = level;
    config.channels = 1;
    config.sampleRate = rate;
    config.maxFramesPerCall = 512;
    config.compensateOffsets = compensate;
    return config;
}

/// Mean raw offset: a coarse pass with a few widely spaced clicks finds the neighbourhood, the
/// fine pass averages many clicks around it.
double rawOffset(StretchLevel level, double rate, double tf, double pf, int clicks)
{
    const auto config = configFor(level, rate, false);
    const StretchParameters parameters{tf, pf, false};
    const auto coarse = vell::test::measureClicks(config, parameters, 2, 0.0, 3, 512, 4.0);
    const double guess = coarse.errors.empty() ? 0.0 : coarse.mean();
    const auto fine = vell::test::measureClicks(config, parameters, clicks, guess, 11);
    if (fine.missing > 0) {
        std::fprintf(stderr, "  %d clicks missing at %s %.0f Hz tf %.3f pf %.3f\n", fine.missing,
                     vell::stretchLevelName(level), rate, tf, pf);
    }
    return fine.mean();
}

/// One [level][scale] block of the table.
int table(StretchLevel level, double rate)
{
    std::printf("  { // %s, %.0f Hz\n", vell::stretchLevelName(level), rate);
    for (int t = 0; t < Grid::kTimeSteps; ++t) {
        const double tf = Grid::timeFactor(t);
        std::printf("    {");
        for (int p = 0; p < Grid::kPitchSteps; ++p) {
            const double offset = rawOffset(level, rate, tf, Grid::pitchFactor(p), rate > 50000.0 ? 40 : 64);
            std::printf("%s%.0f", p == 0 ? "" : ", ", offset);
            std::fflush(stdout);
        }
        std::printf("}, // tf %.3f\n", tf);
        std::fprintf(stderr, "%s %.0f Hz tf %.3f done\n", vell::stretchLevelName(level), rate, tf);
    }
    std::printf("  },\n");
    return 0;
}

/// Compensated onset errors over a matrix of factors, for one level at one rate.
int check(StretchLevel level, double rate)
{
    const double tfs[] = {0.25, 0.5, 0.75, 1.0, 1.5, 2.0, 3.0, 4.0};
    const double pfs[] = {0.5, 0.75, 1.0, 1.33, 2.0};
    const double ms = 1000.0 / rate;
    double worstMean = 0.0, worstSingle = 0.0;
    std::printf("%s %.0f Hz: mean [lowest, highest] onset error in ms; columns pitch factor",
                vell::stretchLevelName(level), rate);
    for (double pf : pfs) {
        std::printf(" %.2f", pf);
    }
    std::printf("\n");
    for (double tf : tfs) {
        std::printf("  tf %4.2f:", tf);
        for (double pf : pfs) {
            const auto e = vell::test::measureClicks(configFor(level, rate, true), {tf, pf, false},
                                                     32, 0.0, 5);
            std::printf("  %+5.1f [%+5.1f %+5.1f]", e.mean() * ms, e.lowest() * ms,
                        e.highest() * ms);
            worstMean = std::max(worstMean, std::fabs(e.mean()) * ms);
            worstSingle =
                std::max({worstSingle, std::fabs(e.lowest()) * ms, std::fabs(e.highest()) * ms});
            std::fflush(stdout);
        }
        std::printf("\n");
    }
    std::printf("  worst mean %.2f ms, worst single click %.2f ms\n", worstMean, worstSingle);
    return 0;
}

StretchLevel levelNamed(const char* name)
{
    if (std::strcmp(name, "best") == 0) {
        return StretchLevel::best;
    }
    if (std::strcmp(name, "low") == 0) {
        return StretchLevel::lowCPU;
    }
    return StretchLevel::good;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc >= 4 && std::strcmp(argv[1], "table") == 0) {
        return table(levelNamed(argv[2]), std::atof(argv[3]));
    }
    if (argc >= 4 && std::strcmp(argv[1], "check") == 0) {
        return check(levelNamed(argv[2]), std::atof(argv[3]));
    }
    if (argc >= 6 && std::strcmp(argv[1], "point") == 0) {
        const StretchLevel level = levelNamed(argv[2]);
        const double rate = std::atof(argv[3]), tf = std::atof(argv[4]), pf = std::atof(argv[5]);
        const bool raw = argc >= 7 && std::strcmp(argv[6], "raw") == 0;
        const auto e = vell::test::measureClicks(configFor(level, rate, !raw), {tf, pf, false}, 48,
                                                 raw ? rawOffset(level, rate, tf, pf, 3) : 0.0);
        std::printf("%s %.0f Hz tf %.3f pf %.3f: mean %+.1f [%+.1f %+.1f] frames, %d missing\n",
                    vell::stretchLevelName(level), rate, tf, pf, e.mean(), e.lowest(), e.highest(),
                    e.missing);
        return 0;
    }
    std::fprintf(stderr, "usage: stretch_calibrate table LEVEL RATE | check LEVEL RATE | point LEVEL RATE TF PF [raw]\n");
    return 2;
}
