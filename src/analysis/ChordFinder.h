// Chords on the beat grid: template matching of beat chroma, smoothed by a Viterbi pass.
#pragma once

#include "analysis/BeatChroma.h"

#include <string>
#include <vector>

namespace vell::detail {

enum class ChordType { major = 0, minor = 1, dominant7 = 2, minor7 = 3, major7 = 4 };
inline constexpr int kChordTypeCount = 5;

/// A chord label: a root pitch class and type, or no chord.
struct ChordLabel {
    int root = -1; // -1: no chord
    ChordType type = ChordType::major;

    bool isNone() const noexcept { return root < 0; }
    bool isMinor() const noexcept { return type == ChordType::minor || type == ChordType::minor7; }
    friend bool operator==(const ChordLabel&, const ChordLabel&) = default;
};

/// One label per beat. Chords change more easily on downbeats (barPositions 0) and half bars;
/// quiet beats are no chord.
std::vector<ChordLabel> findChords(const BeatChroma& chroma, const std::vector<int>& barPositions,
                                   int beatsPerBar);

/// How black-key roots are spelled.
enum class Spelling { neutral, sharps, flats };

/// The spelling that suits a key (tonic pitch class and mode).
Spelling spellingForKey(int tonic, bool minor);

/// The chord name as the music model parses it ("Bbm7", "F#", "N" for no chord).
std::string chordName(const ChordLabel& label, Spelling spelling);

} // namespace vell::detail
