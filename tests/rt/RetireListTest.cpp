// The retire list frees replaced objects only once no render cycle can still reach them.
#include "rt/RetireList.h"

#include "RealtimeGuard.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <thread>

using namespace vell;

namespace {

/// Counts live instances; its destructor poisons the payload so a late reader sees it.
struct Tracked {
    static inline std::atomic<int> sLive{0};
    static constexpr std::uint64_t kAlive = 0xA11FE;

    explicit Tracked(std::uint64_t v) : value(v) { ++sLive; }
    ~Tracked()
    {
        magic.store(0);
        --sLive;
    }
    std::uint64_t value;
    std::atomic<std::uint64_t> magic{kAlive};
};

} // namespace

TEST(RetireListTest, KeepsObjectsWhileACycleThatMaySeeThemRuns)
{
    RealtimeEpoch epoch;
    RetireList list(epoch);
    {
        // Retired between cycles: no cycle can reach it, so it goes at once.
        list.retire(std::make_unique<Tracked>(1));
        EXPECT_EQ(Tracked::sLive, 1);
        EXPECT_EQ(list.collect(), 1u);
        EXPECT_EQ(Tracked::sLive, 0);
    }
    {
        epoch.enter(); // a render cycle is running and may hold the object
        list.retire(std::make_unique<Tracked>(2));
        EXPECT_EQ(list.collect(), 0u);
        EXPECT_EQ(Tracked::sLive, 1);
        epoch.exit();
        epoch.enter(); // a later cycle cannot have seen it
        EXPECT_EQ(list.collect(), 1u);
        EXPECT_EQ(Tracked::sLive, 0);
        epoch.exit();
    }
    {
        // Shared ownership: the list's reference is the last one and goes on the main thread.
        auto shared = std::make_shared<Tracked>(3);
        epoch.enter();
        list.retire(shared);
        shared.reset();
        EXPECT_EQ(list.collect(), 0u);
        EXPECT_EQ(Tracked::sLive, 1);
        epoch.exit();
        EXPECT_EQ(list.collect(), 1u);
        EXPECT_EQ(Tracked::sLive, 0);
    }
    EXPECT_EQ(list.pending(), 0u);
}

TEST(RetireListTest, RenderSideAllocatesAndLocksNothing)
{
    RealtimeEpoch epoch;
    RetireList list(epoch);
    RetiringPointer<Tracked> pointer(list, std::make_unique<Tracked>(5));
    std::uint64_t seen = 0;
    const auto counts = test::countRealtimeViolations([&] {
        RealtimeEpoch::Scope cycle(epoch);
        seen = pointer.load()->value;
    });
    EXPECT_EQ(seen, 5u);
    EXPECT_EQ(counts.total(), 0u);
}

TEST(RetireListTest, TwoThreadStressNeverFreesWhatTheRenderThreadHolds)
{
    RealtimeEpoch epoch;
    std::uint64_t deadSeen = 0;
    std::uint64_t backwards = 0;
    {
        RetireList list(epoch);
        RetiringPointer<Tracked> pointer(list, std::make_unique<Tracked>(0));
        std::atomic<bool> stop{false};

        std::thread render([&] {
            std::uint64_t last = 0;
            while (!stop.load()) {
                RealtimeEpoch::Scope cycle(epoch);
                const Tracked* t = pointer.load();
                // Touch it twice with a pause between, the way a render cycle uses its state.
                const std::uint64_t v = t->value;
                for (int spin = 0; spin < 50; ++spin) {
                    deadSeen += t->magic.load() == Tracked::kAlive ? 0 : 1;
                }
                backwards += v < last ? 1 : 0;
                last = v;
            }
        });

        for (std::uint64_t i = 1; i <= 20000; ++i) {
            pointer.replace(std::make_unique<Tracked>(i));
            list.collect();
        }
        stop = true;
        render.join();
        list.collect();
        EXPECT_EQ(list.pending(), 0u) << "with the render thread gone everything can go";
    }
    EXPECT_EQ(deadSeen, 0u);
    EXPECT_EQ(backwards, 0u);
    EXPECT_EQ(Tracked::sLive, 0);
}
