// Triple and double buffers: the reader sees whole, newest snapshots, never a torn one.
#include "rt/DoubleBuffer.h"
#include "rt/TripleBuffer.h"

#include "RealtimeGuard.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <thread>

using namespace vell;

namespace {

/// Every element carries the same sequence number, so a snapshot mixed from two writes shows.
struct Snapshot {
    std::array<std::uint64_t, 32> values{};

    static Snapshot of(std::uint64_t sequence)
    {
        Snapshot s;
        s.values.fill(sequence);
        return s;
    }
    bool isWhole() const
    {
        for (auto v : values) {
            if (v != values[0]) {
                return false;
            }
        }
        return true;
    }
    std::uint64_t sequence() const { return values[0]; }
};

constexpr std::uint64_t kWrites = 1u << 16;

/// Writes snapshots 1...writes on another thread while read() returns what the reader sees
/// until the writer is done; counts torn and backward reads.
template <class Write, class Read>
void stress(std::uint64_t writes, Write write, Read read, std::uint64_t& torn,
            std::uint64_t& backwards)
{
    std::atomic<bool> done{false};
    std::thread writer([&] {
        for (std::uint64_t i = 1; i <= writes; ++i) {
            write(Snapshot::of(i));
        }
        done = true;
    });
    torn = backwards = 0;
    for (std::uint64_t last = 0;;) {
        const bool finished = done.load();
        const Snapshot s = read();
        torn += s.isWhole() ? 0 : 1;
        backwards += s.sequence() < last ? 1 : 0;
        last = s.sequence();
        if (finished) {
            break;
        }
    }
    writer.join();
}

} // namespace

TEST(TripleBufferTest, ReaderSeesInitialThenNewestAndSkipsOlder)
{
    TripleBuffer<int> buffer(7);
    EXPECT_FALSE(buffer.hasNewSnapshot());
    EXPECT_EQ(buffer.read(), 7);

    buffer.write(1);
    buffer.write(2);
    buffer.write(3);
    EXPECT_TRUE(buffer.hasNewSnapshot());
    EXPECT_EQ(buffer.read(), 3) << "the newest snapshot wins";
    EXPECT_FALSE(buffer.hasNewSnapshot());
    EXPECT_EQ(buffer.read(), 3) << "nothing new: the reader keeps what it has";

    buffer.back() = 10;
    buffer.publish();
    EXPECT_EQ(buffer.read(), 10);
    buffer.write(11);
    buffer.write(12);
    EXPECT_EQ(buffer.read(), 12);
}

TEST(TripleBufferTest, TwoThreadStressNeverTearsAndNeverGoesBack)
{
    TripleBuffer<Snapshot> buffer(Snapshot::of(0));
    std::uint64_t torn = 0, backwards = 0;
    stress(
        kWrites, [&](const Snapshot& s) { buffer.write(s); }, [&] { return buffer.read(); }, torn,
        backwards);
    EXPECT_EQ(torn, 0u);
    EXPECT_EQ(backwards, 0u);
    EXPECT_EQ(buffer.read().sequence(), kWrites) << "the last write is always seen";
}

TEST(DoubleBufferTest, ReaderKeepsItsSlotUntilRelease)
{
    DoubleBuffer<int> buffer(5);
    {
        DoubleBuffer<int>::ReadScope read(buffer);
        EXPECT_EQ(*read, 5);
    }
    buffer.write(6);
    const int& held = buffer.acquire();
    EXPECT_EQ(held, 6);
    // A publish while the reader holds the active slot writes the other one.
    buffer.beginWrite() = 7;
    buffer.publish();
    EXPECT_EQ(held, 6) << "the slot being read is never written";
    buffer.release();
    EXPECT_EQ(buffer.acquire(), 7);
    buffer.release();
    // Now the writer may take the old slot again without waiting.
    buffer.write(8);
    EXPECT_EQ(buffer.acquire(), 8);
    buffer.release();
}

TEST(DoubleBufferTest, TwoThreadStressNeverTearsWhileRead)
{
    DoubleBuffer<Snapshot> buffer(Snapshot::of(0));
    std::uint64_t torn = 0, backwards = 0, changedWhileHeld = 0;
    stress(
        kWrites / 8, [&](const Snapshot& s) { buffer.write(s); },
        [&] {
            DoubleBuffer<Snapshot>::ReadScope read(buffer);
            const Snapshot first = *read;
            // Scan again: the slot must not have moved under the reader.
            changedWhileHeld += (read->isWhole() && read->sequence() == first.sequence()) ? 0 : 1;
            return first;
        },
        torn, backwards);
    EXPECT_EQ(torn, 0u);
    EXPECT_EQ(backwards, 0u);
    EXPECT_EQ(changedWhileHeld, 0u);
    EXPECT_EQ(buffer.acquire().sequence(), kWrites / 8);
    buffer.release();
}

TEST(SnapshotBufferTest, ReadingAndWritingAllocateAndLockNothing)
{
    TripleBuffer<Snapshot> triple;
    DoubleBuffer<Snapshot> twin(Snapshot::of(3));
    const auto counts = test::countRealtimeViolations([&] {
        for (std::uint64_t i = 0; i < 10; ++i) {
            triple.write(Snapshot::of(i));
            EXPECT_EQ(triple.read().sequence(), i);
            DoubleBuffer<Snapshot>::ReadScope read(twin);
            EXPECT_EQ(read->sequence(), 3u);
        }
    });
    EXPECT_EQ(counts.total(), 0u);
}
