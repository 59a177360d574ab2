// The beat grid written to a document: beat entries at the storage's subdivision, downbeats,
// and tempo entries for each stretch of steady tempo.
#include "analysis/BeatGrid.h"

#include <algorithm>
#include <cmath>

namespace vell::detail {
namespace {

double meanTempo(const std::vector<double>& beats, std::size_t first, std::size_t intervals)
{
    const double span = beats[first + intervals] - beats[first];
    return span > 0 ? 60.0 * double(intervals) / span : 0.0;
}

} // namespace

std::vector<TempoStretch> tempoStretches(const std::vector<double>& beats, double tolerance,
                                         std::size_t minimumBeats)
{
    std::vector<TempoStretch> stretches;
    if (beats.size() < 2) {
        return stretches;
    }
    const std::size_t intervals = beats.size() - 1;
    // Local tempo: the median of nine intervals around each.
    std::vector<double> local(intervals);
    std::vector<double> window;
    for (std::size_t i = 0; i < intervals; ++i) {
        window.clear();
        for (std::size_t k = i > 4 ? i - 4 : 0; k <= std::min(intervals - 1, i + 4); ++k) {
            window.push_back(beats[k + 1] - beats[k]);
        }
        std::nth_element(window.begin(), window.begin() + long(window.size() / 2), window.end());
        local[i] = 60.0 / window[window.size() / 2];
    }
    // A stretch ends where four local tempos in a row stray from its mean.
    constexpr std::size_t kStray = 4;
    std::size_t start = 0;
    double sum = 0;
    std::size_t count = 0;
    std::size_t strayed = 0;
    for (std::size_t i = 0; i < intervals; ++i) {
        const double mean = count > 0 ? sum / double(count) : local[i];
        if (count > 0 && std::fabs(local[i] - mean) > tolerance * mean) {
            if (++strayed >= kStray) {
                const std::size_t end = i + 1 - kStray;
                stretches.push_back({start, end - start, 0});
                start = end;
                sum = 0;
                count = 0;
                for (std::size_t k = end; k <= i; ++k) {
                    sum += local[k];
                    ++count;
                }
                strayed = 0;
            }
            continue;
        }
        strayed = 0;
        sum += local[i];
        ++count;
    }
    stretches.push_back({start, intervals - start, 0});

    // Short stretches join the one before (the first joins the next); close tempos merge.
    std::vector<TempoStretch> merged;
    for (const TempoStretch& s : stretches) {
        if (!merged.empty() && s.beats < minimumBeats) {
            merged.back().beats += s.beats;
        } else {
            merged.push_back(s);
        }
    }
    if (merged.size() > 1 && merged.front().beats < minimumBeats) {
        merged[1].firstBeat = 0;
        merged[1].beats += merged[0].beats;
        merged.erase(merged.begin());
    }
    std::vector<TempoStretch> result;
    for (TempoStretch s : merged) {
        s.bpm = meanTempo(beats, s.firstBeat, s.beats);
        if (!result.empty() && std::fabs(s.bpm - result.back().bpm) <= tolerance * s.bpm) {
            result.back().beats += s.beats;
            result.back().bpm = meanTempo(beats, result.back().firstBeat, result.back().beats);
        } else {
            result.push_back(s);
        }
    }
    return result;
}

std::vector<GridEntry> gridEntries(const std::vector<double>& beats,
                                   const std::vector<int>& barPositions, int subdivision,
                                   double duration)
{
    std::vector<GridEntry> entries;
    const int sub = std::max(1, subdivision);
    for (std::size_t i = 0; i < beats.size(); ++i) {
        double next = 0;
        if (i + 1 < beats.size()) {
            next = beats[i + 1];
        } else if (i > 0) {
            next = beats[i] + (beats[i] - beats[i - 1]);
        } else {
            next = beats[i] + 0.5;
        }
        const bool downbeat = i < barPositions.size() && barPositions[i] == 0;
        for (int k = 0; k < sub; ++k) {
            const double t = beats[i] + (next - beats[i]) * k / sub;
            if (t >= duration) {
                break;
            }
            entries.push_back({t, downbeat && k == 0});
        }
    }
    return entries;
}

} // namespace vell::detail
