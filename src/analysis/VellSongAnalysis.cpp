// Song analysis: runs the finders over the decoded audio and writes their findings as a
// practice document.
#include "VellAudio/VellSongAnalysis.h"

#include "analysis/AnalysisProgress.h"
#include "analysis/AnalysisSignal.h"
#include "analysis/BeatChroma.h"
#include "analysis/BeatGrid.h"
#include "analysis/BeatTracker.h"
#include "analysis/ChordFinder.h"
#include "analysis/KeyFinder.h"
#include "analysis/MeterFinder.h"
#include "analysis/SectionFinder.h"
#include "music/MusicError.h"

#include <algorithm>
#include <cmath>

namespace vell {
namespace {

using namespace detail;

constexpr double kBeatRate = 22050;
/// A later key must hold this long to be written.
constexpr double kKeyStretchSeconds = 30;
constexpr double kTempoTolerance = 0.04;
constexpr std::size_t kTempoStretchBeats = 16;
constexpr std::size_t kSectionBars = 4;

Error cancelledError()
{
    return makeMusicError("Analysis cancelled");
}

Frame frameAt(double seconds, double rate)
{
    return std::max<Frame>(0, std::llround(seconds * rate));
}

/// Writes the findings into the document's storage.
struct DocumentWriter {
    VellNoteEntryStorage& storage;
    double rate;
    Frame total;

    void beats(const std::vector<GridEntry>& grid)
    {
        VellEntryArray<VellBeatEntry> entries;
        entries.reserve(grid.size());
        for (const GridEntry& g : grid) {
            auto entry = storage.newBeatEntry();
            entry->setLocation(frameAt(g.time, rate));
            entry->setDownbeat(g.downbeat);
            entries.push_back(std::move(entry));
        }
        storage.addBeatEntriesFromArray(entries);
    }

    void tempos(const std::vector<TempoStretch>& stretches, const std::vector<double>& beats)
    {
        for (std::size_t s = 0; s < stretches.size(); ++s) {
            const TempoStretch& stretch = stretches[s];
            const Frame start = s == 0 ? 0 : frameAt(beats[stretch.firstBeat], rate);
            const Frame end = s + 1 == stretches.size()
                                  ? total
                                  : frameAt(beats[stretches[s + 1].firstBeat], rate);
            auto entry = storage.newTempoEntry();
            entry->setLocation(start);
            entry->setLength(std::max<Frame>(1, end - start));
            entry->setTempo(static_cast<float>(std::round(stretch.bpm * 10) / 10));
            storage.addTempoEntry(entry);
        }
    }

    void meter(const Meter& meter)
    {
        auto entry = storage.newTimeSignatureEntry();
        entry->setLocation(0);
        entry->setNumerator(static_cast<std::uint8_t>(meter.numerator));
        entry->setDenominator(static_cast<std::uint8_t>(meter.denominator));
        storage.addTimeSignatureEntry(entry);
    }

    void keys(const std::vector<KeyChange>& keys, const std::vector<double>& barStarts)
    {
        for (const KeyChange& change : keys) {
            auto chord = KChord::chordWithName(keyName(change.key));
            if (!chord) {
                continue;
            }
            // A later key starts on the bar line nearest to where it was heard.
            double at = change.time;
            if (at > 0 && !barStarts.empty()) {
                at = *std::min_element(barStarts.begin(), barStarts.end(), [&](double a, double b) {
                    return std::fabs(a - at) < std::fabs(b - at);
                });
            }
            auto entry = storage.newKeyEntry();
            entry->setLocation(frameAt(at, rate));
            entry->setTonicChord(*chord);
            storage.addKeyEntry(entry);
        }
    }

    void chords(const std::vector<ChordLabel>& labels, const std::vector<double>& beats,
                Spelling spelling)
    {
        VellEntryArray<VellChordEntry> entries;
        for (std::size_t i = 0; i < labels.size();) {
            std::size_t j = i + 1;
            while (j < labels.size() && labels[j] == labels[i]) {
                ++j;
            }
            if (!labels[i].isNone()) {
                if (auto chord = KChord::chordWithName(chordName(labels[i], spelling))) {
                    const Frame start = frameAt(beats[i], rate);
                    const Frame end = j < beats.size() ? frameAt(beats[j], rate) : total;
                    auto entry = storage.newChordEntry();
                    entry->setLocation(start);
                    entry->setLength(std::max<Frame>(1, end - start));
                    entry->setChord(*chord);
                    entries.push_back(std::move(entry));
                }
            }
            i = j;
        }
        storage.addChordEntriesFromArray(entries);
    }

    void sections(const std::vector<Section>& sections, const std::vector<double>& barStarts)
    {
        for (const Section& section : sections) {
            const std::size_t endBar = section.firstBar + section.bars;
            const Frame start = frameAt(barStarts[section.firstBar], rate);
            const Frame end = endBar < barStarts.size() ? frameAt(barStarts[endBar], rate) : total;
            auto entry = storage.newRegionEntry();
            entry->setLocation(start);
            entry->setLength(std::max<Frame>(1, end - start));
            entry->setName(section.name);
            storage.addRegionEntry(entry);
        }
    }
};

} // namespace

std::optional<VellSongAnalysisResult>
VellSongAnalysis::analyzeFile(const BRIXExtendedAudioFile& file, const ProgressCallback& callback,
                              Error* outError)
{
    AnalysisProgress progress(callback);
    if (file.frameCount() <= 0 || file.sampleRate() <= 0) {
        assignError(outError, makeMusicError("The file holds no audio to analyse"));
        return std::nullopt;
    }
    progress.report(0);
    VellSongAnalysisResult result;
    VellPracticeDocument& document = result.document;
    document.setSampleRate(file.sampleRate());
    document.setAudioFile(file.path().filename().string());
    const std::string digest = audioDigest(file);
    auto finish = [&]() -> std::optional<VellSongAnalysisResult> {
        markAsAnalysis(document, digest);
        progress.finish();
        return std::move(result);
    };
    auto cancelled = [&]() -> std::optional<VellSongAnalysisResult> {
        assignError(outError, cancelledError());
        return std::nullopt;
    };

    progress.beginStage(0.18);
    std::optional<MonoSignal> signal = mixToMono(file, kBeatRate, progress);
    if (!signal) {
        return cancelled();
    }
    progress.beginStage(0.3);
    std::optional<BeatTrack> track = trackBeats(*signal, progress);
    if (!track) {
        return cancelled();
    }
    if (track->beats.empty()) {
        double peak = 0;
        for (const float s : signal->samples) {
            peak = std::max(peak, double(std::fabs(s)));
        }
        result.remarks.push_back(peak < 1e-3 ? "no beat found: the audio is silent"
                                             : "no beat found: the audio has no steady pulse");
        return finish();
    }

    std::vector<double> change = beatSpectralChange(*signal, *track);
    // Everything below reads a half-rate mix, made afresh once the full-rate one is gone: the
    // two are never held at once.
    signal.reset();
    const VellSongAnalysis::ProgressCallback noReports;
    AnalysisProgress quiet(noReports);
    const std::optional<MonoSignal> low = mixToMono(file, kBeatRate / 2, quiet);
    if (!low || progress.isCancelled()) {
        return cancelled();
    }
    progress.beginStage(0.35);
    std::optional<BeatChroma> chroma = beatChroma(*low, track->beats, progress);
    if (!chroma) {
        return cancelled();
    }
    progress.beginStage(0.15);
    const std::vector<double> salience = downbeatSalience(std::move(change), *track, *chroma);
    const Meter meter = findMeter(salience, beatSubdivision(*track));
    const std::vector<ChordLabel> chords =
        findChords(*chroma, meter.barPositions, meter.beatsPerBar);
    const std::vector<KeyChange> keys = findKeys(*chroma, chords, track->beats, kKeyStretchSeconds);
    if (!progress.report(1)) {
        return cancelled();
    }
    std::vector<double> barStarts;
    std::vector<std::size_t> barFirstBeats;
    for (std::size_t i = 0; i < track->beats.size(); ++i) {
        if (meter.barPositions[i] == 0) {
            barStarts.push_back(track->beats[i]);
            barFirstBeats.push_back(i);
        }
    }

    progress.beginStage(0.02);
    const std::vector<Section> sections =
        findSections(barFeatures(*chroma, barFirstBeats), kSectionBars);
    if (!progress.report(1)) {
        return cancelled();
    }

    DocumentWriter writer{*document.noteEntryStorage(), file.sampleRate(), file.frameCount()};
    writer.beats(gridEntries(track->beats, meter.barPositions, meter.subdivision, file.duration()));
    writer.tempos(tempoStretches(track->beats, kTempoTolerance, kTempoStretchBeats), track->beats);
    writer.meter(meter);
    writer.keys(keys, barStarts);
    const Spelling spelling = keys.empty()
                                  ? Spelling::neutral
                                  : spellingForKey(keys.front().key.tonic, keys.front().key.minor);
    writer.chords(chords, track->beats, spelling);
    writer.sections(sections, barStarts);
    if (keys.empty()) {
        result.remarks.push_back("no key found");
    }
    return finish();
}

} // namespace vell
