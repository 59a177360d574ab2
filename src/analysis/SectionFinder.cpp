// Sections: spans of bars where the music stays alike, named by likeness ("A", "B", "A'").
#include "analysis/SectionFinder.h"

#include <dsp/segmentation/ClusterMeltSegmenter.h>

#include <algorithm>
#include <cmath>
#include <map>

namespace vell::detail {

std::optional<std::vector<TypedBoundary>> segmentAudio(const MonoSignal& signal,
                                                       AnalysisProgress& progress)
{
    std::vector<TypedBoundary> boundaries;
    const double duration = signal.duration();
    ClusterMeltSegmenterParams params;
    params.featureType = FEATURE_TYPE_CONSTQ;
    params.hopSize = 0.2;
    params.windowSize = 0.6;
    // Fewer types for shorter songs: about one per 30 s, 2 to 6.
    params.nclusters = std::clamp(static_cast<int>(duration / 30), 2, 6);
    params.neighbourhoodLimit = static_cast<int>(4.0 / params.hopSize + 0.0001);
    ClusterMeltSegmenter segmenter(params);
    segmenter.initialise(static_cast<int>(signal.rate));
    const auto window = static_cast<std::size_t>(segmenter.getWindowsize());
    const auto hop = static_cast<std::size_t>(segmenter.getHopsize());
    if (signal.samples.size() < window * 8) {
        return boundaries;
    }
    std::vector<double> buffer(window);
    for (std::size_t start = 0, n = 0; start + window <= signal.samples.size(); start += hop, ++n) {
        for (std::size_t i = 0; i < window; ++i) {
            buffer[i] = signal.samples[start + i];
        }
        segmenter.extractFeatures(buffer.data(), static_cast<int>(window));
        if (n % 128 == 0 && !progress.report(0.5 * double(start) / double(signal.samples.size()))) {
            return std::nullopt;
        }
    }
    segmenter.segment(params.nclusters);
    progress.report(1.0);
    const Segmentation& segmentation = segmenter.getSegmentation();
    for (const Segment& segment : segmentation.segments) {
        boundaries.push_back(
            {double(segment.start) / double(segmentation.samplerate), segment.type});
    }
    return boundaries;
}

std::vector<Section> sectionsOnBars(const std::vector<TypedBoundary>& boundaries,
                                    const std::vector<double>& barStarts, std::size_t minimumBars)
{
    std::vector<Section> sections;
    const std::size_t bars = barStarts.size();
    if (bars == 0) {
        return sections;
    }
    // The type sounding half a bar into each bar, so a boundary just after a bar line counts
    // from that bar.
    std::vector<int> types(bars, 0);
    int current = boundaries.empty() ? 0 : boundaries.front().type;
    std::size_t next = 0;
    for (std::size_t bar = 0; bar < bars; ++bar) {
        const double reach = bar + 1 < bars ? (barStarts[bar + 1] - barStarts[bar]) / 2 : 0;
        while (next < boundaries.size() && boundaries[next].time <= barStarts[bar] + reach) {
            current = boundaries[next++].type;
        }
        types[bar] = current;
    }
    for (std::size_t bar = 0; bar < bars; ++bar) {
        if (sections.empty() || sections.back().type != types[bar]) {
            sections.push_back({bar, 1, types[bar], {}});
        } else {
            ++sections.back().bars;
        }
    }
    // Fold short sections into the one before (the first into the one after).
    std::vector<Section> folded;
    for (const Section& section : sections) {
        if (!folded.empty() && (section.bars < minimumBars || section.type == folded.back().type)) {
            folded.back().bars += section.bars;
        } else {
            folded.push_back(section);
        }
    }
    if (folded.size() > 1 && folded.front().bars < minimumBars) {
        folded[1].firstBar = 0;
        folded[1].bars += folded[0].bars;
        folded.erase(folded.begin());
    }
    // Names: letters by first appearance; a repeat of another length is primed.
    std::map<int, std::pair<char, std::size_t>> seen; // type -> letter, first length
    char letter = 'A';
    for (Section& section : folded) {
        auto it = seen.find(section.type);
        if (it == seen.end()) {
            it = seen.emplace(section.type, std::make_pair(letter, section.bars)).first;
            letter = letter < 'Z' ? char(letter + 1) : letter;
            section.name = std::string(1, it->second.first);
        } else {
            const std::size_t first = it->second.second;
            const std::size_t difference =
                section.bars > first ? section.bars - first : first - section.bars;
            section.name = std::string(1, it->second.first) + (difference > 1 ? "'" : "");
        }
    }
    return folded;
}

} // namespace vell::detail
