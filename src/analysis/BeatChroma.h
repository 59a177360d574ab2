// Pitch-class profiles averaged over each beat: the treble's for chords and key, the bass's
// for chord roots.
#pragma once

#include "analysis/AnalysisSignal.h"

#include <array>
#include <optional>
#include <vector>

namespace vell::detail {

using Chroma = std::array<double, 12>; // index 0 is C

struct BeatChroma {
    /// One profile per beat: from beat i to beat i + 1 (the last to the end of the audio).
    std::vector<Chroma> treble;
    std::vector<Chroma> bass;
    /// Mean treble magnitude per beat, for telling silence from sound.
    std::vector<double> level;
};

/// Constant-Q chroma of signal (11.025 kHz is plenty: C2 to C6 for the treble, C1 to C3 for
/// the bass) averaged per beat. Nothing when cancelled.
std::optional<BeatChroma> beatChroma(const MonoSignal& signal, const std::vector<double>& beats,
                                     AnalysisProgress& progress);

/// Cosine similarity of two profiles; 0 when either is silent.
double similarity(const Chroma& a, const Chroma& b);

} // namespace vell::detail
