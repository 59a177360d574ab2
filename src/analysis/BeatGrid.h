// The beat grid written to a document: beat entries at the storage's subdivision, downbeats,
// and tempo entries for each stretch of steady tempo.
#pragma once

#include <cstddef>
#include <vector>

namespace vell::detail {

struct TempoStretch {
    std::size_t firstBeat = 0;
    std::size_t beats = 0; // beat intervals covered
    double bpm = 0;        // mean over the stretch
};

/// Splits the beats into stretches of steady tempo: a new stretch starts where the smoothed
/// tempo leaves the current stretch's mean by more than tolerance (a fraction) for several
/// beats; stretches shorter than minimumBeats join a neighbour, neighbours closer than
/// tolerance merge. A drifting performance gives few stretches, a tempo change one more.
std::vector<TempoStretch> tempoStretches(const std::vector<double>& beats, double tolerance,
                                         std::size_t minimumBeats);

struct GridEntry {
    double time = 0;
    bool downbeat = false;
};

/// Beat entries: each felt beat split into subdivision entries, downbeats where the bar
/// position is 0; the last beat takes the interval before it, within duration.
std::vector<GridEntry> gridEntries(const std::vector<double>& beats,
                                   const std::vector<int>& barPositions, int subdivision,
                                   double duration);

} // namespace vell::detail
