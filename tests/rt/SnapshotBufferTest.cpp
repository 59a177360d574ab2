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

TEST(TripleBufferTest, ReadAndWriteAllocateNothing)
{
    TripleBuffer<Snapshot> buffer;
    const auto counts = test::countRealtimeViolations([&] {
        for (std::uint64_t i = 0; i < 10; ++i) {
            buffer.write(Snapshot::of(i));
            EXPECT_EQ(buffer.read().sequence(), i);
        }
    });
    EXPECT_EQ(counts.total(), 0u);
}

TEST(TripleBufferTest, TwoThreadStressNeverTearsAndNeverGoesBack)
{
    TripleBuffer<Snapshot> buffer(Snapshot::of(0));
    std::atomic<bool> done{false};

    std::thread writer([&] {
        for (std::uint64_t i = 1; i <= kWrites; ++i) {
            buffer.write(Snapshot::of(i));
        }
        done = true;
    });

    std::uint64_t torn = 0;
    std::uint64_t backwards = 0;
    std::uint64_t last = 0;
    for (;;) {
        const bool finished = done.load();
        const Snapshot& s = buffer.read();
        torn += s.isWhole() ? 0 : 1;
        backwards += s.sequence() < last ? 1 : 0;
        last = s.sequence();
        if (finished) {
            break;
        }
    }
    writer.join();
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

TEST(DoubleBufferTest, AcquireAndReleaseAllocateAndLockNothing)
{
    DoubleBuffer<Snapshot> buffer(Snapshot::of(3));
    const auto counts = test::countRealtimeViolations([&] {
        for (int i = 0; i < 10; ++i) {
            DoubleBuffer<Snapshot>::ReadScope read(buffer);
            EXPECT_EQ(read->sequence(), 3u);
        }
    });
    EXPECT_EQ(counts.total(), 0u);
}

TEST(DoubleBufferTest, TwoThreadStressNeverTearsWhileRead)
{
    DoubleBuffer<Snapshot> buffer(Snapshot::of(0));
    std::atomic<bool> done{false};
    constexpr std::uint64_t kDoubleWrites = kWrites / 8;

    std::thread writer([&] {
        for (std::uint64_t i = 1; i <= kDoubleWrites; ++i) {
            buffer.write(Snapshot::of(i));
        }
        done = true;
    });

    std::uint64_t torn = 0;
    std::uint64_t backwards = 0;
    std::uint64_t changedWhileHeld = 0;
    std::uint64_t last = 0;
    for (;;) {
        const bool finished = done.load();
        {
            DoubleBuffer<Snapshot>::ReadScope read(buffer);
            const std::uint64_t first = read->sequence();
            torn += read->isWhole() ? 0 : 1;
            backwards += first < last ? 1 : 0;
            last = first;
            // Scan again: the slot must not have moved under the reader.
            changedWhileHeld += (read->isWhole() && read->sequence() == first) ? 0 : 1;
        }
        if (finished) {
            break;
        }
    }
    writer.join();
    EXPECT_EQ(torn, 0u);
    EXPECT_EQ(backwards, 0u);
    EXPECT_EQ(changedWhileHeld, 0u);
    EXPECT_EQ(buffer.acquire().sequence(), kDoubleWrites);
    buffer.release();
}
