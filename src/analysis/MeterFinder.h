// The meter: beats per bar, the beat's subdivision and where each bar starts.
#pragma once

#include "analysis/BeatChroma.h"
#include "analysis/BeatTracker.h"

#include <vector>

namespace vell::detail {

struct Meter {
    int beatsPerBar = 4;
    int subdivision = 2; // 2: eighths in x/4; 3: the beat is a dotted quarter (6/8)
    int numerator = 4;   // as written
    int denominator = 4;
    /// Position in the bar of each beat (0: downbeat).
    std::vector<int> barPositions;
};

/// The spectral change across each beat (the bar tracker's beat spectral difference). Taken
/// before the chroma, so that the 22.05 kHz signal can be let go first.
std::vector<double> beatSpectralChange(const MonoSignal& signal22k, const BeatTrack& track);

/// What marks a downbeat at each beat: the spectral change across it (beatSpectralChange), the
/// harmonic change and a rise of low-frequency energy.
std::vector<double> downbeatSalience(std::vector<double> change, const BeatTrack& track,
                                     const BeatChroma& chroma);

/// Whether the beat divides in three: onsets at its thirds stronger than at its half.
int beatSubdivision(const BeatTrack& track);

/// Chooses the beats per bar among 2, 3, 4 and 5 (6/8 when the beat divides in three) and
/// places the bar lines with a Viterbi pass that allows the phase to slip where the beat
/// tracker gained or lost a beat.
Meter findMeter(const std::vector<double>& salience, int subdivision);

/// The bar positions for a fixed number of beats per bar; exposed for tests.
std::vector<int> barPositions(const std::vector<double>& salience, int beatsPerBar);

} // namespace vell::detail
