// Chords on the beat grid: template matching of beat chroma, smoothed by a Viterbi pass.
#include "analysis/ChordFinder.h"

#include <algorithm>
#include <cmath>
#include <string>

namespace vell::detail {
namespace {

constexpr int kLabels = 12 * kChordTypeCount + 1; // the last is no chord
constexpr int kNoChord = kLabels - 1;

/// Chord-tone weights above the root for each type.
Chroma templateFor(int root, ChordType type)
{
    Chroma t{};
    auto set = [&](int interval, double weight) {
        t[std::size_t((root + interval) % 12)] = weight;
    };
    set(0, 1.0);
    set(7, 1.0);
    switch (type) {
    case ChordType::major:
        set(4, 1.0);
        break;
    case ChordType::minor:
        set(3, 1.0);
        break;
    case ChordType::dominant7:
        set(4, 1.0);
        set(10, 0.8);
        break;
    case ChordType::minor7:
        set(3, 1.0);
        set(10, 0.8);
        break;
    case ChordType::major7:
        set(4, 1.0);
        set(11, 0.8);
        break;
    }
    return t;
}

ChordLabel labelOf(int index)
{
    if (index == kNoChord) {
        return {};
    }
    return {index % 12, static_cast<ChordType>(index / 12)};
}

} // namespace

std::vector<ChordLabel> findChords(const BeatChroma& chroma, const std::vector<int>& barPositions,
                                   int beatsPerBar)
{
    const std::size_t n = chroma.treble.size();
    std::vector<ChordLabel> labels(n);
    if (n == 0) {
        return labels;
    }
    std::vector<Chroma> templates;
    for (int index = 0; index < kNoChord; ++index) {
        templates.push_back(templateFor(index % 12, static_cast<ChordType>(index / 12)));
    }
    double loudest = 0;
    for (const double level : chroma.level) {
        loudest = std::max(loudest, level);
    }

    // Emission scores: cosine match, a bonus when the bass sounds the root, a small handicap
    // for sevenths (a melody on the seventh must not turn every triad into one).
    constexpr double kSharpness = 12.0;
    constexpr double kBassWeight = 0.25;
    constexpr double kSeventhHandicap = 0.03;
    constexpr double kNoChordScore = 0.55;
    std::vector<std::array<double, kLabels>> emission(n);
    for (std::size_t i = 0; i < n; ++i) {
        const Chroma& bass = chroma.bass[i];
        const double bassPeak = *std::max_element(bass.begin(), bass.end());
        for (int index = 0; index < kNoChord; ++index) {
            const ChordLabel label = labelOf(index);
            double score = similarity(chroma.treble[i], templates[std::size_t(index)]);
            if (bassPeak > 0) {
                score += kBassWeight * bass[std::size_t(label.root)] / bassPeak;
            }
            if (label.type != ChordType::major && label.type != ChordType::minor) {
                score -= kSeventhHandicap;
            }
            emission[i][std::size_t(index)] = kSharpness * score;
        }
        const bool quiet = loudest <= 0 || chroma.level[i] < 0.02 * loudest;
        emission[i][kNoChord] = kSharpness * (quiet ? 2.0 : kNoChordScore);
    }

    // Viterbi over the beats: staying is free, changing costs least on a downbeat.
    std::vector<double> score(emission[0].begin(), emission[0].end());
    std::vector<std::vector<unsigned char>> from(n, std::vector<unsigned char>(kLabels, 0));
    std::vector<double> next(kLabels);
    for (std::size_t i = 1; i < n; ++i) {
        const int position = i < barPositions.size() ? barPositions[i] : 1;
        double changeCost = 6.0;
        if (position == 0) {
            changeCost = 1.5;
        } else if (beatsPerBar % 2 == 0 && position == beatsPerBar / 2) {
            changeCost = 3.5;
        }
        const auto bestIt = std::max_element(score.begin(), score.end());
        const double best = *bestIt - changeCost;
        const auto bestIndex = static_cast<unsigned char>(bestIt - score.begin());
        for (int l = 0; l < kLabels; ++l) {
            const auto s = std::size_t(l);
            if (score[s] >= best) {
                next[s] = score[s] + emission[i][s];
                from[i][s] = static_cast<unsigned char>(l);
            } else {
                next[s] = best + emission[i][s];
                from[i][s] = bestIndex;
            }
        }
        score = next;
    }
    auto state =
        static_cast<std::size_t>(std::max_element(score.begin(), score.end()) - score.begin());
    for (std::size_t i = n; i-- > 0;) {
        labels[i] = labelOf(static_cast<int>(state));
        state = from[i][state];
    }
    return labels;
}

std::string chordName(const ChordLabel& label, Spelling spelling)
{
    static const char* const sharps[12] = {"C",  "C#", "D",  "D#", "E",  "F",
                                           "F#", "G",  "G#", "A",  "A#", "B"};
    static const char* const flats[12] = {"C",  "Db", "D",  "Eb", "E",  "F",
                                          "Gb", "G",  "Ab", "A",  "Bb", "B"};
    static const char* const suffixes[kChordTypeCount] = {"", "m", "7", "m7", "maj7"};
    if (label.isNone()) {
        return "N";
    }
    const int r = label.root;
    bool flat = spelling == Spelling::flats;
    if (spelling == Spelling::neutral) {
        flat = r == 3 || r == 8 || r == 10; // Eb, Ab, Bb; C# and F#
    }
    return std::string(flat ? flats[r] : sharps[r]) + suffixes[static_cast<int>(label.type)];
}

Spelling spellingForKey(int tonic, bool minor)
{
    // The major key with the same signature decides: F, Bb, Eb, Ab, Db, Gb take flats;
    // G, D, A, E, B take sharps; C takes neither.
    const int major = minor ? (tonic + 3) % 12 : tonic;
    switch (major) {
    case 0:
        return Spelling::neutral;
    case 5:
    case 10:
    case 3:
    case 8:
    case 1:
    case 6:
        return Spelling::flats;
    default:
        return Spelling::sharps;
    }
}

} // namespace vell::detail
