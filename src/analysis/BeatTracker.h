// Beats: an onset detection function and a tempo tracker that follows tempo drift.
#pragma once

#include "analysis/AnalysisSignal.h"

#include <optional>
#include <vector>

namespace vell::detail {

struct BeatTrack {
    /// Beat times in seconds, ascending.
    std::vector<double> beats;
    /// The onset detection function and its frames per second, for the meter.
    std::vector<double> onsets;
    double onsetRate = 0;
    /// How far the onsets at the beats stand above the others (about 1 without rhythm).
    double salience = 0;
};

/// Tracks the beats of signal (22.05 kHz works best: the tracker's windows are tuned for a
/// step of 11.6 ms). Nothing when cancelled; no beats when the audio holds no pulse.
std::optional<BeatTrack> trackBeats(const MonoSignal& signal, AnalysisProgress& progress);

/// The pulse test on its own: the mean over the beats of the strongest onset within a frame of
/// each, over the mean of all frames; 0 unless a quarter of the beats stand above that mean.
/// Frames are onset-function indexes.
double beatSalience(const std::vector<double>& onsets, const std::vector<double>& beatFrames);

} // namespace vell::detail
