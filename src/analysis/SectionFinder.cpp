// Sections: spans of bars where the music stays alike, named by likeness ("A", "B", "A'").
#include "analysis/SectionFinder.h"

#include <algorithm>
#include <cmath>

namespace vell::detail {
namespace {

/// How much each part counts in the likeness of two bars (the weights sum to 1).
constexpr double kTrebleWeight = 0.5;
constexpr double kBassWeight = 0.25;
constexpr double kLevelWeight = 0.25;
/// Likeness in level falls off exponentially with the difference in decibels, by a factor e
/// every kLevelScaleDb, so that a larger step always counts for more.
constexpr double kLevelScaleDb = 8;
constexpr double kSilenceDb = -60;
/// Profiles are compressed (log(1 + k x) of the profile scaled to its peak) so that one loud
/// note does not outweigh the rest of the harmony.
constexpr double kCompression = 10;
/// Two kernel sizes: a short one for sections of four bars, a long one that sees eight-bar
/// phrases as wholes.
constexpr std::size_t kShortHalfWidth = 4;
constexpr std::size_t kLongHalfWidth = 8;
/// Heuristic limits, tuned on medleys of rendered songs: a bar line is a boundary when its
/// novelty reaches kBoundaryNovelty; a section is of an earlier one's type when their bars are
/// kAlike alike on average, and the same (not a variant) from kSame.
constexpr double kBoundaryNovelty = 0.16;
constexpr double kAlike = 0.55;
constexpr double kSame = 0.8;
/// Sections are compared with their starts up to this many bars apart, so that a boundary a
/// bar or two off still finds its repeat.
constexpr std::ptrdiff_t kAlignSlack = 2;

/// A bar's features made ready for dot products: profiles compressed, centred and of unit
/// length (all zero when silent), level in decibels below the loudest bar.
struct BarVector {
    Chroma treble{};
    Chroma bass{};
    double db = kSilenceDb;
};

Chroma normalized(Chroma c)
{
    double norm = 0;
    for (const double x : c) {
        norm += x * x;
    }
    if (norm > 1e-12) {
        norm = std::sqrt(norm);
        for (double& x : c) {
            x /= norm;
        }
    }
    return c;
}

Chroma unitProfile(const Chroma& c)
{
    const double peak = *std::max_element(c.begin(), c.end());
    Chroma out{};
    if (!(peak > 0)) {
        return out;
    }
    double mean = 0;
    for (std::size_t i = 0; i < 12; ++i) {
        out[i] = std::log1p(kCompression * c[i] / peak);
        mean += out[i] / 12;
    }
    for (double& v : out) {
        v -= mean;
    }
    return normalized(out);
}

std::vector<BarVector> barVectors(const BarFeatures& bars)
{
    std::vector<BarVector> out(bars.size());
    const double loudest =
        bars.size() ? *std::max_element(bars.level.begin(), bars.level.end()) : 0;
    for (std::size_t i = 0; i < bars.size(); ++i) {
        out[i].treble = unitProfile(bars.treble[i]);
        out[i].bass = unitProfile(bars.bass[i]);
        if (loudest > 0 && bars.level[i] > 0) {
            out[i].db = std::max(kSilenceDb, 20 * std::log10(bars.level[i] / loudest));
        }
    }
    return out;
}

/// Likeness of two bars, from -1 (opposite) to 1 (the same).
double likeness(const BarVector& a, const BarVector& b)
{
    double treble = 0;
    double bass = 0;
    for (std::size_t i = 0; i < 12; ++i) {
        treble += a.treble[i] * b.treble[i];
        bass += a.bass[i] * b.bass[i];
    }
    const double level = 2 * std::exp(-std::fabs(a.db - b.db) / kLevelScaleDb) - 1;
    return kTrebleWeight * treble + kBassWeight * bass + kLevelWeight * level;
}

/// The mean of bars [first, end), its profiles of unit length again.
BarVector meanOf(const std::vector<BarVector>& v, std::size_t first, std::size_t end)
{
    BarVector mean;
    mean.db = 0;
    for (std::size_t i = first; i < end; ++i) {
        for (std::size_t p = 0; p < 12; ++p) {
            mean.treble[p] += v[i].treble[p];
            mean.bass[p] += v[i].bass[p];
        }
        mean.db += v[i].db / double(end - first);
    }
    mean.treble = normalized(mean.treble);
    mean.bass = normalized(mean.bass);
    return mean;
}

/// Unlikeness (0 to 1) of the halfWidth bars before each bar line and the halfWidth after it,
/// each averaged: a checkerboard kernel over the bars' self-similarity, with the similarity
/// taken between the two sides' means so that the bars of a section that cycles through its
/// chords count as alike.
std::vector<double> novelty(const std::vector<BarVector>& v, std::size_t halfWidth)
{
    const std::size_t n = v.size();
    std::vector<double> out(n, 0.0);
    for (std::size_t b = 1; b < n; ++b) {
        const BarVector before = meanOf(v, b - std::min(b, halfWidth), b);
        const BarVector after = meanOf(v, b, std::min(n, b + halfWidth));
        out[b] = (1 - likeness(before, after)) / 2;
    }
    return out;
}

/// How alike two spans of bars are bar for bar, at the best alignment of their starts.
double spanLikeness(const std::vector<BarVector>& v, const Section& p, const Section& q)
{
    double best = -1;
    const auto shortest = std::ptrdiff_t(std::min(p.bars, q.bars));
    for (std::ptrdiff_t shift = -kAlignSlack; shift <= kAlignSlack; ++shift) {
        // Bars p.firstBar + k and q.firstBar + k + shift, both inside their sections.
        const std::ptrdiff_t k0 = std::max<std::ptrdiff_t>(0, -shift);
        const std::ptrdiff_t k1 = std::min(std::ptrdiff_t(p.bars), std::ptrdiff_t(q.bars) - shift);
        if (k1 - k0 < std::max<std::ptrdiff_t>(1, shortest / 2)) {
            continue;
        }
        double sum = 0;
        for (std::ptrdiff_t k = k0; k < k1; ++k) {
            sum += likeness(v[p.firstBar + std::size_t(k)], v[q.firstBar + std::size_t(k + shift)]);
        }
        best = std::max(best, sum / double(k1 - k0));
    }
    return best;
}

/// Boundaries at the strongest peaks first, each at least minimumBars from the ends and from
/// every boundary already taken.
std::vector<std::size_t> boundaries(const std::vector<double>& curve, std::size_t minimumBars)
{
    const std::size_t n = curve.size();
    std::vector<std::size_t> peaks;
    for (std::size_t b = minimumBars; b + minimumBars <= n; ++b) {
        const bool peak = curve[b] >= curve[b - 1] && (b + 1 == n || curve[b] >= curve[b + 1]);
        if (peak && curve[b] >= kBoundaryNovelty) {
            peaks.push_back(b);
        }
    }
    // Ties go to the earlier bar so that the order never depends on the sort.
    std::stable_sort(peaks.begin(), peaks.end(),
                     [&](std::size_t a, std::size_t b) { return curve[a] > curve[b]; });
    std::vector<std::size_t> taken;
    for (const std::size_t p : peaks) {
        const bool clear = std::all_of(taken.begin(), taken.end(), [&](std::size_t t) {
            return (p > t ? p - t : t - p) >= minimumBars;
        });
        if (clear) {
            taken.push_back(p);
        }
    }
    std::sort(taken.begin(), taken.end());
    return taken;
}

} // namespace

BarFeatures barFeatures(const BeatChroma& chroma, const std::vector<std::size_t>& barFirstBeats)
{
    BarFeatures bars;
    const std::size_t beats =
        std::min({chroma.treble.size(), chroma.bass.size(), chroma.level.size()});
    for (std::size_t k = 0; k < barFirstBeats.size() && barFirstBeats[k] < beats; ++k) {
        const std::size_t first = barFirstBeats[k];
        const std::size_t end =
            k + 1 < barFirstBeats.size() ? std::min(beats, barFirstBeats[k + 1]) : beats;
        Chroma treble{};
        Chroma bass{};
        double level = 0;
        for (std::size_t i = first; i < end; ++i) {
            for (std::size_t p = 0; p < 12; ++p) {
                treble[p] += chroma.treble[i][p];
                bass[p] += chroma.bass[i][p];
            }
            level += chroma.level[i];
        }
        const double count = double(std::max<std::size_t>(1, end - first));
        for (std::size_t p = 0; p < 12; ++p) {
            treble[p] /= count;
            bass[p] /= count;
        }
        bars.treble.push_back(treble);
        bars.bass.push_back(bass);
        bars.level.push_back(level / count);
    }
    return bars;
}

std::vector<double> sectionNovelty(const BarFeatures& bars, std::size_t halfWidth)
{
    return novelty(barVectors(bars), std::max<std::size_t>(1, halfWidth));
}

std::vector<Section> findSections(const BarFeatures& bars, std::size_t minimumBars)
{
    std::vector<Section> sections;
    const std::size_t n = bars.size();
    if (n == 0) {
        return sections;
    }
    minimumBars = std::max<std::size_t>(1, minimumBars);
    const std::vector<BarVector> v = barVectors(bars);
    std::vector<double> curve = novelty(v, kShortHalfWidth);
    const std::vector<double> wide = novelty(v, kLongHalfWidth);
    for (std::size_t b = 0; b < n; ++b) {
        curve[b] = (curve[b] + wide[b]) / 2;
    }
    std::size_t start = 0;
    for (const std::size_t b : boundaries(curve, minimumBars)) {
        sections.push_back({start, b - start, 0, false, {}});
        start = b;
    }
    sections.push_back({start, n - start, 0, false, {}});

    // Types: each section takes the type of the earlier section it is most alike, when alike
    // enough; a variant when less alike than kSame to that type's first section.
    std::vector<std::size_t> firstOfType;
    for (std::size_t s = 0; s < sections.size(); ++s) {
        double best = -1;
        std::size_t match = s;
        for (std::size_t e = 0; e < s; ++e) {
            const double l = spanLikeness(v, sections[e], sections[s]);
            if (l > best) {
                best = l;
                match = e;
            }
        }
        if (match < s && best >= kAlike) {
            sections[s].type = sections[match].type;
            const Section& first = sections[firstOfType[std::size_t(sections[s].type)]];
            sections[s].variant = spanLikeness(v, first, sections[s]) < kSame;
        } else {
            sections[s].type = int(firstOfType.size());
            firstOfType.push_back(s);
        }
    }
    // A section followed by one of its own type, not a variant, is one section.
    std::vector<Section> merged;
    for (const Section& section : sections) {
        if (!merged.empty() && merged.back().type == section.type && !section.variant) {
            merged.back().bars += section.bars;
        } else {
            merged.push_back(section);
        }
    }
    // Names: letters by first appearance; a variant or a repeat of another length is primed.
    std::vector<std::size_t> firstBars;
    for (Section& section : merged) {
        const auto type = std::size_t(section.type);
        const char letter = char('A' + std::min<std::size_t>(type, 25));
        if (type == firstBars.size()) {
            firstBars.push_back(section.bars);
            section.name = std::string(1, letter);
        } else {
            const std::size_t first = firstBars[type];
            const std::size_t difference =
                section.bars > first ? section.bars - first : first - section.bars;
            section.name = std::string(1, letter) + (section.variant || difference > 1 ? "'" : "");
        }
    }
    return merged;
}

} // namespace vell::detail
