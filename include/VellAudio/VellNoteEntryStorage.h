// The note-entry storage: a document's notes, beats, tempos, keys, time signatures, chords,
// regions and markers, each kept in location order, with change signals and notifications.
#pragma once

#include <VellAudio/BRIXTimeSignature.h>
#include <VellAudio/Error.h>
#include <VellAudio/Types.h>
#include <VellAudio/VellFrameRange.h>
#include <VellAudio/VellNoteEntries.h>

#include <sigc++/sigc++.h>

#include <array>
#include <memory>
#include <optional>
#include <string_view>
#include <unordered_set>
#include <vector>

namespace vell {

// Notification names, posted on the default notification centre with the storage as object
// after every change of that kind of entry.
inline constexpr std::string_view VellNoteEntryStorageDidChangeNoteEntriesNotification =
    "VellNoteEntryStorageDidChangeNoteEntriesNotification";
inline constexpr std::string_view VellNoteEntryStorageDidChangeBeatEntriesNotification =
    "VellNoteEntryStorageDidChangeBeatEntriesNotification";
inline constexpr std::string_view VellNoteEntryStorageDidChangeTempoEntriesNotification =
    "VellNoteEntryStorageDidChangeTempoEntriesNotification";
inline constexpr std::string_view VellNoteEntryStorageDidChangeKeyEntriesNotification =
    "VellNoteEntryStorageDidChangeKeyEntriesNotification";
inline constexpr std::string_view VellNoteEntryStorageDidChangeTimeSignatureEntriesNotification =
    "VellNoteEntryStorageDidChangeTimeSignatureEntriesNotification";
inline constexpr std::string_view VellNoteEntryStorageDidChangeChordEntriesNotification =
    "VellNoteEntryStorageDidChangeChordEntriesNotification";
inline constexpr std::string_view VellNoteEntryStorageDidChangeRegionEntriesNotification =
    "VellNoteEntryStorageDidChangeRegionEntriesNotification";
inline constexpr std::string_view VellNoteEntryStorageDidChangeMarkerEntriesNotification =
    "VellNoteEntryStorageDidChangeMarkerEntriesNotification";

/// The notification name for changes of one kind of entry.
std::string_view VellNoteEntryStorageNotificationNameForKind(VellEntryKind kind) noexcept;

class VellNoteEntryStorage;

/// What a change signal delivers: the storage that changed and which kind of entry.
struct VellNoteEntryStorageChange {
    VellNoteEntryStorage* object = nullptr;
    VellEntryKind kind = VellEntryKind::note;
};

using VellNoteEntryStorageSignal = sigc::signal<void(const VellNoteEntryStorageChange&)>;

template <class Entry> using VellEntryArray = std::vector<std::shared_ptr<Entry>>;

/// Every entry of a storage, kind by kind.
struct VellNoteEntryStorageContents {
    VellEntryArray<VellNoteEntry> notes;
    VellEntryArray<VellBeatEntry> beats;
    VellEntryArray<VellTempoEntry> tempos;
    VellEntryArray<VellKeyEntry> keys;
    VellEntryArray<VellTimeSignatureEntry> timeSignatures;
    VellEntryArray<VellChordEntry> chords;
    VellEntryArray<VellRegionEntry> regions;
    VellEntryArray<VellMarkerEntry> markers;
};

/// A document's note entries.
///
/// Every kind of entry is kept in its own list, in ascending location order (entries at the
/// same location keep the order they were added in). Edits through the storage or through an
/// entry's setters keep the order, and each edit that changes something emits that kind's
/// change signal once and then posts its notification (`VellNoteEntryStorageDid...Notification`)
/// on the default notification centre with the storage as object. Edits that change nothing
/// (adding nothing, removing entries that are not there, replacing an entry by itself) announce
/// nothing.
///
/// Adding an entry that already belongs to a storage (this one or another) does nothing for
/// that entry; add a copy instead. Removing detaches the entry, which keeps its values.
///
/// The lists returned by the accessors stay valid until the next edit of that kind: copy one
/// before editing while walking it.
///
/// Beat entries are kept at the storage's subdivision (see BRIXTimeSignature): two per quarter
/// note in x/4 and x/2, one per eighth note in x/8, with the first beat of each bar marked as a
/// downbeat. `beatEntriesFilteredByTimeSignature` is what the metronome plays.
///
/// Thread: main only. The note-entry playback keeps its own flat copy for the render thread.
class VellNoteEntryStorage {
public:
    VellNoteEntryStorage();
    ~VellNoteEntryStorage();
    VellNoteEntryStorage(const VellNoteEntryStorage&) = delete;
    VellNoteEntryStorage& operator=(const VellNoteEntryStorage&) = delete;

    // Change signals; each handler receives {this storage, kind}.
    VellNoteEntryStorageSignal& didChangeNoteEntriesSignal()
    {
        return signalForKind(VellEntryKind::note);
    }
    VellNoteEntryStorageSignal& didChangeBeatEntriesSignal()
    {
        return signalForKind(VellEntryKind::beat);
    }
    VellNoteEntryStorageSignal& didChangeTempoEntriesSignal()
    {
        return signalForKind(VellEntryKind::tempo);
    }
    VellNoteEntryStorageSignal& didChangeKeyEntriesSignal()
    {
        return signalForKind(VellEntryKind::key);
    }
    VellNoteEntryStorageSignal& didChangeTimeSignatureEntriesSignal()
    {
        return signalForKind(VellEntryKind::timeSignature);
    }
    VellNoteEntryStorageSignal& didChangeChordEntriesSignal()
    {
        return signalForKind(VellEntryKind::chord);
    }
    VellNoteEntryStorageSignal& didChangeRegionEntriesSignal()
    {
        return signalForKind(VellEntryKind::region);
    }
    VellNoteEntryStorageSignal& didChangeMarkerEntriesSignal()
    {
        return signalForKind(VellEntryKind::marker);
    }
    VellNoteEntryStorageSignal& signalForKind(VellEntryKind kind)
    {
        return mSignals[static_cast<int>(kind)];
    }

    // Generic access by entry type (Entry is one of the VellXEntry classes).
    template <class Entry> const VellEntryArray<Entry>& entries() const;
    /// A new detached entry with a fresh event id.
    template <class Entry> std::shared_ptr<Entry> newEntry();
    /// A detached copy with the same values and event id.
    template <class Entry> std::shared_ptr<Entry> copyOfEntry(const Entry& entry) const;
    template <class Entry> void addEntries(const VellEntryArray<Entry>& entries);
    template <class Entry> void removeEntries(const VellEntryArray<Entry>& entries);
    /// Removes the old entries that are present and adds the new ones, as one change. Entries in
    /// both arrays stay. The arrays may differ in size.
    template <class Entry>
    void replaceEntries(const VellEntryArray<Entry>& oldEntries,
                        const VellEntryArray<Entry>& newEntries);
    /// Entries of a kind whose span meets the half-open range [location, location + length);
    /// an entry without length is a single frame. An empty range meets nothing.
    template <class Entry> VellEntryArray<Entry> entriesInRange(VellFrameRange range) const;

    /// Removes every entry of every kind (one change per kind that had entries).
    void removeAllEntries();
    /// Replaces every list with the given entries (put in location order on the way in). A kind
    /// whose new entries equal the current ones in location and values keeps the entries it
    /// holds and announces nothing; every other kind announces one change, after all lists were
    /// replaced. Entries that belong to another storage are copied. Used to swap in a document
    /// that was read in full.
    void setContents(VellNoteEntryStorageContents contents);
    /// Every list, as held now.
    VellNoteEntryStorageContents contents() const;
    /// Whether the storage holds no entry at all.
    bool isEmpty() const noexcept;

    // Notes.
    const VellEntryArray<VellNoteEntry>& noteEntries() const { return entries<VellNoteEntry>(); }
    std::shared_ptr<VellNoteEntry> newNoteEntry() { return newEntry<VellNoteEntry>(); }
    std::shared_ptr<VellNoteEntry> copyOfNoteEntry(const VellNoteEntry& e) const
    {
        return copyOfEntry(e);
    }
    void addNoteEntry(const std::shared_ptr<VellNoteEntry>& e) { addEntries<VellNoteEntry>({e}); }
    void addNoteEntriesFromArray(const VellEntryArray<VellNoteEntry>& a) { addEntries(a); }
    void removeNoteEntry(const std::shared_ptr<VellNoteEntry>& e)
    {
        removeEntries<VellNoteEntry>({e});
    }
    void removeNoteEntriesInArray(const VellEntryArray<VellNoteEntry>& a) { removeEntries(a); }
    void replaceNoteEntriesInArray(const VellEntryArray<VellNoteEntry>& o,
                                   const VellEntryArray<VellNoteEntry>& n)
    {
        replaceEntries(o, n);
    }
    VellEntryArray<VellNoteEntry> noteEntriesInRange(VellFrameRange r) const
    {
        return entriesInRange<VellNoteEntry>(r);
    }

    // Beats.
    const VellEntryArray<VellBeatEntry>& beatEntries() const { return entries<VellBeatEntry>(); }
    std::shared_ptr<VellBeatEntry> newBeatEntry() { return newEntry<VellBeatEntry>(); }
    std::shared_ptr<VellBeatEntry> copyOfBeatEntry(const VellBeatEntry& e) const
    {
        return copyOfEntry(e);
    }
    std::shared_ptr<VellBeatEntry> copyOfBeatEntry(const std::shared_ptr<VellBeatEntry>& e) const
    {
        return e ? copyOfEntry(*e) : nullptr;
    }
    void addBeatEntry(const std::shared_ptr<VellBeatEntry>& e) { addEntries<VellBeatEntry>({e}); }
    void addBeatEntriesFromArray(const VellEntryArray<VellBeatEntry>& a) { addEntries(a); }
    void removeBeatEntry(const std::shared_ptr<VellBeatEntry>& e)
    {
        removeEntries<VellBeatEntry>({e});
    }
    void removeBeatEntriesInArray(const VellEntryArray<VellBeatEntry>& a) { removeEntries(a); }
    /// Replaces each entry of the first array by the entry at the same index of the second
    /// (more generally: removes the first, adds the second, as one change).
    void replaceBeatEntriesInArray(const VellEntryArray<VellBeatEntry>& o,
                                   const VellEntryArray<VellBeatEntry>& n)
    {
        replaceEntries(o, n);
    }
    VellEntryArray<VellBeatEntry> beatEntriesInRange(VellFrameRange r) const
    {
        return entriesInRange<VellBeatEntry>(r);
    }
    /// The beats the metronome plays: counting from each downbeat (and from the first entry
    /// before any downbeat), every entry in x/8 and every second entry in other meters (also
    /// without a time signature), by the signature in force at each beat.
    VellEntryArray<VellBeatEntry> beatEntriesFilteredByTimeSignature() const;

    // Tempos.
    const VellEntryArray<VellTempoEntry>& tempoEntries() const { return entries<VellTempoEntry>(); }
    std::shared_ptr<VellTempoEntry> newTempoEntry() { return newEntry<VellTempoEntry>(); }
    std::shared_ptr<VellTempoEntry> copyOfTempoEntry(const VellTempoEntry& e) const
    {
        return copyOfEntry(e);
    }
    void addTempoEntry(const std::shared_ptr<VellTempoEntry>& e)
    {
        addEntries<VellTempoEntry>({e});
    }
    void removeTempoEntry(const std::shared_ptr<VellTempoEntry>& e)
    {
        removeEntries<VellTempoEntry>({e});
    }
    void replaceTempoEntriesInArray(const VellEntryArray<VellTempoEntry>& o,
                                    const VellEntryArray<VellTempoEntry>& n)
    {
        replaceEntries(o, n);
    }
    /// The tempo entry in force at a frame: the last one starting at or before it (the first one
    /// for frames before every entry); nullptr without tempo entries.
    std::shared_ptr<VellTempoEntry> tempoEntryAtLocation(Frame location) const;

    // Keys.
    const VellEntryArray<VellKeyEntry>& keyEntries() const { return entries<VellKeyEntry>(); }
    std::shared_ptr<VellKeyEntry> newKeyEntry() { return newEntry<VellKeyEntry>(); }
    std::shared_ptr<VellKeyEntry> copyOfKeyEntry(const VellKeyEntry& e) const
    {
        return copyOfEntry(e);
    }
    void addKeyEntry(const std::shared_ptr<VellKeyEntry>& e) { addEntries<VellKeyEntry>({e}); }
    void removeKeyEntry(const std::shared_ptr<VellKeyEntry>& e)
    {
        removeEntries<VellKeyEntry>({e});
    }
    void replaceKeyEntriesInArray(const VellEntryArray<VellKeyEntry>& o,
                                  const VellEntryArray<VellKeyEntry>& n)
    {
        replaceEntries(o, n);
    }

    // Time signatures.
    const VellEntryArray<VellTimeSignatureEntry>& timeSignatureEntries() const
    {
        return entries<VellTimeSignatureEntry>();
    }
    std::shared_ptr<VellTimeSignatureEntry> newTimeSignatureEntry()
    {
        return newEntry<VellTimeSignatureEntry>();
    }
    std::shared_ptr<VellTimeSignatureEntry>
    copyOfTimeSignatureEntry(const VellTimeSignatureEntry& e) const
    {
        return copyOfEntry(e);
    }
    void addTimeSignatureEntry(const std::shared_ptr<VellTimeSignatureEntry>& e)
    {
        addEntries<VellTimeSignatureEntry>({e});
    }
    void removeTimeSignatureEntry(const std::shared_ptr<VellTimeSignatureEntry>& e)
    {
        removeEntries<VellTimeSignatureEntry>({e});
    }
    void replaceTimeSignatureEntriesInArray(const VellEntryArray<VellTimeSignatureEntry>& o,
                                            const VellEntryArray<VellTimeSignatureEntry>& n)
    {
        replaceEntries(o, n);
    }
    /// The signature in force at a frame: the last entry at or before it, else the first entry,
    /// else 0/0.
    BRIXTimeSignature timeSignatureAtLocation(Frame location) const;

    // Chords.
    const VellEntryArray<VellChordEntry>& chordEntries() const { return entries<VellChordEntry>(); }
    std::shared_ptr<VellChordEntry> newChordEntry() { return newEntry<VellChordEntry>(); }
    std::shared_ptr<VellChordEntry> copyOfChordEntry(const VellChordEntry& e) const
    {
        return copyOfEntry(e);
    }
    void addChordEntry(const std::shared_ptr<VellChordEntry>& e)
    {
        addEntries<VellChordEntry>({e});
    }
    void addChordEntriesFromArray(const VellEntryArray<VellChordEntry>& a) { addEntries(a); }
    void removeChordEntry(const std::shared_ptr<VellChordEntry>& e)
    {
        removeEntries<VellChordEntry>({e});
    }
    void replaceChordEntry(const std::shared_ptr<VellChordEntry>& o,
                           const std::shared_ptr<VellChordEntry>& n)
    {
        replaceEntries<VellChordEntry>({o}, {n});
    }
    VellEntryArray<VellChordEntry> chordEntriesInRange(VellFrameRange r) const
    {
        return entriesInRange<VellChordEntry>(r);
    }
    /// The chord sounding at a frame: the last chord starting at or before it, provided its
    /// length is 0 (until the next chord) or reaches past the frame; nullptr otherwise.
    std::shared_ptr<VellChordEntry> chordEntryAtLocation(Frame location) const;

    // Regions. The storage does not prevent overlapping regions; callers keep them disjoint.
    const VellEntryArray<VellRegionEntry>& regionEntries() const
    {
        return entries<VellRegionEntry>();
    }
    std::shared_ptr<VellRegionEntry> newRegionEntry() { return newEntry<VellRegionEntry>(); }
    /// New detached regions named "marker", "chorus", "verse", "bridge".
    std::shared_ptr<VellRegionEntry> newMarkerRegionEntry();
    std::shared_ptr<VellRegionEntry> newChorusRegionEntry();
    std::shared_ptr<VellRegionEntry> newVerseRegionEntry();
    std::shared_ptr<VellRegionEntry> newBridgeRegionEntry();
    std::shared_ptr<VellRegionEntry> copyOfRegionEntry(const VellRegionEntry& e) const
    {
        return copyOfEntry(e);
    }
    std::shared_ptr<VellRegionEntry>
    copyOfRegionEntry(const std::shared_ptr<VellRegionEntry>& e) const
    {
        return e ? copyOfEntry(*e) : nullptr;
    }
    void addRegionEntry(const std::shared_ptr<VellRegionEntry>& e)
    {
        addEntries<VellRegionEntry>({e});
    }
    void removeRegionEntry(const std::shared_ptr<VellRegionEntry>& e)
    {
        removeEntries<VellRegionEntry>({e});
    }
    /// Replaces a region by another (usually an edited copy) as one change.
    void replaceRegionEntry(const std::shared_ptr<VellRegionEntry>& o,
                            const std::shared_ptr<VellRegionEntry>& n)
    {
        replaceEntries<VellRegionEntry>({o}, {n});
    }
    /// The first region that starts exactly at a frame.
    std::shared_ptr<VellRegionEntry> regionEntryForLocation(Frame location) const;
    /// The first region, in order, whose span [location, location + length) holds the frame.
    std::shared_ptr<VellRegionEntry> regionEntryContaining(Frame location) const;
    /// Regions that overlap the range, in order.
    VellEntryArray<VellRegionEntry> regionEntriesInRange(VellFrameRange r) const
    {
        return entriesInRange<VellRegionEntry>(r);
    }
    /// The region just before / after a region in the list; nullptr at the ends or when the
    /// region is not in this storage.
    std::shared_ptr<VellRegionEntry>
    regionEntryOccurringBefore(const std::shared_ptr<VellRegionEntry>& region) const;
    std::shared_ptr<VellRegionEntry>
    regionEntryOccurringAfter(const std::shared_ptr<VellRegionEntry>& region) const;

    // Markers.
    const VellEntryArray<VellMarkerEntry>& markerEntries() const
    {
        return entries<VellMarkerEntry>();
    }
    std::shared_ptr<VellMarkerEntry> newMarkerEntry() { return newEntry<VellMarkerEntry>(); }
    std::shared_ptr<VellMarkerEntry> copyOfMarkerEntry(const VellMarkerEntry& e) const
    {
        return copyOfEntry(e);
    }
    void addMarkerEntry(const std::shared_ptr<VellMarkerEntry>& e)
    {
        addEntries<VellMarkerEntry>({e});
    }
    void removeMarkerEntry(const std::shared_ptr<VellMarkerEntry>& e)
    {
        removeEntries<VellMarkerEntry>({e});
    }
    void replaceMarkerEntry(const std::shared_ptr<VellMarkerEntry>& o,
                            const std::shared_ptr<VellMarkerEntry>& n)
    {
        replaceEntries<VellMarkerEntry>({o}, {n});
    }
    /// Markers inside the range, in order ((f, 1) gives the marker exactly at f).
    VellEntryArray<VellMarkerEntry> markerEntriesInRange(VellFrameRange r) const
    {
        return entriesInRange<VellMarkerEntry>(r);
    }

    /// Fills an empty storage with a 4/4 beat grid: beat entries every eighth note at bpm from
    /// firstBeatSeconds to the end of a file of totalFrames at sampleRate, a downbeat every 8
    /// entries starting with the first; one 4/4 time-signature entry at 0 and one tempo entry
    /// covering the whole file. Fails (changing nothing) for a non-empty storage, a tempo outside
    /// (0, 1000], a first beat outside [0, file length), a sample rate outside (0, 1 MHz] or an
    /// empty file.
    bool makeBeatGrid(double bpm, double firstBeatSeconds, Frame totalFrames, double sampleRate,
                      Error* outError = nullptr);

private:
    friend class VellEntry;

    template <class Entry> VellEntryArray<Entry>& mutableEntries();
    /// Inserts in order and gives the entry an event id; false if it already has an owner.
    template <class Entry> bool attach(const std::shared_ptr<Entry>& entry);
    /// Removes and detaches those of entries that are in this storage; whether any were.
    template <class Entry> bool detachAll(const VellEntryArray<Entry>& entries);
    template <class Entry> void reorder(const VellEntry& entry);
    /// Calls fn with each of the eight typed lists, in entry-kind order.
    template <class Fn> void forEachList(Fn&& fn);
    template <class Entry> bool setEntriesOfType(VellEntryArray<Entry> incoming);
    void entryDidChange(VellEntry& entry, bool locationChanged);
    void announce(VellEntryKind kind);
    long long takeEventId(long long wanted);
    void releaseEventId(long long id) noexcept;

    // Lists hold the entries of each kind as their own type, so the typed accessors can hand
    // out references without copying.
    VellEntryArray<VellNoteEntry> mNoteEntries;
    VellEntryArray<VellBeatEntry> mBeatEntries;
    VellEntryArray<VellTempoEntry> mTempoEntries;
    VellEntryArray<VellKeyEntry> mKeyEntries;
    VellEntryArray<VellTimeSignatureEntry> mTimeSignatureEntries;
    VellEntryArray<VellChordEntry> mChordEntries;
    VellEntryArray<VellRegionEntry> mRegionEntries;
    VellEntryArray<VellMarkerEntry> mMarkerEntries;

    std::array<VellNoteEntryStorageSignal, kVellEntryKindCount> mSignals;
    std::unordered_set<long long> mEventIdsInUse;
    long long mNextEventId = 1;
};

} // namespace vell
