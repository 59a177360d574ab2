// The key: tonic and mode over time, the main key and the later keys of long stretches.
#include "analysis/KeyFinder.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <string>

namespace vell::detail {
namespace {

// Key profiles: how strongly each scale degree belongs to a major and a minor key.
constexpr std::array<double, 12> kMajorProfile = {6.35, 2.23, 3.48, 2.33, 4.38, 4.09,
                                                  2.52, 5.19, 2.39, 3.66, 2.29, 2.88};
constexpr std::array<double, 12> kMinorProfile = {6.33, 2.68, 3.52, 5.38, 2.60, 3.53,
                                                  2.54, 4.75, 3.98, 2.69, 3.34, 3.17};
/// Weight of the tonic chord's share of the time against the profile's correlation.
constexpr double kTonicWeight = 0.6;
/// Weight of the time spent on the key's dominant seventh (in minor keys: the raised third).
constexpr double kDominantWeight = 0.4;
/// Bonus for the key whose tonic chord opens (or, late in the song, closes) the music.
constexpr double kOpeningWeight = 0.15;
constexpr double kWindowSeconds = 10; // either side of each beat

int indexOf(const KeyLabel& key)
{
    return key.tonic + (key.minor ? 12 : 0);
}

double correlation(const Chroma& x, const std::array<double, 12>& profile, int shift)
{
    double mx = 0;
    double mp = 0;
    for (std::size_t i = 0; i < 12; ++i) {
        mx += x[i];
        mp += profile[i];
    }
    mx /= 12;
    mp /= 12;
    double xy = 0;
    double xx = 0;
    double yy = 0;
    for (std::size_t i = 0; i < 12; ++i) {
        const double a = x[(i + std::size_t(shift)) % 12] - mx;
        const double b = profile[i] - mp;
        xy += a * b;
        xx += a * a;
        yy += b * b;
    }
    return xx > 0 && yy > 0 ? xy / std::sqrt(xx * yy) : 0.0;
}

} // namespace

std::string keyName(const KeyLabel& key)
{
    static const char* const major[12] = {"C",  "Db", "D",  "Eb", "E",  "F",
                                          "F#", "G",  "Ab", "A",  "Bb", "B"};
    static const char* const minor[12] = {"C",  "C#", "D",  "Eb", "E",  "F",
                                          "F#", "G",  "G#", "A",  "Bb", "B"};
    return key.minor ? std::string(minor[key.tonic]) + "m" : std::string(major[key.tonic]);
}

std::vector<KeyChange> keyStretches(const std::vector<std::optional<KeyLabel>>& frames, double hop,
                                    double minimumStretch)
{
    std::vector<KeyChange> changes;
    const std::size_t n = frames.size();
    if (n == 0 || hop <= 0) {
        return changes;
    }
    // The majority key over a window of half the minimum stretch either side.
    const auto half = static_cast<std::size_t>(std::max(1.0, minimumStretch / 2 / hop));
    std::vector<int> smoothed(n, -1);
    std::array<int, 24> counts{};
    std::size_t lo = 0;
    std::size_t hi = 0; // window [lo, hi)
    for (std::size_t i = 0; i < n; ++i) {
        const std::size_t wantLo = i > half ? i - half : 0;
        const std::size_t wantHi = std::min(n, i + half + 1);
        for (; hi < wantHi; ++hi) {
            if (frames[hi]) {
                ++counts[std::size_t(indexOf(*frames[hi]))];
            }
        }
        for (; lo < wantLo; ++lo) {
            if (frames[lo]) {
                --counts[std::size_t(indexOf(*frames[lo]))];
            }
        }
        const auto best = std::max_element(counts.begin(), counts.end());
        smoothed[i] = *best > 0 ? int(best - counts.begin()) : -1;
    }
    // Runs of one key; short runs join the run before them (or after, at the start).
    struct Run {
        std::size_t start;
        std::size_t length;
        int key;
    };
    std::vector<Run> runs;
    for (std::size_t i = 0; i < n; ++i) {
        if (smoothed[i] < 0) {
            if (!runs.empty()) {
                ++runs.back().length;
            }
            continue;
        }
        if (runs.empty() || runs.back().key != smoothed[i]) {
            runs.push_back({i, 1, smoothed[i]});
        } else {
            ++runs.back().length;
        }
    }
    const auto minimumFrames = static_cast<std::size_t>(minimumStretch / hop);
    std::vector<Run> kept;
    for (const Run& run : runs) {
        if (!kept.empty() && (run.length < minimumFrames || run.key == kept.back().key)) {
            kept.back().length += run.length;
        } else {
            kept.push_back(run);
        }
    }
    // A short first run gives way to the one after it.
    while (kept.size() > 1 && kept.front().length < minimumFrames) {
        kept[1].start = 0;
        kept[1].length += kept.front().length;
        kept.erase(kept.begin());
    }
    for (const Run& run : kept) {
        const KeyLabel key{run.key % 12, run.key >= 12};
        if (changes.empty() || !(changes.back().key == key)) {
            changes.push_back({changes.empty() ? 0.0 : double(run.start) * hop, key});
        }
    }
    return changes;
}

std::optional<KeyLabel> bestKey(const Chroma& profile, const ChordEvidence& chords)
{
    double total = 0;
    for (const double v : profile) {
        total += v;
    }
    if (total <= 0) {
        return std::nullopt;
    }
    KeyLabel best;
    double bestScore = -1e9;
    for (int index = 0; index < 24; ++index) {
        const bool minor = index >= 12;
        const int tonic = index % 12;
        double score = correlation(profile, minor ? kMinorProfile : kMajorProfile, tonic) +
                       kTonicWeight * chords.share[std::size_t(index)] +
                       kDominantWeight * chords.dominantShare[std::size_t((tonic + 7) % 12)];
        if (chords.opening == index) {
            score += kOpeningWeight;
        }
        if (score > bestScore) {
            bestScore = score;
            best = {tonic, minor};
        }
    }
    return best;
}

std::vector<KeyChange> findKeys(const BeatChroma& chroma, const std::vector<ChordLabel>& chords,
                                const std::vector<double>& beats, double minimumStretch)
{
    const std::size_t n = std::min({chroma.treble.size(), chords.size(), beats.size()});
    if (n == 0) {
        return {};
    }
    // Per beat: its profile (treble, each beat weighted alike, plus the bass) and the tonic
    // chord it supports. Running sums make each window's totals a difference.
    std::vector<Chroma> profileSums(n + 1, Chroma{});
    std::vector<std::array<double, 24>> chordSums(n + 1, std::array<double, 24>{});
    std::vector<std::array<double, 12>> dominantSums(n + 1, std::array<double, 12>{});
    for (std::size_t i = 0; i < n; ++i) {
        Chroma beat{};
        double treble = 0;
        double bass = 0;
        for (std::size_t k = 0; k < 12; ++k) {
            treble += chroma.treble[i][k];
            bass += chroma.bass[i][k];
        }
        for (std::size_t k = 0; k < 12; ++k) {
            beat[k] = (treble > 0 ? chroma.treble[i][k] / treble : 0) +
                      0.5 * (bass > 0 ? chroma.bass[i][k] / bass : 0);
        }
        profileSums[i + 1] = profileSums[i];
        chordSums[i + 1] = chordSums[i];
        dominantSums[i + 1] = dominantSums[i];
        for (std::size_t k = 0; k < 12; ++k) {
            profileSums[i + 1][k] += beat[k];
        }
        if (!chords[i].isNone()) {
            chordSums[i + 1][std::size_t(chords[i].root + (chords[i].isMinor() ? 12 : 0))] += 1;
            if (chords[i].type == ChordType::dominant7) {
                dominantSums[i + 1][std::size_t(chords[i].root)] += 1;
            }
        }
    }
    // The tonic chords that open and close the music.
    auto tonicIndex = [](const ChordLabel& c) { return c.root + (c.isMinor() ? 12 : 0); };
    const auto first = std::find_if(chords.begin(), chords.begin() + long(n),
                                    [](const ChordLabel& c) { return !c.isNone(); });
    const auto last = std::find_if(chords.rbegin() + long(chords.size() - n), chords.rend(),
                                   [](const ChordLabel& c) { return !c.isNone(); });
    const int opening = first != chords.begin() + long(n) ? tonicIndex(*first) : -1;
    const int closing = last != chords.rend() ? tonicIndex(*last) : -1;

    // One key per beat from the window around it; the hop is the mean beat.
    std::vector<std::optional<KeyLabel>> frames;
    frames.reserve(n);
    std::size_t lo = 0;
    std::size_t hi = 0;
    for (std::size_t i = 0; i < n; ++i) {
        while (beats[lo] < beats[i] - kWindowSeconds) {
            ++lo;
        }
        while (hi < n && beats[hi] <= beats[i] + kWindowSeconds) {
            ++hi;
        }
        Chroma profile{};
        ChordEvidence evidence;
        const double count = double(hi - lo);
        for (std::size_t k = 0; k < 12; ++k) {
            profile[k] = profileSums[hi][k] - profileSums[lo][k];
            evidence.dominantShare[k] = (dominantSums[hi][k] - dominantSums[lo][k]) / count;
        }
        for (std::size_t k = 0; k < 24; ++k) {
            evidence.share[k] = (chordSums[hi][k] - chordSums[lo][k]) / count;
        }
        evidence.opening = 2 * i < n ? opening : closing;
        frames.push_back(bestKey(profile, evidence));
    }
    const double hop = n > 1 ? (beats[n - 1] - beats[0]) / double(n - 1) : 1.0;
    return keyStretches(frames, hop, minimumStretch);
}

} // namespace vell::detail
