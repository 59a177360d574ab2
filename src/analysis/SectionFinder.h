// Sections: spans of bars where the music stays alike, named by likeness ("A", "B", "A'").
#pragma once

#include "analysis/BeatChroma.h"

#include <string>
#include <vector>

namespace vell::detail {

struct Section {
    std::size_t firstBar = 0; // index into the bar starts
    std::size_t bars = 0;
    int type = 0;         // sections of one type sound alike
    bool variant = false; // alike to its type's first section, but not the same
    std::string name;
};

/// What each bar sounds like: its beats' treble and bass profiles and levels averaged.
struct BarFeatures {
    std::vector<Chroma> treble;
    std::vector<Chroma> bass;
    std::vector<double> level;

    std::size_t size() const { return level.size(); }
};

/// The features of the bars that start at barFirstBeats (beat indices, rising); the last bar
/// runs to the last beat. Beats before the first bar belong to none.
BarFeatures barFeatures(const BeatChroma& chroma, const std::vector<std::size_t>& barFirstBeats);

/// How much each bar line is a boundary, from 0 to 1: the unlikeness of the mean of the
/// halfWidth bars before it and of the halfWidth after it (a checkerboard kernel over the
/// bars' self-similarity, clipped at the ends). Entry b is the bar line before bar b; entry 0
/// is 0.
std::vector<double> sectionNovelty(const BarFeatures& bars, std::size_t halfWidth);

/// Sections of at least minimumBars (unless the song is shorter), split at the strongest
/// novelty peaks, typed by how alike their bars are bar for bar, and named: each type a letter
/// in order of first appearance, primed ("A'") when the section is a variant of its type's
/// first section or its length differs from it by more than a bar. Deterministic.
std::vector<Section> findSections(const BarFeatures& bars, std::size_t minimumBars);

} // namespace vell::detail
