// Flat copies of a document's notes and metronome beats that the render thread can scan, plus
// the active-entry helpers that pair sounding notes with their sampler instances.
#pragma once

#include "rt/Realtime.h"

#include <VellAudio/AudioTypes.h>
#include <VellAudio/Types.h>
#include <VellAudio/VellMetronomeInstrument.h>

#include <array>
#include <atomic>
#include <cstdint>

namespace vell {

class VellNoteEntryStorage;

/// One scheduled note or beat. An event id of 0 marks a free slot of an active-entry buffer.
struct VellPlaybackEntry {
    Frame startFrame = 0;
    /// The event ends at startFrame + duration.
    Frame duration = 0;
    std::int64_t eventId = 0;
    std::uint8_t midiNote = 0;
    std::uint8_t velocity = 0;
    /// The sampler's group, used as the MIDI channel.
    std::uint8_t group = 0;

    friend bool operator==(const VellPlaybackEntry&, const VellPlaybackEntry&) = default;
};

/// How many records the render callback exchanges with the storage per call.
inline constexpr std::uint64_t kVellPlaybackEntryBufferCapacity = 128;
/// Every metronome beat sounds this long (a quarter second at 44.1 kHz).
inline constexpr Frame kVellBeatEntryPlaybackDuration = 11025;
/// Every note sounds at this velocity.
inline constexpr std::uint8_t kVellNoteEntryPlaybackVelocity = 127;

/// One half of a double buffer of playback entries. See VellNoteEntryPlaybackStorage for who
/// writes which field when.
struct VellPlaybackEntryBuffer {
    /// Set by the reader while it scans this buffer.
    std::atomic<std::uint8_t> inUse{0};
    /// Owned, zero-initialised array of at least `count` records (null until the first fill).
    std::atomic<VellPlaybackEntry*> entries{nullptr};
    std::atomic<std::uint64_t> count{0};
};
using NoteEntryBuffer = VellPlaybackEntryBuffer;
using BeatEntryBuffer = VellPlaybackEntryBuffer;

/// Pause points for tests that drive the reader and the writer into their race windows. Both
/// are null in production; the reader pays one predictable branch for its hook.
struct VellNoteEntryPlaybackStorageTestHooks {
    /// Called by the reader after it chose the active buffer and before it flags it in use.
    static inline void (*afterChoosingBuffer)() noexcept = nullptr;
    /// Called by the writer once the buffer it refills is no longer flagged, before it is touched.
    static inline void (*beforeRefill)() = nullptr;
};

/// The notes and the metronome beats of a note-entry storage as flat arrays of playback
/// entries, each kept in a double buffer that one controlling thread refills and one render
/// thread scans without locks.
///
/// Who writes what:
/// - The writer (controlling thread) alone writes the `entries` and `count` of the inactive
///   buffer (index `_inactive...Buffer`), and alone flips that index after a refill.
/// - The reader (render thread) alone sets and clears the `inUse` flags, and only reads
///   `entries` and `count` of a buffer it has flagged and confirmed (below).
/// What each side may assume:
/// - Reader: it loads the inactive index, flags the other buffer, then loads the index again.
///   If the index is unchanged, the flagged buffer was the active one at a moment after the flag
///   was set, so the writer either finished its last refill of it before that moment or will
///   see the flag before its next refill (the flag store and the second load are ordered before
///   the writer's later flip and its later check of the flag). If the index changed, a flip
///   landed inside the few instructions between the loads: the reader drops the flag and tries
///   again, at most kMaxBufferChoiceAttempts times. Each retry needs the writer to finish a
///   whole refill (an allocation and a copy) inside that window, so the bound is not reached in
///   practice; when it is, the call returns no entries without touching either array (the
///   events of one cycle are missed) and counts the miss in `contendedReadCount`.
/// - Writer: it refills only the inactive buffer and first spins (yielding) while that buffer is
///   flagged, which happens when a read began just before the previous flip. The arrays it
///   replaces are freed then: the reader can no longer reach them. So the writer must never be
///   the render thread, and there must be one writer and one reader at a time.
/// Memory order: sequentially consistent throughout; the flag-then-reload on the reader's side
/// against the flip-then-check on the writer's side is a store/load pattern that weaker orders
/// would break.
class VellNoteEntryPlaybackStorage {
public:
    /// Attempts of a read to flag the active buffer before it gives up (see above).
    static constexpr int kMaxBufferChoiceAttempts = 4;

    VellNoteEntryPlaybackStorage();
    ~VellNoteEntryPlaybackStorage();
    VellNoteEntryPlaybackStorage(const VellNoteEntryPlaybackStorage&) = delete;
    VellNoteEntryPlaybackStorage& operator=(const VellNoteEntryPlaybackStorage&) = delete;

    /// Rebuilds the notes, then the beats, from storage (null: no notes and no beats).
    /// Thread: controlling (the one writer); may wait briefly for a read in progress.
    void updatePlaybackStorage(const VellNoteEntryStorage* storage);
    /// Rebuilds the notes: the storage's note entries by location, each at velocity 127.
    /// Thread: controlling.
    void updateNoteEntriesWithNoteEntryStorage(const VellNoteEntryStorage* storage);
    /// Rebuilds the beats: the storage's metronome beats in their order, each 11025 frames
    /// long, with notes and velocities from the metronome instrument. Thread: controlling.
    void updateBeatMarksWithNoteEntryStorage(const VellNoteEntryStorage* storage);

    /// Read by the next update of the beats. Thread: controlling.
    const VellMetronomeInstrument& metronomeInstrument() const noexcept
    {
        return _metronomeInstrument;
    }
    void setMetronomeInstrument(const VellMetronomeInstrument& instrument)
    {
        _metronomeInstrument = instrument;
    }
    /// Whether downbeats get the accented note. Default true. Thread: controlling.
    bool accentsDownbeats() const noexcept { return _accentsDownbeats; }
    void setAccentsDownbeats(bool accents) noexcept { _accentsDownbeats = accents; }

    /// Reads that gave up because the writer kept flipping. Thread: any.
    std::uint64_t contendedReadCount() const noexcept { return mContendedReads.load(); }

private:
    friend OSStatus VellNoteEntryPlaybackStorageGetNoteEntriesStartingInRange(
        VellNoteEntryPlaybackStorage*, Frame, Frame, std::uint64_t*, VellPlaybackEntry*) noexcept;
    friend OSStatus VellNoteEntryPlaybackStorageGetNoteEntriesEndingInRange(
        VellNoteEntryPlaybackStorage*, Frame, Frame, std::uint64_t*, VellPlaybackEntry*) noexcept;
    friend OSStatus VellNoteEntryPlaybackStorageGetBeatEntriesStartingInRange(
        VellNoteEntryPlaybackStorage*, Frame, Frame, std::uint64_t*, VellPlaybackEntry*) noexcept;
    friend OSStatus VellNoteEntryPlaybackStorageGetBeatEntriesEndingInRange(
        VellNoteEntryPlaybackStorage*, Frame, Frame, std::uint64_t*, VellPlaybackEntry*) noexcept;

    std::array<NoteEntryBuffer, 2> _noteEntryBuffers;
    std::atomic<std::int32_t> _inactiveNoteEntryBuffer{0};
    std::array<BeatEntryBuffer, 2> _beatEntryBuffers;
    std::atomic<std::int32_t> _inactiveBeatEntryBuffer{0};
    bool _accentsDownbeats = true;
    VellMetronomeInstrument _metronomeInstrument;
    std::atomic<std::uint64_t> mContendedReads{0};
};

// Render-thread interface. Each query takes a range start and length in file frames, a count
// (capacity on entry, number written on return) and a destination array, copies the matching
// entries in array order up to the capacity (extra matches are dropped) and returns noErr.
// A null storage gives no entries.

/// Notes whose start lies in [rangeStart, rangeStart + rangeLength], both ends included.
/// Thread: render (the one reader). Wait-free, no allocation.
VELL_RT OSStatus VellNoteEntryPlaybackStorageGetNoteEntriesStartingInRange(
    VellNoteEntryPlaybackStorage* storage, Frame rangeStart, Frame rangeLength,
    std::uint64_t* ioCount, VellPlaybackEntry* outEntries) noexcept;
/// Notes whose end (start + duration) lies in the same closed interval. Thread: render.
VELL_RT OSStatus VellNoteEntryPlaybackStorageGetNoteEntriesEndingInRange(
    VellNoteEntryPlaybackStorage* storage, Frame rangeStart, Frame rangeLength,
    std::uint64_t* ioCount, VellPlaybackEntry* outEntries) noexcept;
/// Beats whose start lies in the closed interval. Thread: render.
VELL_RT OSStatus VellNoteEntryPlaybackStorageGetBeatEntriesStartingInRange(
    VellNoteEntryPlaybackStorage* storage, Frame rangeStart, Frame rangeLength,
    std::uint64_t* ioCount, VellPlaybackEntry* outEntries) noexcept;
/// Beats whose end lies in the closed interval. Thread: render.
VELL_RT OSStatus VellNoteEntryPlaybackStorageGetBeatEntriesEndingInRange(
    VellNoteEntryPlaybackStorage* storage, Frame rangeStart, Frame rangeLength,
    std::uint64_t* ioCount, VellPlaybackEntry* outEntries) noexcept;

/// The scans behind the four queries, over a double buffer (bufferCount 2) whose inactive index
/// is *inactiveBuffer. Return false, with *ioCount set to 0, when the read gave up (see
/// VellNoteEntryPlaybackStorage). Thread: render (the one reader of that double buffer).
VELL_RT bool VellNoteEntryPlaybackStorageGetEntriesStartingInRangeFromBuffer(
    VellPlaybackEntryBuffer* buffers, const std::atomic<std::int32_t>* inactiveBuffer,
    std::int32_t bufferCount, Frame rangeStart, Frame rangeLength, std::uint64_t* ioCount,
    VellPlaybackEntry* outEntries) noexcept;
VELL_RT bool VellNoteEntryPlaybackStorageGetEntriesEndingInRangeFromBuffer(
    VellPlaybackEntryBuffer* buffers, const std::atomic<std::int32_t>* inactiveBuffer,
    std::int32_t bufferCount, Frame rangeStart, Frame rangeLength, std::uint64_t* ioCount,
    VellPlaybackEntry* outEntries) noexcept;

/// Stores entry in the first slot of buffer[0 .. capacity) whose event id is 0, with its start
/// frame replaced by the sampler's note instance id. Returns 1, or 0 when no slot is free or
/// capacity < 1. Thread: render (the buffer's owner). Wait-free.
VELL_RT int
VellNoteEntryPlaybackStorageAddActiveEntryToBuffer(std::uint32_t instanceId,
                                                   VellPlaybackEntry* buffer, std::int32_t capacity,
                                                   const VellPlaybackEntry& entry) noexcept;
/// Frees the first slot whose event id is eventId and writes the note instance id it held (the
/// low 32 bits of its start frame) to *outInstanceId when that is given. Returns 1, or 0 with
/// *outInstanceId untouched when no slot holds eventId. Thread: render. Wait-free.
VELL_RT int VellNoteEntryPlaybackStoragePopInstanceForId(std::int64_t eventId,
                                                         std::uint32_t* outInstanceId,
                                                         VellPlaybackEntry* buffer,
                                                         std::int32_t capacity) noexcept;

} // namespace vell
