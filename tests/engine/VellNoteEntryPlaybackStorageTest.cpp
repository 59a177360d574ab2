// Note-entry playback storage: range queries, beat accents, active entries, the render thread's
// real-time contract, and the double buffer's reader/writer race window.
#include "engine/VellNoteEntryPlaybackStorage.h"

#include "RealtimeGuard.h"

#include <VellAudio/VellNoteEntryStorage.h>

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <memory>
#include <thread>
#include <vector>

using namespace vell;

namespace {

constexpr std::uint64_t kCapacity = kVellPlaybackEntryBufferCapacity;

struct NoteRow {
    Frame location;
    Frame length;
    int midiNote = 60;
    std::uint8_t channel = 0;
};

void addNotes(VellNoteEntryStorage& storage, const std::vector<NoteRow>& rows)
{
    VellEntryArray<VellNoteEntry> notes;
    for (const NoteRow& row : rows) {
        auto note = storage.newNoteEntry();
        note->setLocation(row.location);
        note->setLength(row.length);
        note->setPitch(KPitch(row.midiNote));
        note->setChannel(row.channel);
        notes.push_back(note);
    }
    storage.addNoteEntriesFromArray(notes);
}

/// Beats in 6/8 (the metronome plays every entry), a downbeat every perBar entries.
void addBeats(VellNoteEntryStorage& storage, int count, Frame first, Frame spacing, int perBar)
{
    auto signature = storage.newTimeSignatureEntry();
    signature->setNumerator(6);
    signature->setDenominator(8);
    storage.addTimeSignatureEntry(signature);
    VellEntryArray<VellBeatEntry> beats;
    for (int i = 0; i < count; ++i) {
        auto beat = storage.newBeatEntry();
        beat->setLocation(first + spacing * i);
        beat->setDownbeat(i % perBar == 0);
        beats.push_back(beat);
    }
    storage.addBeatEntriesFromArray(beats);
}

using Query = OSStatus (*)(VellNoteEntryPlaybackStorage*, Frame, Frame, std::uint64_t*,
                           VellPlaybackEntry*) noexcept;

std::vector<VellPlaybackEntry> query(Query fn, VellNoteEntryPlaybackStorage* storage, Frame start,
                                     Frame length, std::uint64_t capacity = kCapacity)
{
    std::vector<VellPlaybackEntry> out(kCapacity + 1);
    std::uint64_t count = capacity;
    EXPECT_EQ(fn(storage, start, length, &count, out.data()), noErr);
    EXPECT_LE(count, capacity);
    out.resize(count);
    return out;
}

std::vector<Frame> starts(const std::vector<VellPlaybackEntry>& entries)
{
    std::vector<Frame> result;
    for (const auto& entry : entries) {
        result.push_back(entry.startFrame);
    }
    return result;
}

const Query kNotesStarting = VellNoteEntryPlaybackStorageGetNoteEntriesStartingInRange;
const Query kNotesEnding = VellNoteEntryPlaybackStorageGetNoteEntriesEndingInRange;
const Query kBeatsStarting = VellNoteEntryPlaybackStorageGetBeatEntriesStartingInRange;
const Query kBeatsEnding = VellNoteEntryPlaybackStorageGetBeatEntriesEndingInRange;

} // namespace

TEST(VellNoteEntryPlaybackStorageTest, RangeQueriesIncludeBothEndsAndCopyTheNoteFields)
{
    VellNoteEntryPlaybackStorage playback;
    for (Query fn : {kNotesStarting, kNotesEnding, kBeatsStarting, kBeatsEnding}) {
        EXPECT_TRUE(query(fn, &playback, -1000000, 2000000).empty());
        EXPECT_TRUE(query(fn, nullptr, 0, 1000).empty());
    }

    VellNoteEntryStorage storage;
    // Added out of order: the playback copy is in location order.
    addNotes(storage, {{3000, 1000, 64, 2}, {1000, 500, 60, 1}, {2000, 0, 62, 0}});
    playback.updatePlaybackStorage(&storage);

    const auto all = query(kNotesStarting, &playback, 0, 10000);
    EXPECT_EQ(starts(all), (std::vector<Frame>{1000, 2000, 3000}));
    ASSERT_EQ(all.size(), 3u);
    const auto& first = *storage.noteEntries().front();
    EXPECT_EQ(all[0], (VellPlaybackEntry{1000, 500, first.eventId(), 60, 127, 1}));
    EXPECT_EQ(all[2].group, 2);

    EXPECT_EQ(starts(query(kNotesStarting, &playback, 1000, 1000)),
              (std::vector<Frame>{1000, 2000}));
    EXPECT_EQ(starts(query(kNotesStarting, &playback, 2000, 0)), (std::vector<Frame>{2000}));
    EXPECT_TRUE(query(kNotesStarting, &playback, 1001, 998).empty());
    // Ends: 1500, 2000, 4000.
    EXPECT_EQ(starts(query(kNotesEnding, &playback, 1500, 0)), (std::vector<Frame>{1000}));
    EXPECT_EQ(starts(query(kNotesEnding, &playback, 2000, 2000)), (std::vector<Frame>{2000, 3000}));
    EXPECT_TRUE(query(kNotesEnding, &playback, 1501, 498).empty());

    addBeats(storage, 3, 0, 20000, 6);
    playback.updatePlaybackStorage(&storage);
    EXPECT_EQ(starts(query(kBeatsStarting, &playback, 20000, 20000)),
              (std::vector<Frame>{20000, 40000}));
    EXPECT_EQ(starts(query(kBeatsEnding, &playback, 20000 + kVellBeatEntryPlaybackDuration, 0)),
              (std::vector<Frame>{20000}));

    // A null storage empties both.
    playback.updatePlaybackStorage(nullptr);
    EXPECT_TRUE(query(kNotesStarting, &playback, 0, 100000).empty());
    EXPECT_TRUE(query(kBeatsStarting, &playback, 0, 100000).empty());
}

TEST(VellNoteEntryPlaybackStorageTest, CapacityKeepsTheFirstMatchesInArrayOrder)
{
    VellNoteEntryStorage storage;
    std::vector<NoteRow> notes;
    for (int i = 0; i < 200; ++i) {
        notes.push_back({Frame(199 - i) * 10, 5});
    }
    addNotes(storage, notes);
    VellNoteEntryPlaybackStorage playback;
    playback.updatePlaybackStorage(&storage);

    const auto entries = query(kNotesStarting, &playback, 0, 10000);
    ASSERT_EQ(entries.size(), kCapacity);
    for (std::size_t i = 0; i < entries.size(); ++i) {
        EXPECT_EQ(entries[i].startFrame, Frame(i) * 10);
    }
    EXPECT_EQ(query(kNotesEnding, &playback, 0, 10000, 3).size(), 3u);
    EXPECT_TRUE(query(kNotesStarting, &playback, 0, 10000, 0).empty());
}

TEST(VellNoteEntryPlaybackStorageTest, BeatsTakeTheInstrumentsNotesAndVelocities)
{
    VellNoteEntryStorage storage;
    addBeats(storage, 6, 0, 1000, 3);
    const auto hiHat = VellMetronomeInstrument::instrumentWithIdentifier(5);
    ASSERT_NE(hiHat.velocity(), hiHat.accentedVelocity());
    ASSERT_NE(hiHat.midiNote(), hiHat.accentedMidiNote());

    VellNoteEntryPlaybackStorage playback;
    EXPECT_TRUE(playback.accentsDownbeats());
    playback.setMetronomeInstrument(hiHat);
    playback.updatePlaybackStorage(&storage);
    auto beats = query(kBeatsStarting, &playback, 0, 10000);
    ASSERT_EQ(beats.size(), 6u);
    for (std::size_t i = 0; i < beats.size(); ++i) {
        SCOPED_TRACE(i);
        const bool downbeat = i % 3 == 0;
        EXPECT_EQ(beats[i].midiNote, downbeat ? hiHat.accentedMidiNote() : hiHat.midiNote());
        EXPECT_EQ(beats[i].velocity, downbeat ? hiHat.accentedVelocity() : hiHat.velocity());
        EXPECT_EQ(beats[i].duration, kVellBeatEntryPlaybackDuration);
        EXPECT_EQ(beats[i].group, 0);
        EXPECT_EQ(beats[i].eventId, storage.beatEntries()[i]->eventId());
    }

    // Without accents: the plain note, but the accented velocity, on every beat. Settings take
    // effect at the next update only.
    playback.setAccentsDownbeats(false);
    EXPECT_EQ(query(kBeatsStarting, &playback, 0, 0)[0].midiNote, hiHat.accentedMidiNote());
    playback.updateBeatMarksWithNoteEntryStorage(&storage);
    for (const auto& beat : query(kBeatsStarting, &playback, 0, 10000)) {
        EXPECT_EQ(beat.midiNote, hiHat.midiNote());
        EXPECT_EQ(beat.velocity, hiHat.accentedVelocity());
    }
}

TEST(VellNoteEntryPlaybackStorageTest, ActiveEntriesPairEventsWithInstances)
{
    std::array<VellPlaybackEntry, 3> active{};
    const auto entry = [](std::int64_t id) { return VellPlaybackEntry{9999, 100, id, 60, 127, 4}; };

    EXPECT_EQ(VellNoteEntryPlaybackStorageAddActiveEntryToBuffer(1, active.data(), 0, entry(5)), 0);
    for (std::int64_t id = 1; id <= 3; ++id) {
        EXPECT_EQ(VellNoteEntryPlaybackStorageAddActiveEntryToBuffer(
                      static_cast<std::uint32_t>(100 + id), active.data(), 3, entry(id)),
                  1);
    }
    EXPECT_EQ(active[1], (VellPlaybackEntry{102, 100, 2, 60, 127, 4}));
    EXPECT_EQ(VellNoteEntryPlaybackStorageAddActiveEntryToBuffer(104, active.data(), 3, entry(4)),
              0);

    std::uint32_t instance = 7;
    EXPECT_EQ(VellNoteEntryPlaybackStoragePopInstanceForId(2, &instance, active.data(), 3), 1);
    EXPECT_EQ(instance, 102u);
    instance = 7;
    EXPECT_EQ(VellNoteEntryPlaybackStoragePopInstanceForId(2, &instance, active.data(), 3), 0);
    EXPECT_EQ(instance, 7u);
    EXPECT_EQ(VellNoteEntryPlaybackStoragePopInstanceForId(3, nullptr, active.data(), 2), 0);

    // The freed slot is reused; a full 32-bit instance id comes back whole.
    EXPECT_EQ(
        VellNoteEntryPlaybackStorageAddActiveEntryToBuffer(0xFFFFFFF0u, active.data(), 3, entry(9)),
        1);
    EXPECT_EQ(active[1].eventId, 9);
    EXPECT_EQ(VellNoteEntryPlaybackStoragePopInstanceForId(9, &instance, active.data(), 3), 1);
    EXPECT_EQ(instance, 0xFFFFFFF0u);
}

TEST(VellNoteEntryPlaybackStorageTest, RenderThreadCallsAllocateAndLockNothing)
{
    VellNoteEntryStorage storage;
    std::vector<NoteRow> notes;
    for (int i = 0; i < 10000; ++i) {
        notes.push_back({Frame(i) * 100, 50, 40 + i % 40});
    }
    addNotes(storage, notes);
    addBeats(storage, 10000, 0, 100, 6);
    VellNoteEntryPlaybackStorage playback;
    playback.updatePlaybackStorage(&storage);

    std::array<VellPlaybackEntry, kCapacity> out{};
    std::array<VellPlaybackEntry, kCapacity> active{};
    std::array<std::uint64_t, 4> counts{};
    const auto violations = test::countRealtimeViolations([&] {
        std::size_t index = 0;
        for (Query fn : {kNotesStarting, kNotesEnding, kBeatsStarting, kBeatsEnding}) {
            counts[index] = kCapacity;
            fn(&playback, 500000, 100000, &counts[index++], out.data());
        }
        for (std::uint32_t i = 0; i < kCapacity; ++i) {
            VellNoteEntryPlaybackStorageAddActiveEntryToBuffer(i, active.data(), kCapacity, out[i]);
        }
        std::uint32_t instance = 0;
        VellNoteEntryPlaybackStoragePopInstanceForId(out[5].eventId, &instance, active.data(),
                                                     kCapacity);
    });
    EXPECT_EQ(violations.total(), 0u);
    EXPECT_EQ(counts, (std::array<std::uint64_t, 4>{kCapacity, kCapacity, kCapacity, kCapacity}));
}

namespace {

/// Storages whose every note carries its generation as channel and length, and whose beats
/// carry it in their locations (modulo 1000), so a read mixing generations shows.
std::vector<std::unique_ptr<VellNoteEntryStorage>> generations(int count, int entries)
{
    std::vector<std::unique_ptr<VellNoteEntryStorage>> result;
    for (int g = 0; g < count; ++g) {
        auto storage = std::make_unique<VellNoteEntryStorage>();
        std::vector<NoteRow> notes;
        for (int i = 0; i < entries; ++i) {
            notes.push_back({Frame(i) * 1000 + g, g + 1, 60, static_cast<std::uint8_t>(g)});
        }
        addNotes(*storage, notes);
        addBeats(*storage, entries, g, 1000, 6);
        result.push_back(std::move(storage));
    }
    return result;
}

/// The generation every entry of a read carries, or -1 for a mixed read (-2 when empty).
int generationOf(const std::vector<VellPlaybackEntry>& entries, bool beats)
{
    int generation = -2;
    for (const auto& entry : entries) {
        const int g = beats ? static_cast<int>(entry.startFrame % 1000) : entry.group;
        if (generation == -2) {
            generation = g;
        }
        const bool whole =
            g == generation && (beats || (entry.duration == g + 1 && entry.startFrame % 1000 == g));
        if (!whole) {
            return -1;
        }
    }
    return generation;
}

// Phases of the paused-reader scenario; hooks are plain function pointers, so they talk to the
// test through these.
std::atomic<int> gPhase{0};
std::atomic<int> gReaderHookCalls{0};

void waitForPhase(int phase)
{
    while (gPhase.load() < phase) {
        std::this_thread::yield();
    }
}

struct HookReset {
    ~HookReset()
    {
        VellNoteEntryPlaybackStorageTestHooks::afterChoosingBuffer = nullptr;
        VellNoteEntryPlaybackStorageTestHooks::beforeRefill = nullptr;
    }
};

} // namespace

TEST(VellNoteEntryPlaybackStorageTest, ReaderPausedBeforeFlaggingNeverReadsABufferBeingRefilled)
{
    const HookReset resetHooks;
    const auto storages = generations(3, 20);

    // Two whole updates land in the reader's window: the index returns to where the reader saw
    // it and the buffer it chose now holds the newest generation, which it must read.
    {
        static VellNoteEntryPlaybackStorage* playback;
        static const VellNoteEntryStorage* next[2];
        VellNoteEntryPlaybackStorage instance;
        playback = &instance;
        next[0] = storages[1].get();
        next[1] = storages[2].get();
        instance.updateNoteEntriesWithNoteEntryStorage(storages[0].get());
        gReaderHookCalls = 0;
        VellNoteEntryPlaybackStorageTestHooks::afterChoosingBuffer = []() noexcept {
            if (gReaderHookCalls++ == 0) {
                playback->updateNoteEntriesWithNoteEntryStorage(next[0]);
                playback->updateNoteEntriesWithNoteEntryStorage(next[1]);
            }
        };
        EXPECT_EQ(generationOf(query(kNotesStarting, &instance, 0, 100000), false), 2);
        VellNoteEntryPlaybackStorageTestHooks::afterChoosingBuffer = nullptr;
    }

    // The reader's chosen buffer is being refilled when it resumes: the writer has passed its
    // in-use check for that buffer and waits inside the refill until the reader is done. The
    // reader must notice the flip and read the other buffer (generation 1), never generation 0
    // (an array the writer is about to free).
    VellNoteEntryPlaybackStorage playback;
    playback.updateNoteEntriesWithNoteEntryStorage(storages[0].get());
    gPhase = 0;
    gReaderHookCalls = 0;
    VellNoteEntryPlaybackStorageTestHooks::afterChoosingBuffer = []() noexcept {
        if (gReaderHookCalls++ == 0) {
            gPhase = 1;
            waitForPhase(3);
        }
    };
    std::vector<VellPlaybackEntry> seen;
    std::thread reader([&] {
        seen = query(kNotesStarting, &playback, 0, 100000);
        gPhase = 4;
    });
    waitForPhase(1);
    playback.updateNoteEntriesWithNoteEntryStorage(storages[1].get());
    VellNoteEntryPlaybackStorageTestHooks::beforeRefill = [] {
        gPhase = 3;
        waitForPhase(4);
    };
    playback.updateNoteEntriesWithNoteEntryStorage(storages[2].get());
    reader.join();
    VellNoteEntryPlaybackStorageTestHooks::beforeRefill = nullptr;

    EXPECT_EQ(generationOf(seen, false), 1);
    EXPECT_EQ(seen.size(), 20u);
    EXPECT_EQ(gReaderHookCalls.load(), 2);
    EXPECT_EQ(generationOf(query(kNotesStarting, &playback, 0, 100000), false), 2);
    EXPECT_EQ(playback.contendedReadCount(), 0u);
}

TEST(VellNoteEntryPlaybackStorageTest, ConcurrentRebuildsNeverShowAMixedOrFreedBuffer)
{
    const auto storages = generations(3, 300);
    VellNoteEntryPlaybackStorage playback;
    playback.updatePlaybackStorage(storages[0].get());

    std::atomic<bool> done{false};
    std::thread writer([&] {
        for (int update = 1; update <= 3000; ++update) {
            playback.updatePlaybackStorage(storages[update % 3].get());
        }
        done = true;
    });

    std::array<VellPlaybackEntry, kCapacity> out{};
    int reads = 0, mixed = 0, empty = 0;
    for (bool finished = false; !finished;) {
        finished = done.load();
        int index = 0;
        for (Query fn : {kNotesStarting, kNotesEnding, kBeatsStarting, kBeatsEnding}) {
            std::uint64_t count = kCapacity;
            fn(&playback, 0, 1000000, &count, out.data());
            const std::vector<VellPlaybackEntry> entries(out.begin(), out.begin() + count);
            const int generation = generationOf(entries, index++ >= 2);
            mixed += generation == -1 ? 1 : 0;
            empty += generation == -2 ? 1 : 0;
            ++reads;
        }
    }
    writer.join();

    EXPECT_EQ(mixed, 0);
    // Only a read that gave up returns nothing: every generation holds 300 entries.
    EXPECT_EQ(static_cast<std::uint64_t>(empty), playback.contendedReadCount());
    EXPECT_LT(empty, reads);
}
