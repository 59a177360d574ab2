// Note-entry playback storage: the writer's rebuilds and the render thread's scans.
#include "engine/VellNoteEntryPlaybackStorage.h"

#include <VellAudio/VellNoteEntryStorage.h>

#include <algorithm>
#include <limits>
#include <memory>
#include <thread>
#include <vector>

namespace vell {

VELL_STATIC_ASSERT_LOCK_FREE(std::uint8_t);
VELL_STATIC_ASSERT_LOCK_FREE(std::int32_t);
VELL_STATIC_ASSERT_LOCK_FREE(std::uint64_t);
VELL_STATIC_ASSERT_LOCK_FREE(VellPlaybackEntry*);

namespace {

using BufferPair = std::array<VellPlaybackEntryBuffer, 2>;

/// Makes `entries` (count records) the contents of the inactive buffer and makes that buffer
/// the active one. Thread: the writer.
void publish(BufferPair& buffers, std::atomic<std::int32_t>& inactive,
             std::unique_ptr<VellPlaybackEntry[]> entries, std::uint64_t count)
{
    const std::int32_t index = inactive.load();
    VellPlaybackEntryBuffer& buffer = buffers[static_cast<std::size_t>(index)];
    // A read that chose this buffer just before the previous flip may still be scanning it.
    while (buffer.inUse.load() != 0) {
        std::this_thread::yield();
    }
    if (auto hook = VellNoteEntryPlaybackStorageTestHooks::beforeRefill) {
        hook();
    }
    if (count > 0) {
        delete[] buffer.entries.exchange(entries.release());
    }
    // Deliberate: with nothing to publish the old array stays until the next refill.
    buffer.count.store(count);
    inactive.store((index + 1) % 2);
}

VELL_RT Frame saturatingAdd(Frame a, Frame b) noexcept
{
    Frame sum = 0;
    if (__builtin_add_overflow(a, b, &sum)) {
        return b < 0 ? std::numeric_limits<Frame>::min() : std::numeric_limits<Frame>::max();
    }
    return sum;
}

/// Flags the active buffer of the pair and returns it, or null when the writer kept flipping.
VELL_RT VellPlaybackEntryBuffer* acquireActiveBuffer(VellPlaybackEntryBuffer* buffers,
                                                     const std::atomic<std::int32_t>* inactive,
                                                     std::int32_t bufferCount) noexcept
{
    for (int attempt = 0; attempt < VellNoteEntryPlaybackStorage::kMaxBufferChoiceAttempts;
         ++attempt) {
        const std::int32_t chosenInactive = inactive->load();
        VellPlaybackEntryBuffer& buffer = buffers[(chosenInactive + 1) % bufferCount];
        if (auto hook = VellNoteEntryPlaybackStorageTestHooks::afterChoosingBuffer) {
            hook();
        }
        buffer.inUse.store(1);
        if (inactive->load() == chosenInactive) {
            return &buffer;
        }
        buffer.inUse.store(0);
    }
    return nullptr;
}

/// Copies the entries whose frame (frameOf) lies in [rangeStart, rangeStart + rangeLength].
template <class FrameOf>
VELL_RT bool scanActiveBuffer(VellPlaybackEntryBuffer* buffers,
                              const std::atomic<std::int32_t>* inactive, std::int32_t bufferCount,
                              Frame rangeStart, Frame rangeLength, std::uint64_t* ioCount,
                              VellPlaybackEntry* outEntries, FrameOf frameOf) noexcept
{
    if (ioCount == nullptr) {
        return true;
    }
    const std::uint64_t capacity = outEntries != nullptr ? *ioCount : 0;
    *ioCount = 0;
    if (buffers == nullptr || inactive == nullptr || bufferCount < 1) {
        return true;
    }
    VellPlaybackEntryBuffer* buffer = acquireActiveBuffer(buffers, inactive, bufferCount);
    if (buffer == nullptr) {
        return false;
    }
    const VellPlaybackEntry* entries = buffer->entries.load();
    const std::uint64_t count = entries != nullptr ? buffer->count.load() : 0;
    const Frame rangeEnd = saturatingAdd(rangeStart, rangeLength);
    std::uint64_t copied = 0;
    for (std::uint64_t i = 0; i < count && copied < capacity; ++i) {
        const Frame frame = frameOf(entries[i]);
        if (frame >= rangeStart && frame <= rangeEnd) {
            outEntries[copied++] = entries[i];
        }
    }
    buffer->inUse.store(0);
    *ioCount = copied;
    return true;
}

VELL_RT Frame startOf(const VellPlaybackEntry& entry) noexcept
{
    return entry.startFrame;
}

VELL_RT Frame endOf(const VellPlaybackEntry& entry) noexcept
{
    return saturatingAdd(entry.startFrame, entry.duration);
}

/// The status of a query: always success; a read that gave up is counted.
VELL_RT OSStatus queryStatus(bool read, std::atomic<std::uint64_t>& contended) noexcept
{
    if (!read) {
        contended.fetch_add(1);
    }
    return noErr;
}

/// A query on a null storage: no entries.
VELL_RT OSStatus emptyQuery(std::uint64_t* ioCount) noexcept
{
    if (ioCount != nullptr) {
        *ioCount = 0;
    }
    return noErr;
}

} // namespace

VellNoteEntryPlaybackStorage::VellNoteEntryPlaybackStorage() = default;

VellNoteEntryPlaybackStorage::~VellNoteEntryPlaybackStorage()
{
    for (BufferPair* pair : {&_noteEntryBuffers, &_beatEntryBuffers}) {
        for (VellPlaybackEntryBuffer& buffer : *pair) {
            delete[] buffer.entries.exchange(nullptr);
        }
    }
}

void VellNoteEntryPlaybackStorage::updatePlaybackStorage(const VellNoteEntryStorage* storage)
{
    updateNoteEntriesWithNoteEntryStorage(storage);
    updateBeatMarksWithNoteEntryStorage(storage);
}

void VellNoteEntryPlaybackStorage::updateNoteEntriesWithNoteEntryStorage(
    const VellNoteEntryStorage* storage)
{
    VellEntryArray<VellNoteEntry> notes;
    if (storage != nullptr) {
        notes = storage->noteEntries();
    }
    std::stable_sort(notes.begin(), notes.end(),
                     [](const auto& a, const auto& b) { return a->location() < b->location(); });
    std::unique_ptr<VellPlaybackEntry[]> entries;
    if (!notes.empty()) {
        entries = std::make_unique<VellPlaybackEntry[]>(notes.size());
        for (std::size_t i = 0; i < notes.size(); ++i) {
            const VellNoteEntry& note = *notes[i];
            entries[i] = {note.location(),
                          note.length(),
                          note.eventId(),
                          note.pitch().midiNote(),
                          kVellNoteEntryPlaybackVelocity,
                          note.channel()};
        }
    }
    publish(_noteEntryBuffers, _inactiveNoteEntryBuffer, std::move(entries), notes.size());
}

void VellNoteEntryPlaybackStorage::updateBeatMarksWithNoteEntryStorage(
    const VellNoteEntryStorage* storage)
{
    VellEntryArray<VellBeatEntry> beats;
    if (storage != nullptr) {
        beats = storage->beatEntriesFilteredByTimeSignature();
    }
    std::unique_ptr<VellPlaybackEntry[]> entries;
    if (!beats.empty()) {
        entries = std::make_unique<VellPlaybackEntry[]>(beats.size());
        const VellMetronomeInstrument& instrument = _metronomeInstrument;
        for (std::size_t i = 0; i < beats.size(); ++i) {
            const VellBeatEntry& beat = *beats[i];
            const bool accented = _accentsDownbeats && beat.isDownbeat();
            // Deliberate: without accents every beat takes the accented velocity (but the plain
            // note).
            const std::uint8_t velocity = !_accentsDownbeats || beat.isDownbeat()
                                              ? instrument.accentedVelocity()
                                              : instrument.velocity();
            entries[i] = {
                beat.location(), kVellBeatEntryPlaybackDuration,
                beat.eventId(),  accented ? instrument.accentedMidiNote() : instrument.midiNote(),
                velocity,        0};
        }
    }
    publish(_beatEntryBuffers, _inactiveBeatEntryBuffer, std::move(entries), beats.size());
}

VELL_RT bool VellNoteEntryPlaybackStorageGetEntriesStartingInRangeFromBuffer(
    VellPlaybackEntryBuffer* buffers, const std::atomic<std::int32_t>* inactiveBuffer,
    std::int32_t bufferCount, Frame rangeStart, Frame rangeLength, std::uint64_t* ioCount,
    VellPlaybackEntry* outEntries) noexcept
{
    return scanActiveBuffer(buffers, inactiveBuffer, bufferCount, rangeStart, rangeLength, ioCount,
                            outEntries, startOf);
}

VELL_RT bool VellNoteEntryPlaybackStorageGetEntriesEndingInRangeFromBuffer(
    VellPlaybackEntryBuffer* buffers, const std::atomic<std::int32_t>* inactiveBuffer,
    std::int32_t bufferCount, Frame rangeStart, Frame rangeLength, std::uint64_t* ioCount,
    VellPlaybackEntry* outEntries) noexcept
{
    return scanActiveBuffer(buffers, inactiveBuffer, bufferCount, rangeStart, rangeLength, ioCount,
                            outEntries, endOf);
}

VELL_RT OSStatus VellNoteEntryPlaybackStorageGetNoteEntriesStartingInRange(
    VellNoteEntryPlaybackStorage* storage, Frame rangeStart, Frame rangeLength,
    std::uint64_t* ioCount, VellPlaybackEntry* outEntries) noexcept
{
    if (storage == nullptr) {
        return emptyQuery(ioCount);
    }
    return queryStatus(VellNoteEntryPlaybackStorageGetEntriesStartingInRangeFromBuffer(
                           storage->_noteEntryBuffers.data(), &storage->_inactiveNoteEntryBuffer, 2,
                           rangeStart, rangeLength, ioCount, outEntries),
                       storage->mContendedReads);
}

VELL_RT OSStatus VellNoteEntryPlaybackStorageGetNoteEntriesEndingInRange(
    VellNoteEntryPlaybackStorage* storage, Frame rangeStart, Frame rangeLength,
    std::uint64_t* ioCount, VellPlaybackEntry* outEntries) noexcept
{
    if (storage == nullptr) {
        return emptyQuery(ioCount);
    }
    return queryStatus(VellNoteEntryPlaybackStorageGetEntriesEndingInRangeFromBuffer(
                           storage->_noteEntryBuffers.data(), &storage->_inactiveNoteEntryBuffer, 2,
                           rangeStart, rangeLength, ioCount, outEntries),
                       storage->mContendedReads);
}

VELL_RT OSStatus VellNoteEntryPlaybackStorageGetBeatEntriesStartingInRange(
    VellNoteEntryPlaybackStorage* storage, Frame rangeStart, Frame rangeLength,
    std::uint64_t* ioCount, VellPlaybackEntry* outEntries) noexcept
{
    if (storage == nullptr) {
        return emptyQuery(ioCount);
    }
    return queryStatus(VellNoteEntryPlaybackStorageGetEntriesStartingInRangeFromBuffer(
                           storage->_beatEntryBuffers.data(), &storage->_inactiveBeatEntryBuffer, 2,
                           rangeStart, rangeLength, ioCount, outEntries),
                       storage->mContendedReads);
}

VELL_RT OSStatus VellNoteEntryPlaybackStorageGetBeatEntriesEndingInRange(
    VellNoteEntryPlaybackStorage* storage, Frame rangeStart, Frame rangeLength,
    std::uint64_t* ioCount, VellPlaybackEntry* outEntries) noexcept
{
    if (storage == nullptr) {
        return emptyQuery(ioCount);
    }
    return queryStatus(VellNoteEntryPlaybackStorageGetEntriesEndingInRangeFromBuffer(
                           storage->_beatEntryBuffers.data(), &storage->_inactiveBeatEntryBuffer, 2,
                           rangeStart, rangeLength, ioCount, outEntries),
                       storage->mContendedReads);
}

VELL_RT int
VellNoteEntryPlaybackStorageAddActiveEntryToBuffer(std::uint32_t instanceId,
                                                   VellPlaybackEntry* buffer, std::int32_t capacity,
                                                   const VellPlaybackEntry& entry) noexcept
{
    if (buffer == nullptr) {
        return 0;
    }
    for (std::int32_t i = 0; i < capacity; ++i) {
        if (buffer[i].eventId == 0) {
            buffer[i] = entry;
            buffer[i].startFrame = instanceId;
            return 1;
        }
    }
    return 0;
}

VELL_RT int VellNoteEntryPlaybackStoragePopInstanceForId(std::int64_t eventId,
                                                         std::uint32_t* outInstanceId,
                                                         VellPlaybackEntry* buffer,
                                                         std::int32_t capacity) noexcept
{
    if (buffer == nullptr) {
        return 0;
    }
    for (std::int32_t i = 0; i < capacity; ++i) {
        if (buffer[i].eventId == eventId) {
            if (outInstanceId != nullptr) {
                *outInstanceId = static_cast<std::uint32_t>(buffer[i].startFrame);
            }
            buffer[i].eventId = 0;
            return 1;
        }
    }
    return 0;
}

} // namespace vell
