// Beats: an onset detection function and a tempo tracker that follows tempo drift.
#include "analysis/BeatTracker.h"

#include <dsp/onsets/DetectionFunction.h>
#include <dsp/tempotracking/TempoTrackV2.h>

#include <algorithm>
#include <cmath>
#include <numeric>

namespace vell::detail {
namespace {

/// The tracker's step is 11.6 ms whatever the rate (512 frames at 44.1 kHz).
constexpr double kStepSeconds = 0.01161;
/// Below this the onsets at the beats are no stronger than anywhere: no pulse.
constexpr double kMinimumSalience = 1.45;
/// Fewer beats than this are no pulse either (a steady tone gives one, at its start).
constexpr std::size_t kMinimumBeats = 4;
/// Quieter than this (RMS) the signal counts as silence.
constexpr double kSilenceRms = 1e-4;
/// Where a beat lies against the frame the tracker names: the onset function compares a
/// window with the one before, so an onset shows one step after the window's start. Measured
/// on rendered pieces with known beats.
constexpr double kBeatOffsetSteps = 1.0;

} // namespace

double beatSalience(const std::vector<double>& onsets, const std::vector<double>& beatFrames)
{
    if (onsets.empty() || beatFrames.empty()) {
        return 0;
    }
    const double mean = std::accumulate(onsets.begin(), onsets.end(), 0.0) / double(onsets.size());
    if (mean <= 0) {
        return 0;
    }
    // The mean over the beats, provided a quarter of them stand above the mean frame: one loud
    // onset (a steady tone's start) makes no pulse, nor do beats mostly between the onsets.
    std::vector<double> peaks;
    peaks.reserve(beatFrames.size());
    const auto last = static_cast<long>(onsets.size()) - 1;
    for (const double beat : beatFrames) {
        const long centre = std::lround(beat);
        double peak = 0;
        for (long i = std::max(0L, centre - 1); i <= std::min(last, centre + 1); ++i) {
            peak = std::max(peak, onsets[static_cast<std::size_t>(i)]);
        }
        peaks.push_back(peak);
    }
    const auto strong =
        std::count_if(peaks.begin(), peaks.end(), [&](double p) { return p > mean; });
    if (4 * std::size_t(strong) < peaks.size()) {
        return 0;
    }
    return std::accumulate(peaks.begin(), peaks.end(), 0.0) / double(peaks.size()) / mean;
}

std::optional<BeatTrack> trackBeats(const MonoSignal& signal, AnalysisProgress& progress)
{
    BeatTrack track;
    const auto step = static_cast<unsigned>(std::lround(signal.rate * kStepSeconds));
    track.onsetRate = signal.rate / step;
    const std::size_t length = 2 * step;

    double energy = 0;
    for (const float s : signal.samples) {
        energy += double(s) * s;
    }
    if (signal.samples.size() < length * 4 ||
        std::sqrt(energy / double(signal.samples.size())) < kSilenceRms) {
        return track;
    }

    DFConfig config{};
    config.stepSize = step;
    config.frameLength = static_cast<unsigned>(length);
    config.DFType = DF_COMPLEXSD;
    config.dbRise = 3;
    config.adaptiveWhitening = false;
    config.whiteningRelaxCoeff = -1;
    config.whiteningFloor = -1;
    DetectionFunction detection(config);

    std::vector<double> frame(length);
    const std::size_t frames = signal.samples.size() / step;
    track.onsets.reserve(frames);
    for (std::size_t f = 0; f < frames; ++f) {
        const std::size_t start = f * step;
        for (std::size_t i = 0; i < length; ++i) {
            const std::size_t at = start + i;
            frame[i] = at < signal.samples.size() ? double(signal.samples[at]) : 0.0;
        }
        track.onsets.push_back(detection.processTimeDomain(frame.data()));
        if (f % 2048 == 0 && !progress.report(0.8 * double(f) / double(frames))) {
            return std::nullopt;
        }
    }
    // The first frames see the edge of the file as an onset.
    for (std::size_t i = 0; i < std::min<std::size_t>(2, track.onsets.size()); ++i) {
        track.onsets[i] = 0;
    }
    std::size_t used = track.onsets.size();
    while (used > 0 && track.onsets[used - 1] <= 0) {
        --used;
    }
    if (used < 16) {
        return track;
    }

    std::vector<double> df(track.onsets.begin(), track.onsets.begin() + long(used));
    std::vector<double> periods(df.size(), 0.0);
    std::vector<double> tempi;
    std::vector<double> beatFrames;
    TempoTrackV2 tracker(static_cast<float>(signal.rate), step);
    tracker.calculateBeatPeriod(df, periods, tempi, 120.0, false);
    if (!progress.report(0.9)) {
        return std::nullopt;
    }
    tracker.calculateBeats(df, periods, beatFrames, 0.9, 4.0);

    track.salience = beatSalience(track.onsets, beatFrames);
    if (beatFrames.size() < kMinimumBeats || track.salience < kMinimumSalience) {
        return track;
    }
    for (const double beat : beatFrames) {
        track.beats.push_back((beat + kBeatOffsetSteps) * step / signal.rate);
    }
    progress.report(1.0);
    return track;
}

} // namespace vell::detail
