// Small builders of note-entry storages shared by the music tests.
#pragma once

#include <VellAudio/VellNoteEntryStorage.h>

#include <functional>
#include <memory>
#include <vector>

namespace vell::test {

/// A new entry of the storage at location, added to it and returned for further settings.
template <class Entry> std::shared_ptr<Entry> put(VellNoteEntryStorage& storage, Frame location)
{
    auto entry = storage.newEntry<Entry>();
    entry->setLocation(location);
    storage.addEntries(VellEntryArray<Entry>{entry});
    return entry;
}

inline std::shared_ptr<VellBeatEntry> beatAt(VellNoteEntryStorage& storage, Frame location,
                                             bool downbeat = false)
{
    auto beat = storage.newBeatEntry();
    beat->setLocation(location);
    beat->setDownbeat(downbeat);
    return beat;
}

/// A downbeat every perBar entries from the first.
inline std::function<bool(int)> everyNth(int perBar)
{
    return [perBar](int i) { return i % perBar == 0; };
}

/// Adds count beat entries every 1000 frames from first, in one batch; downbeats where
/// isDownbeat(index) says.
inline void addBeats(VellNoteEntryStorage& storage, int count, Frame first,
                     const std::function<bool(int)>& isDownbeat)
{
    VellEntryArray<VellBeatEntry> beats;
    for (int i = 0; i < count; ++i) {
        beats.push_back(beatAt(storage, first + 1000 * i, isDownbeat(i)));
    }
    storage.addBeatEntriesFromArray(beats);
}

/// Adds a time signature at location, as one change.
inline void setSignature(VellNoteEntryStorage& storage, int numerator, int denominator,
                         Frame location = 0)
{
    auto signature = storage.newTimeSignatureEntry();
    signature->setNumerator(static_cast<std::uint8_t>(numerator));
    signature->setDenominator(static_cast<std::uint8_t>(denominator));
    signature->setLocation(location);
    storage.addTimeSignatureEntry(signature);
}

template <class Entry> std::vector<Frame> locations(const VellEntryArray<Entry>& entries)
{
    std::vector<Frame> result;
    for (const auto& entry : entries) {
        result.push_back(entry->location());
    }
    return result;
}

} // namespace vell::test
