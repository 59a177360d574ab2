// The note-entry storage: ordered lists per entry kind, event ids, change announcements.
#include "VellAudio/VellNoteEntryStorage.h"

#include "music/MusicError.h"
#include "VellAudio/NotificationCenter.h"
#include "support/Format.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <unordered_set>

namespace vell {

namespace {

constexpr Frame kMaxFrame = std::numeric_limits<Frame>::max();

Frame saturatingAdd(Frame a, Frame b) noexcept
{
    Frame sum = 0;
    if (__builtin_add_overflow(a, b, &sum)) {
        return b > 0 ? kMaxFrame : std::numeric_limits<Frame>::min();
    }
    return sum;
}

Frame clampToFrame(std::uint64_t value) noexcept
{
    return value > static_cast<std::uint64_t>(kMaxFrame) ? kMaxFrame : static_cast<Frame>(value);
}

template <class Entry> Frame entryLength(const Entry& entry) noexcept
{
    if constexpr (requires { entry.length(); }) {
        return entry.length();
    } else {
        return 0;
    }
}

// Values compared when a loaded document replaces the entries: equal lists keep the entries
// already held (and their identity).
bool sameValues(const VellNoteEntry& a, const VellNoteEntry& b)
{
    return a.length() == b.length() && a.pitch() == b.pitch() && a.channel() == b.channel();
}
bool sameValues(const VellBeatEntry& a, const VellBeatEntry& b)
{
    return a.isDownbeat() == b.isDownbeat();
}
bool sameValues(const VellTempoEntry& a, const VellTempoEntry& b)
{
    return a.length() == b.length() && a.tempo() == b.tempo();
}
bool sameValues(const VellKeyEntry& a, const VellKeyEntry& b)
{
    return a.tonicChord() == b.tonicChord();
}
bool sameValues(const VellTimeSignatureEntry& a, const VellTimeSignatureEntry& b)
{
    return a.timeSignature() == b.timeSignature();
}
bool sameValues(const VellChordEntry& a, const VellChordEntry& b)
{
    return a.length() == b.length() && a.chord() == b.chord();
}
bool sameValues(const VellRegionEntry& a, const VellRegionEntry& b)
{
    return a.length() == b.length() && a.name() == b.name();
}
bool sameValues(const VellMarkerEntry& a, const VellMarkerEntry& b)
{
    return a.name() == b.name();
}

template <class Entry>
bool sameLists(const VellEntryArray<Entry>& a, const VellEntryArray<Entry>& b)
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

template <class Entry>
bool locationLess(const std::shared_ptr<Entry>& a, const std::shared_ptr<Entry>& b)
{
    return a->location() < b->location();
}

// Puts entries appended after the first `sorted` ones in place: O(n + k log k), stable, so
// entries at one location keep the order they were added in.
template <class Entry> void restoreOrder(VellEntryArray<Entry>& list, std::size_t sorted)
{
    const auto middle = list.begin() + static_cast<std::ptrdiff_t>(std::min(sorted, list.size()));
    const auto from = middle == list.begin() ? middle : std::prev(middle);
    if (std::is_sorted(from, list.end(), locationLess<Entry>)) {
        return; // the usual case: new entries after the old ones, in order
    }
    std::stable_sort(middle, list.end(), locationLess<Entry>);
    std::inplace_merge(list.begin(), middle, list.end(), locationLess<Entry>);
}

// The last entry at or before a location, else the first; nullptr for an empty list.
template <class Entry>
std::shared_ptr<Entry> entryInForceAt(const VellEntryArray<Entry>& list, Frame location)
{
    if (list.empty()) {
        return nullptr;
    }
    auto it = std::upper_bound(
        list.begin(), list.end(), location,
        [](Frame f, const std::shared_ptr<Entry>& e) { return f < e->location(); });
    return it == list.begin() ? list.front() : *std::prev(it);
}

} // namespace

std::string_view VellNoteEntryStorageNotificationNameForKind(VellEntryKind kind) noexcept
{
    switch (kind) {
    case VellEntryKind::note:
        return VellNoteEntryStorageDidChangeNoteEntriesNotification;
    case VellEntryKind::beat:
        return VellNoteEntryStorageDidChangeBeatEntriesNotification;
    case VellEntryKind::tempo:
        return VellNoteEntryStorageDidChangeTempoEntriesNotification;
    case VellEntryKind::key:
        return VellNoteEntryStorageDidChangeKeyEntriesNotification;
    case VellEntryKind::timeSignature:
        return VellNoteEntryStorageDidChangeTimeSignatureEntriesNotification;
    case VellEntryKind::chord:
        return VellNoteEntryStorageDidChangeChordEntriesNotification;
    case VellEntryKind::region:
        return VellNoteEntryStorageDidChangeRegionEntriesNotification;
    case VellEntryKind::marker:
        return VellNoteEntryStorageDidChangeMarkerEntriesNotification;
    }
    return {};
}

// The typed lists, by entry class.
template <> VellEntryArray<VellNoteEntry>& VellNoteEntryStorage::mutableEntries<VellNoteEntry>()
{
    return mNoteEntries;
}
template <> VellEntryArray<VellBeatEntry>& VellNoteEntryStorage::mutableEntries<VellBeatEntry>()
{
    return mBeatEntries;
}
template <> VellEntryArray<VellTempoEntry>& VellNoteEntryStorage::mutableEntries<VellTempoEntry>()
{
    return mTempoEntries;
}
template <> VellEntryArray<VellKeyEntry>& VellNoteEntryStorage::mutableEntries<VellKeyEntry>()
{
    return mKeyEntries;
}
template <>
VellEntryArray<VellTimeSignatureEntry>&
VellNoteEntryStorage::mutableEntries<VellTimeSignatureEntry>()
{
    return mTimeSignatureEntries;
}
template <> VellEntryArray<VellChordEntry>& VellNoteEntryStorage::mutableEntries<VellChordEntry>()
{
    return mChordEntries;
}
template <> VellEntryArray<VellRegionEntry>& VellNoteEntryStorage::mutableEntries<VellRegionEntry>()
{
    return mRegionEntries;
}
template <> VellEntryArray<VellMarkerEntry>& VellNoteEntryStorage::mutableEntries<VellMarkerEntry>()
{
    return mMarkerEntries;
}

template <class Fn> void VellNoteEntryStorage::forEachList(Fn&& fn)
{
    fn(mNoteEntries);
    fn(mBeatEntries);
    fn(mTempoEntries);
    fn(mKeyEntries);
    fn(mTimeSignatureEntries);
    fn(mChordEntries);
    fn(mRegionEntries);
    fn(mMarkerEntries);
}

VellNoteEntryStorage::VellNoteEntryStorage() = default;

VellNoteEntryStorage::~VellNoteEntryStorage()
{
    auto detachAll = [](auto& list) {
        for (auto& entry : list) {
            entry->mOwner = nullptr;
        }
    };
    forEachList(detachAll);
}

template <class Entry> const VellEntryArray<Entry>& VellNoteEntryStorage::entries() const
{
    return const_cast<VellNoteEntryStorage*>(this)->mutableEntries<Entry>();
}

template <class Entry> std::shared_ptr<Entry> VellNoteEntryStorage::newEntry()
{
    auto entry = std::make_shared<Entry>();
    // Not reserved until added; the counter only moves on, so new entries never share an id.
    while (mEventIdsInUse.contains(mNextEventId)) {
        mNextEventId = mNextEventId == std::numeric_limits<long long>::max() ? 1 : mNextEventId + 1;
    }
    entry->_eventId = mNextEventId;
    mNextEventId = mNextEventId == std::numeric_limits<long long>::max() ? 1 : mNextEventId + 1;
    return entry;
}

template <class Entry>
std::shared_ptr<Entry> VellNoteEntryStorage::copyOfEntry(const Entry& entry) const
{
    return std::make_shared<Entry>(entry);
}

long long VellNoteEntryStorage::takeEventId(long long wanted)
{
    constexpr long long kMaxId = std::numeric_limits<long long>::max();
    if (wanted > 0 && !mEventIdsInUse.contains(wanted)) {
        mEventIdsInUse.insert(wanted);
        return wanted;
    }
    while (mEventIdsInUse.contains(mNextEventId)) {
        mNextEventId = mNextEventId == kMaxId ? 1 : mNextEventId + 1;
    }
    const long long id = mNextEventId;
    mNextEventId = mNextEventId == kMaxId ? 1 : mNextEventId + 1;
    mEventIdsInUse.insert(id);
    return id;
}

void VellNoteEntryStorage::releaseEventId(long long id) noexcept
{
    mEventIdsInUse.erase(id);
}

template <class Entry> bool VellNoteEntryStorage::attach(const std::shared_ptr<Entry>& entry)
{
    if (!entry || entry->mOwner) {
        return false;
    }
    entry->_eventId = takeEventId(entry->_eventId);
    entry->mOwner = this;
    auto& list = mutableEntries<Entry>();
    // Appended; the caller restores the order once for the whole batch.
    list.push_back(entry);
    return true;
}

template <class Entry> bool VellNoteEntryStorage::detachAll(const VellEntryArray<Entry>& entries)
{
    std::unordered_set<const VellEntry*> leaving;
    for (const auto& entry : entries) {
        if (entry && entry->mOwner == this) {
            leaving.insert(entry.get());
        }
    }
    if (leaving.empty()) {
        return false;
    }
    // One pass, so removing many entries stays linear. (The predicate runs once per entry.)
    std::erase_if(mutableEntries<Entry>(), [&](const std::shared_ptr<Entry>& entry) {
        if (!leaving.contains(entry.get())) {
            return false;
        }
        releaseEventId(entry->_eventId);
        entry->mOwner = nullptr;
        return true;
    });
    return true;
}

template <class Entry> void VellNoteEntryStorage::addEntries(const VellEntryArray<Entry>& entries)
{
    // Callers may pass one of the storage's own lists; edits below would change it underfoot.
    const VellEntryArray<Entry> incoming = entries;
    const std::size_t sorted = mutableEntries<Entry>().size();
    bool changed = false;
    for (const auto& entry : incoming) {
        changed = attach(entry) || changed;
    }
    if (!changed) {
        return;
    }
    restoreOrder(mutableEntries<Entry>(), sorted);
    announce(Entry::kKind);
}

template <class Entry>
void VellNoteEntryStorage::removeEntries(const VellEntryArray<Entry>& entries)
{
    if (detachAll(entries)) {
        announce(Entry::kKind);
    }
}

template <class Entry>
void VellNoteEntryStorage::replaceEntries(const VellEntryArray<Entry>& oldArray,
                                          const VellEntryArray<Entry>& newArray)
{
    // Copies: either array may be one of the storage's own lists.
    const VellEntryArray<Entry> oldEntries = oldArray;
    const VellEntryArray<Entry> newEntries = newArray;
    std::unordered_set<const Entry*> inBoth;
    {
        std::unordered_set<const Entry*> olds;
        for (const auto& entry : oldEntries) {
            olds.insert(entry.get());
        }
        for (const auto& entry : newEntries) {
            if (entry && olds.contains(entry.get()) && entry->mOwner == this) {
                inBoth.insert(entry.get());
            }
        }
    }
    // All removals first, so a copy can take over its original's event id.
    VellEntryArray<Entry> leaving;
    for (const auto& entry : oldEntries) {
        if (!inBoth.contains(entry.get())) {
            leaving.push_back(entry);
        }
    }
    bool changed = detachAll(leaving);
    const std::size_t sorted = mutableEntries<Entry>().size();
    for (const auto& entry : newEntries) {
        if (!inBoth.contains(entry.get())) {
            changed = attach(entry) || changed;
        }
    }
    if (!changed) {
        return;
    }
    restoreOrder(mutableEntries<Entry>(), sorted);
    announce(Entry::kKind);
}

template <class Entry>
VellEntryArray<Entry> VellNoteEntryStorage::entriesInRange(VellFrameRange range) const
{
    VellEntryArray<Entry> found;
    const Frame start = clampToFrame(range.location);
    const Frame end = saturatingAdd(start, clampToFrame(range.length));
    if (end <= start) {
        return found;
    }
    for (const auto& entry : entries<Entry>()) {
        const Frame location = entry->location();
        if (location >= end) {
            break;
        }
        const Frame length = entryLength(*entry);
        const Frame entryEnd = saturatingAdd(location, length > 0 ? length : 1);
        if (entryEnd > start) {
            found.push_back(entry);
        }
    }
    return found;
}

template <class Entry> void VellNoteEntryStorage::reorder(const VellEntry& changed)
{
    auto& list = mutableEntries<Entry>();
    const auto it = std::find_if(list.begin(), list.end(), [&](const std::shared_ptr<Entry>& e) {
        return e.get() == &changed;
    });
    if (it == list.end()) {
        return;
    }
    std::shared_ptr<Entry> entry = *it;
    list.erase(it);
    const auto at = std::upper_bound(list.begin(), list.end(), entry, locationLess<Entry>);
    list.insert(at, std::move(entry));
}

void VellNoteEntryStorage::entryDidChange(VellEntry& entry, bool locationChanged)
{
    if (locationChanged) {
        forEachList([&](auto& list) {
            using Entry = typename std::decay_t<decltype(list)>::value_type::element_type;
            if (Entry::kKind == entry.entryKind()) {
                reorder<Entry>(entry);
            }
        });
    }
    announce(entry.entryKind());
}

void VellNoteEntryStorage::announce(VellEntryKind kind)
{
    signalForKind(kind).emit(VellNoteEntryStorageChange{this, kind});
    NotificationCenter::defaultCenter().post(VellNoteEntryStorageNotificationNameForKind(kind),
                                             this);
}

void VellNoteEntryStorage::removeAllEntries()
{
    bool changed[kVellEntryKindCount] = {};
    auto clear = [&](auto& list) {
        using Entry = typename std::decay_t<decltype(list)>::value_type::element_type;
        if (list.empty()) {
            return;
        }
        for (auto& entry : list) {
            releaseEventId(entry->_eventId);
            entry->mOwner = nullptr;
        }
        list.clear();
        changed[static_cast<int>(Entry::kKind)] = true;
    };
    forEachList(clear);
    for (int kind = 0; kind < kVellEntryKindCount; ++kind) {
        if (changed[kind]) {
            announce(static_cast<VellEntryKind>(kind));
        }
    }
}

template <class Entry> bool VellNoteEntryStorage::setEntriesOfType(VellEntryArray<Entry> incoming)
{
    std::erase(incoming, nullptr);
    std::stable_sort(incoming.begin(), incoming.end(), locationLess<Entry>);
    auto& mine = mutableEntries<Entry>();
    if (sameLists(mine, incoming)) {
        return false;
    }
    for (auto& entry : mine) {
        releaseEventId(entry->_eventId);
        entry->mOwner = nullptr;
    }
    mine.clear();
    // Every old entry is detached before any new one takes an id, so ids carry over when free.
    for (auto& entry : incoming) {
        if (entry->mOwner == this) {
            continue; // listed twice
        }
        if (entry->mOwner) {
            entry = copyOfEntry(*entry);
        }
        attach(entry);
    }
    return true;
}

void VellNoteEntryStorage::setContents(VellNoteEntryStorageContents contents)
{
    const bool changed[kVellEntryKindCount] = {
        setEntriesOfType(std::move(contents.notes)),
        setEntriesOfType(std::move(contents.beats)),
        setEntriesOfType(std::move(contents.tempos)),
        setEntriesOfType(std::move(contents.keys)),
        setEntriesOfType(std::move(contents.timeSignatures)),
        setEntriesOfType(std::move(contents.chords)),
        setEntriesOfType(std::move(contents.regions)),
        setEntriesOfType(std::move(contents.markers)),
    };
    // Announced only once every list is in place, so observers see the whole new document.
    for (int kind = 0; kind < kVellEntryKindCount; ++kind) {
        if (changed[kind]) {
            announce(static_cast<VellEntryKind>(kind));
        }
    }
}

VellNoteEntryStorageContents VellNoteEntryStorage::contents() const
{
    return {mNoteEntries,          mBeatEntries,  mTempoEntries,  mKeyEntries,
            mTimeSignatureEntries, mChordEntries, mRegionEntries, mMarkerEntries};
}

bool VellNoteEntryStorage::isEmpty() const noexcept
{
    return mNoteEntries.empty() && mBeatEntries.empty() && mTempoEntries.empty() &&
           mKeyEntries.empty() && mTimeSignatureEntries.empty() && mChordEntries.empty() &&
           mRegionEntries.empty() && mMarkerEntries.empty();
}

VellEntryArray<VellBeatEntry> VellNoteEntryStorage::beatEntriesFilteredByTimeSignature() const
{
    VellEntryArray<VellBeatEntry> kept;
    kept.reserve(mBeatEntries.size() / 2 + 1);
    std::size_t signatureIndex = 0;
    long long sinceDownbeat = 0;
    for (const auto& beat : mBeatEntries) {
        // The signature in force: the last entry at or before the beat, else the first one.
        while (signatureIndex + 1 < mTimeSignatureEntries.size() &&
               mTimeSignatureEntries[signatureIndex + 1]->location() <= beat->location()) {
            ++signatureIndex;
        }
        const int stride =
            mTimeSignatureEntries.empty()
                ? 2
                : mTimeSignatureEntries[signatureIndex]->timeSignature().beatEntryStride();
        if (beat->isDownbeat()) {
            sinceDownbeat = 0;
        }
        if (sinceDownbeat % stride == 0) {
            kept.push_back(beat);
        }
        ++sinceDownbeat;
    }
    return kept;
}

std::shared_ptr<VellTempoEntry> VellNoteEntryStorage::tempoEntryAtLocation(Frame location) const
{
    return entryInForceAt(mTempoEntries, location);
}

BRIXTimeSignature VellNoteEntryStorage::timeSignatureAtLocation(Frame location) const
{
    const auto entry = entryInForceAt(mTimeSignatureEntries, location);
    return entry ? entry->timeSignature() : BRIXTimeSignature();
}

std::shared_ptr<VellChordEntry> VellNoteEntryStorage::chordEntryAtLocation(Frame location) const
{
    auto it = std::upper_bound(
        mChordEntries.begin(), mChordEntries.end(), location,
        [](Frame f, const std::shared_ptr<VellChordEntry>& e) { return f < e->location(); });
    if (it == mChordEntries.begin()) {
        return nullptr;
    }
    const auto& chord = *std::prev(it);
    if (chord->length() <= 0 || location < saturatingAdd(chord->location(), chord->length())) {
        return chord;
    }
    return nullptr;
}

namespace {

std::shared_ptr<VellRegionEntry> namedRegion(std::shared_ptr<VellRegionEntry> region,
                                             const char* name)
{
    region->setName(name);
    return region;
}

} // namespace

std::shared_ptr<VellRegionEntry> VellNoteEntryStorage::newMarkerRegionEntry()
{
    return namedRegion(newRegionEntry(), "marker");
}

std::shared_ptr<VellRegionEntry> VellNoteEntryStorage::newChorusRegionEntry()
{
    return namedRegion(newRegionEntry(), "chorus");
}

std::shared_ptr<VellRegionEntry> VellNoteEntryStorage::newVerseRegionEntry()
{
    return namedRegion(newRegionEntry(), "verse");
}

std::shared_ptr<VellRegionEntry> VellNoteEntryStorage::newBridgeRegionEntry()
{
    return namedRegion(newRegionEntry(), "bridge");
}

std::shared_ptr<VellRegionEntry> VellNoteEntryStorage::regionEntryForLocation(Frame location) const
{
    auto it = std::lower_bound(
        mRegionEntries.begin(), mRegionEntries.end(), location,
        [](const std::shared_ptr<VellRegionEntry>& e, Frame f) { return e->location() < f; });
    return it != mRegionEntries.end() && (*it)->location() == location ? *it : nullptr;
}

std::shared_ptr<VellRegionEntry> VellNoteEntryStorage::regionEntryContaining(Frame location) const
{
    for (const auto& region : mRegionEntries) {
        if (region->location() > location) {
            break;
        }
        if (location < saturatingAdd(region->location(), region->length())) {
            return region;
        }
    }
    return nullptr;
}

std::shared_ptr<VellRegionEntry> VellNoteEntryStorage::regionEntryOccurringBefore(
    const std::shared_ptr<VellRegionEntry>& region) const
{
    const auto it = std::find(mRegionEntries.begin(), mRegionEntries.end(), region);
    if (!region || it == mRegionEntries.end() || it == mRegionEntries.begin()) {
        return nullptr;
    }
    return *std::prev(it);
}

std::shared_ptr<VellRegionEntry> VellNoteEntryStorage::regionEntryOccurringAfter(
    const std::shared_ptr<VellRegionEntry>& region) const
{
    const auto it = std::find(mRegionEntries.begin(), mRegionEntries.end(), region);
    if (!region || it == mRegionEntries.end() || std::next(it) == mRegionEntries.end()) {
        return nullptr;
    }
    return *std::next(it);
}

bool VellNoteEntryStorage::makeBeatGrid(double bpm, double firstBeatSeconds, Frame totalFrames,
                                        double sampleRate, Error* outError)
{
    constexpr double kMaxBeats = 10'000'000;
    if (!isEmpty()) {
        assignError(outError, detail::makeMusicError("a beat grid needs an empty document"));
        return false;
    }
    if (!(bpm > 0 && bpm <= 1000)) {
        assignError(outError,
                    detail::makeMusicError(format("tempo %g BPM is outside (0, 1000]", bpm)));
        return false;
    }
    if (!(sampleRate > 0 && sampleRate <= 1'000'000)) {
        assignError(outError, detail::makeMusicError(
                                  format("sample rate %g Hz is outside (0, 1000000]", sampleRate)));
        return false;
    }
    if (totalFrames <= 0) {
        assignError(outError, detail::makeMusicError("the audio file is empty"));
        return false;
    }
    const double duration = static_cast<double>(totalFrames) / sampleRate;
    if (!(firstBeatSeconds >= 0 && firstBeatSeconds < duration)) {
        assignError(outError, detail::makeMusicError(
                                  format("first beat %g s is outside the file (0 to %.3f s)",
                                         firstBeatSeconds, duration)));
        return false;
    }
    const double spacing = sampleRate * 60.0 / bpm / 2.0; // frames per beat entry (an eighth)
    const double first = firstBeatSeconds * sampleRate;
    const double count = std::floor((static_cast<double>(totalFrames) - first) / spacing);
    if (count + 1 > kMaxBeats) {
        assignError(outError,
                    detail::makeMusicError(format(
                        "a grid at %g BPM would need more than %.0f beats", bpm, kMaxBeats)));
        return false;
    }

    VellEntryArray<VellBeatEntry> beats;
    beats.reserve(static_cast<std::size_t>(count) + 1);
    for (long long k = 0;; ++k) {
        // From the first beat each time, so rounding never accumulates into drift.
        const Frame location = std::llround(first + static_cast<double>(k) * spacing);
        if (location >= totalFrames) {
            break;
        }
        auto beat = newBeatEntry();
        beat->setLocation(location);
        beat->setDownbeat(k % 8 == 0);
        beats.push_back(std::move(beat));
    }
    auto signature = newTimeSignatureEntry();
    signature->setNumerator(4);
    signature->setDenominator(4);
    auto tempo = newTempoEntry();
    tempo->setLength(totalFrames);
    tempo->setTempo(static_cast<float>(bpm));

    addBeatEntriesFromArray(beats);
    addTimeSignatureEntry(signature);
    addTempoEntry(tempo);
    return true;
}

#define VELL_INSTANTIATE_ENTRY_TEMPLATES(Entry)                                                    \
    template const VellEntryArray<Entry>& VellNoteEntryStorage::entries<Entry>() const;            \
    template std::shared_ptr<Entry> VellNoteEntryStorage::newEntry<Entry>();                       \
    template std::shared_ptr<Entry> VellNoteEntryStorage::copyOfEntry<Entry>(const Entry&) const;  \
    template void VellNoteEntryStorage::addEntries<Entry>(const VellEntryArray<Entry>&);           \
    template void VellNoteEntryStorage::removeEntries<Entry>(const VellEntryArray<Entry>&);        \
    template void VellNoteEntryStorage::replaceEntries<Entry>(const VellEntryArray<Entry>&,        \
                                                              const VellEntryArray<Entry>&);       \
    template VellEntryArray<Entry> VellNoteEntryStorage::entriesInRange<Entry>(VellFrameRange)     \
        const;

VELL_INSTANTIATE_ENTRY_TEMPLATES(VellNoteEntry)
VELL_INSTANTIATE_ENTRY_TEMPLATES(VellBeatEntry)
VELL_INSTANTIATE_ENTRY_TEMPLATES(VellTempoEntry)
VELL_INSTANTIATE_ENTRY_TEMPLATES(VellKeyEntry)
VELL_INSTANTIATE_ENTRY_TEMPLATES(VellTimeSignatureEntry)
VELL_INSTANTIATE_ENTRY_TEMPLATES(VellChordEntry)
VELL_INSTANTIATE_ENTRY_TEMPLATES(VellRegionEntry)
VELL_INSTANTIATE_ENTRY_TEMPLATES(VellMarkerEntry)

#undef VELL_INSTANTIATE_ENTRY_TEMPLATES

} // namespace vell
