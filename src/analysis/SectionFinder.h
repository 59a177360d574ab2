// Sections: spans of bars where the music stays alike, named by likeness ("A", "B", "A'").
#pragma once

#include "analysis/AnalysisSignal.h"

#include <optional>
#include <string>
#include <vector>

namespace vell::detail {

struct Section {
    std::size_t firstBar = 0; // index into the bar starts
    std::size_t bars = 0;
    int type = 0; // sections of one type sound alike
    std::string name;
};

/// Segment types over time from the clustering segmenter: (start seconds, type) pairs in order.
struct TypedBoundary {
    double time = 0;
    int type = 0;
};

/// The segmenter's boundaries and types for signal (11.025 kHz). Nothing when cancelled.
std::optional<std::vector<TypedBoundary>> segmentAudio(const MonoSignal& signal,
                                                       AnalysisProgress& progress);

/// Moves boundaries to the nearest bar start, folds sections shorter than minimumBars into
/// the one before, and names them: each type a letter in order of first appearance, a repeat
/// whose length differs from its type's first section by more than a bar primed ("A'").
std::vector<Section> sectionsOnBars(const std::vector<TypedBoundary>& boundaries,
                                    const std::vector<double>& barStarts, std::size_t minimumBars);

} // namespace vell::detail
