// The count-in: metronome beats before the playhead, extrapolated from the song's own beat grid.
#pragma once

#include <VellAudio/Types.h>

#include <cstdint>
#include <memory>
#include <optional>

namespace vell {

class VellNoteEntryStorage;

/// Works out where a count-in of whole bars begins before a frame, adding artificial beat entries
/// before the song's first beat when the song has too few beats there. Artificial beats are
/// spaced at the mean spacing of the song's first eight beat entries, the last one a spacing
/// before the first real beat; the bar starts among them are marked as downbeats, counting back
/// from the first real downbeat after the frame. They are recognised later by their negative
/// location.
///
/// Made for one count-in and dropped: a caller runs, with the playback frame F,
/// `clearArtificialBeatEntries()`, `requiresArtificialBeatEntriesForPrerollFrame(F)`, when that
/// answers true `generateArtificialBeatEntriesForPrerollFrame(F)`, and `prerollFrameFor(F)`.
///
/// Bars are counted in beat entries as the storage keeps them: twice the numerator of the first
/// time signature (its subdivision), its numerator in x/8 meters, 8 without a time signature.
///
/// Input the count-in cannot work with (fewer than eight beat entries to take the spacing from,
/// frames or counts that overflow 64 bits) is logged and changes nothing; the count-in then
/// begins at F.
///
/// Thread: main (it edits the storage).
class VellPrerollController {
public:
    VellPrerollController(std::shared_ptr<VellNoteEntryStorage> noteEntryStorage,
                          std::int64_t countInBars);

    const std::shared_ptr<VellNoteEntryStorage>& noteEntryStorage() const noexcept
    {
        return mNoteEntryStorage;
    }
    std::int64_t countInBars() const noexcept { return mCountInBars; }

    /// Beat entries in one bar of the first time signature (8 without one).
    std::int64_t beatEntriesPerBar() const;
    /// Beat entries the count-in lasts, or nothing when that overflows.
    std::optional<std::int64_t> countInBeatCount() const;
    /// Mean spacing of the first eight beat entries in frames, rounded to nearest (ties to even),
    /// or nothing with fewer than eight.
    std::optional<Frame> beatSpacing() const;

    /// Removes every beat entry with a negative location.
    void clearArtificialBeatEntries();
    /// Whether fewer than a count-in's worth of beat entries lie at or before frame.
    bool requiresArtificialBeatEntriesForPrerollFrame(Frame frame) const;
    /// Adds the missing beats before the first beat and marks their bar starts.
    void generateArtificialBeatEntriesForPrerollFrame(Frame frame);
    /// Where the count-in for frame begins: the first of the last count-in's worth of beat entries
    /// before frame, or frame itself when no beat entry lies before it.
    Frame prerollFrameFor(Frame frame) const;

    /// The four steps above in order: clears earlier artificial beats, adds those frame needs
    /// and returns where its count-in begins.
    Frame prepareCountInBefore(Frame frame);

private:
    std::optional<std::size_t> indexOfBeatAtOrBefore(Frame frame) const;
    void markCountInDownbeats(Frame frame);

    std::shared_ptr<VellNoteEntryStorage> mNoteEntryStorage;
    std::int64_t mCountInBars;
};

} // namespace vell
