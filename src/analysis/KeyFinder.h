// The key: tonic and mode over time, the main key and the later keys of long stretches.
#pragma once

#include "analysis/BeatChroma.h"
#include "analysis/ChordFinder.h"

#include <array>
#include <optional>
#include <vector>

namespace vell::detail {

struct KeyLabel {
    int tonic = 0; // pitch class
    bool minor = false;
    friend bool operator==(const KeyLabel&, const KeyLabel&) = default;
};

struct KeyChange {
    double time = 0; // seconds
    KeyLabel key;
};

/// The keys heard over the beats: the first entry at 0, later ones where another key holds
/// for at least minimumStretch seconds. Empty when no key is heard.
///
/// Each stretch of about half a minute is matched against the major and minor key profiles
/// (pitch-class weights of tonal music), with a bonus for the time its chords spend on each
/// key's tonic chord: the profile alone often cannot tell a key from its relative.
std::vector<KeyChange> findKeys(const BeatChroma& chroma, const std::vector<ChordLabel>& chords,
                                const std::vector<double>& beats, double minimumStretch);

/// What the chords of a stretch say about its key.
struct ChordEvidence {
    std::array<double, 24> share{};         // time on each triad: root, + 12 for minor
    std::array<double, 12> dominantShare{}; // time on each dominant seventh, by root
    int opening = -1;                       // the opening (or closing) chord, indexed as share
};

/// The best key for a pitch-class profile and the chords heard with it; nothing for silence.
std::optional<KeyLabel> bestKey(const Chroma& profile, const ChordEvidence& chords);

/// Per-frame keys (one every hop seconds) reduced to stretches: a majority over a sliding
/// window, then stretches shorter than minimumStretch folded into their neighbours.
std::vector<KeyChange> keyStretches(const std::vector<std::optional<KeyLabel>>& frames, double hop,
                                    double minimumStretch);

/// The tonic chord name of a key as the music model parses it ("Am", "Eb", "F#m").
std::string keyName(const KeyLabel& key);

} // namespace vell::detail
