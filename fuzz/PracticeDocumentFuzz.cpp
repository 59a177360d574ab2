// Fuzz target: practice documents read from JSON text.
//
// Invariants: a failed read changes nothing and announces nothing; a document that reads saves
// to text that reads back to an equal document and saves to the same text again; reading the
// same text twice announces nothing the second time.
#include "FuzzSupport.h"
#include "FuzzTarget.h"

#include <VellAudio/VellBeatLocator.h>
#include <VellAudio/VellPracticeDocument.h>

#include <array>
#include <cstdio>
#include <limits>
#include <string>

namespace {

using vell::VellEntryArray;
using vell::VellNoteEntryStorage;
using vell::VellPracticeDocument;

// The document every input is read into: one entry of each kind and some settings, so that a
// read that wrongly changes part of it shows.
constexpr std::string_view kStartingDocument = R"({
  "format": "vell-practice-document", "version": 1, "sampleRate": 48000,
  "audioFile": "before.wav",
  "beats": [{"location": 0, "downbeat": true}, {"location": 24000}],
  "tempos": [{"location": 0, "length": 480000, "tempo": 120}],
  "timeSignatures": [{"location": 0, "numerator": 3, "denominator": 4}],
  "keys": [{"location": 0, "tonic": "Em"}],
  "notes": [{"location": 10, "length": 20, "pitch": 64, "channel": 2}],
  "chords": [{"location": 0, "length": 48000, "chord": "Em7/D"}],
  "regions": [{"location": 0, "length": 96000, "name": "Intro"}],
  "markers": [{"location": 5000, "name": "Here"}],
  "settings": {"speed": 0.75, "loop": [1, 2]}
})";

bool sameValues(const vell::VellNoteEntry& a, const vell::VellNoteEntry& b)
{
    return a.length() == b.length() && a.pitch() == b.pitch() && a.channel() == b.channel();
}
bool sameValues(const vell::VellBeatEntry& a, const vell::VellBeatEntry& b)
{
    return a.isDownbeat() == b.isDownbeat();
}
bool sameValues(const vell::VellTempoEntry& a, const vell::VellTempoEntry& b)
{
    return a.length() == b.length() && a.tempo() == b.tempo();
}
bool sameValues(const vell::VellKeyEntry& a, const vell::VellKeyEntry& b)
{
    return a.tonicChord() == b.tonicChord();
}
bool sameValues(const vell::VellTimeSignatureEntry& a, const vell::VellTimeSignatureEntry& b)
{
    return a.numerator() == b.numerator() && a.denominator() == b.denominator();
}
bool sameValues(const vell::VellChordEntry& a, const vell::VellChordEntry& b)
{
    return a.length() == b.length() && a.chord() == b.chord();
}
bool sameValues(const vell::VellRegionEntry& a, const vell::VellRegionEntry& b)
{
    return a.length() == b.length() && a.name() == b.name();
}
bool sameValues(const vell::VellMarkerEntry& a, const vell::VellMarkerEntry& b)
{
    return a.name() == b.name();
}

template <class Entry> bool sameList(const VellEntryArray<Entry>& a, const VellEntryArray<Entry>& b)
{
    if (a.size() != b.size()) {
        return false;
    }
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (a[i]->location() != b[i]->location() || !sameValues(*a[i], *b[i])) {
            return false;
        }
    }
    return true;
}

bool sameDocument(const VellPracticeDocument& a, const VellPracticeDocument& b)
{
    const VellNoteEntryStorage& x = *a.noteEntryStorage();
    const VellNoteEntryStorage& y = *b.noteEntryStorage();
    return a.sampleRate() == b.sampleRate() && a.audioFile() == b.audioFile() &&
           a.settings() == b.settings() && sameList(x.noteEntries(), y.noteEntries()) &&
           sameList(x.beatEntries(), y.beatEntries()) &&
           sameList(x.tempoEntries(), y.tempoEntries()) &&
           sameList(x.keyEntries(), y.keyEntries()) &&
           sameList(x.timeSignatureEntries(), y.timeSignatureEntries()) &&
           sameList(x.chordEntries(), y.chordEntries()) &&
           sameList(x.regionEntries(), y.regionEntries()) &&
           sameList(x.markerEntries(), y.markerEntries());
}

// Every entry is in ascending location order within its list.
template <class Entry> bool inOrder(const VellEntryArray<Entry>& list)
{
    for (std::size_t i = 1; i < list.size(); ++i) {
        if (list[i]->location() < list[i - 1]->location()) {
            return false;
        }
    }
    return true;
}

// Every entry lies in the range that spans the whole time line.
template <class Entry> bool wholeRangeHoldsAll(const VellNoteEntryStorage& storage)
{
    const vell::VellFrameRange everything{0, std::numeric_limits<std::uint64_t>::max()};
    return storage.entriesInRange<Entry>(everything).size() == storage.entries<Entry>().size();
}

// What a loaded document is used for next: range queries, region ends and bar/beat lookups.
void checkLoadedEntries(const VellNoteEntryStorage& storage)
{
    VELL_FUZZ_CHECK(wholeRangeHoldsAll<vell::VellNoteEntry>(storage));
    VELL_FUZZ_CHECK(wholeRangeHoldsAll<vell::VellChordEntry>(storage));
    VELL_FUZZ_CHECK(wholeRangeHoldsAll<vell::VellRegionEntry>(storage));
    VELL_FUZZ_CHECK(wholeRangeHoldsAll<vell::VellTempoEntry>(storage));
    for (const auto& region : storage.regionEntries()) {
        VELL_FUZZ_CHECK(region->endLocation() >= region->location());
        VELL_FUZZ_CHECK(region->range().location == static_cast<std::uint64_t>(region->location()));
    }

    vell::VellBeatLocator locator;
    locator.updateWithNoteEntryStorage(storage);
    // Each metronome beat (the last of any at one location) is found at its own frame.
    const auto beats = storage.beatEntriesFilteredByTimeSignature();
    std::size_t checked = 0;
    for (std::size_t i = 0; i < beats.size() && checked < 64; ++i) {
        const vell::Frame location = beats[i]->location();
        if (location < 0 || (i + 1 < beats.size() && beats[i + 1]->location() == location)) {
            continue;
        }
        ++checked;
        const auto index = locator.barBeatIndexOfSample(location);
        VELL_FUZZ_CHECK(locator.sampleOfBarBeatIndex(index) == location);
        VELL_FUZZ_CHECK(locator.closestBarBeatSampleToSample(location) == location);
    }
    // Far before and after the grid, every frame still has a bar and beat.
    for (const vell::Frame sample :
         {std::numeric_limits<vell::Frame>::min(), vell::Frame(-1), vell::Frame(0),
          vell::Frame(1) << 62, std::numeric_limits<vell::Frame>::max()}) {
        const auto index = locator.barBeatIndexOfSample(sample);
        locator.sampleOfBarBeatIndex(index);
        locator.closestBarBeatSampleToSample(sample);
    }
}

/// Counts the change signals a storage emits.
struct ChangeCounter {
    explicit ChangeCounter(VellNoteEntryStorage& storage)
    {
        for (int kind = 0; kind < vell::kVellEntryKindCount; ++kind) {
            connections[static_cast<std::size_t>(kind)] =
                storage.signalForKind(static_cast<vell::VellEntryKind>(kind))
                    .connect([this](const vell::VellNoteEntryStorageChange&) { ++count; });
        }
    }
    ~ChangeCounter()
    {
        for (auto& connection : connections) {
            connection.disconnect();
        }
    }
    ChangeCounter(const ChangeCounter&) = delete;
    ChangeCounter& operator=(const ChangeCounter&) = delete;

    int count = 0;
    std::array<sigc::connection, vell::kVellEntryKindCount> connections;
};

} // namespace

VELL_FUZZ_TARGET(PracticeDocument)
{
    const std::string_view text = vell::fuzz::asText(data, size);

    VellPracticeDocument document;
    VELL_FUZZ_REQUIRE(document.readFromJSONData(kStartingDocument));
    const auto storage = document.noteEntryStorage();
    const std::string before = document.JSONData();
    ChangeCounter changes(*storage);

    vell::Error error;
    if (!document.readFromJSONData(text, &error)) {
        VELL_FUZZ_CHECK(!error.localizedDescription().empty());
        VELL_FUZZ_CHECK(changes.count == 0);
        VELL_FUZZ_CHECK(document.noteEntryStorage() == storage);
        VELL_FUZZ_CHECK(document.JSONData() == before);
        return 0;
    }
    VELL_FUZZ_CHECK(document.noteEntryStorage() == storage);
    VELL_FUZZ_CHECK(document.settings().is_object());
    VELL_FUZZ_CHECK(document.sampleRate() > 0 && document.sampleRate() <= 1'000'000);
    const VellNoteEntryStorage& entries = *storage;
    VELL_FUZZ_CHECK(inOrder(entries.noteEntries()) && inOrder(entries.beatEntries()) &&
                    inOrder(entries.tempoEntries()) && inOrder(entries.keyEntries()) &&
                    inOrder(entries.timeSignatureEntries()) && inOrder(entries.chordEntries()) &&
                    inOrder(entries.regionEntries()) && inOrder(entries.markerEntries()));

    checkLoadedEntries(entries);

    // Saved and read back: the same document, and the same text when saved again.
    const std::string saved = document.JSONData();
    VellPracticeDocument reread;
    vell::Error rereadError;
    const bool readBack = reread.readFromJSONData(saved, &rereadError);
    if (!readBack) {
        std::fprintf(stderr, "saved document does not read back: %s\n",
                     rereadError.localizedDescription().c_str());
    }
    VELL_FUZZ_REQUIRE(readBack);
    VELL_FUZZ_CHECK(sameDocument(document, reread));
    VELL_FUZZ_CHECK(reread.JSONData() == saved);

    // The same text again replaces equal lists by equal lists: nothing to announce.
    changes.count = 0;
    VELL_FUZZ_CHECK(document.readFromJSONData(text));
    VELL_FUZZ_CHECK(changes.count == 0);
    VELL_FUZZ_CHECK(document.JSONData() == saved);
    return 0;
}
