// The SPSC ring: order, capacity, partial bulk transfers, no allocation, and a two-thread stress.
#include "rt/SpscRing.h"

#include "RealtimeGuard.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <numeric>
#include <random>
#include <thread>
#include <vector>

using namespace vell;

namespace {

struct Event {
    std::uint64_t sequence;
    std::uint64_t check; // ~sequence: a torn copy shows up as a mismatch
};

} // namespace

TEST(SpscRingTest, KeepsOrderAndRefusesWhenFull)
{
    SpscRing<int> ring(5);
    ASSERT_EQ(ring.capacity(), 8u); // rounded up to a power of two

    for (int i = 0; i < 8; ++i) {
        EXPECT_TRUE(ring.tryPush(i)) << i;
    }
    EXPECT_FALSE(ring.tryPush(99));
    EXPECT_EQ(ring.size(), 8u);

    int value = -1;
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(ring.tryPop(value));
        EXPECT_EQ(value, i);
    }
    // The freed slots are reused across the wrap of the storage.
    for (int i = 8; i < 11; ++i) {
        EXPECT_TRUE(ring.tryPush(i));
    }
    EXPECT_FALSE(ring.tryPush(99));
    for (int i = 3; i < 11; ++i) {
        ASSERT_TRUE(ring.tryPop(value));
        EXPECT_EQ(value, i);
    }
    value = -7;
    EXPECT_FALSE(ring.tryPop(value));
    EXPECT_EQ(value, -7) << "a failed pop leaves its output alone";
    EXPECT_TRUE(ring.empty());
}

TEST(SpscRingTest, BulkTransfersMoveWhatFits)
{
    SpscRing<float> ring(16);
    std::vector<float> in(20);
    std::iota(in.begin(), in.end(), 0.0f);

    EXPECT_EQ(ring.push(std::span<const float>(in).first(10)), 10u);
    EXPECT_EQ(ring.push(std::span<const float>(in).subspan(10)), 6u) << "only 6 slots were left";

    std::array<float, 12> out{};
    EXPECT_EQ(ring.pop(out), 12u);
    for (std::size_t i = 0; i < out.size(); ++i) {
        EXPECT_EQ(out[i], float(i));
    }
    EXPECT_EQ(ring.pop(out), 4u);
    EXPECT_EQ(out[0], 12.0f);
    EXPECT_EQ(out[3], 15.0f);
    EXPECT_EQ(ring.pop(out), 0u);
}

TEST(SpscRingTest, PushAndPopAllocateAndLockNothing)
{
    SpscRing<Event> ring(64);
    const auto counts = test::countRealtimeViolations([&] {
        for (std::uint64_t i = 0; i < 100; ++i) {
            ring.tryPush({i, ~i});
            Event e{};
            ring.tryPop(e);
        }
        std::array<Event, 8> batch{};
        ring.push(batch);
        ring.pop(batch);
    });
    EXPECT_EQ(counts.total(), 0u);
}

TEST(SpscRingTest, TwoThreadStressDeliversEverythingOnceInOrder)
{
    constexpr std::uint64_t kCount = 1u << 18;
    SpscRing<Event> ring(64);

    std::thread producer([&] {
        std::minstd_rand random(1);
        std::array<Event, 17> batch{};
        std::uint64_t next = 0;
        while (next < kCount) {
            const std::size_t want =
                std::min<std::size_t>(1 + random() % batch.size(), std::size_t(kCount - next));
            for (std::size_t i = 0; i < want; ++i) {
                batch[i] = {next + i, ~(next + i)};
            }
            const std::size_t pushed = ring.push(std::span<const Event>(batch).first(want));
            next += pushed;
            if (pushed == 0) {
                std::this_thread::yield();
            }
        }
    });

    std::uint64_t expected = 0;
    std::uint64_t errors = 0;
    std::minstd_rand random(2);
    std::array<Event, 23> out{};
    while (expected < kCount) {
        const std::size_t want = 1 + random() % out.size();
        const std::size_t got = ring.pop(std::span<Event>(out).first(want));
        for (std::size_t i = 0; i < got; ++i) {
            if (out[i].sequence != expected || out[i].check != ~expected) {
                ++errors;
            }
            ++expected;
        }
        if (got == 0) {
            std::this_thread::yield();
        }
    }
    producer.join();
    EXPECT_EQ(errors, 0u);
    EXPECT_TRUE(ring.empty());
}
