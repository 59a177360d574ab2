// The real-time guard must catch allocations and locks inside a section and only there.
#include "RealtimeGuard.h"

#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <thread>
#include <vector>

using vell::test::countRealtimeViolations;
using vell::test::RealtimeSection;

TEST(RealtimeGuardTest, CountsAllocationsAndFreesInsideASection)
{
    std::vector<int> v;
    const auto counts = countRealtimeViolations([&] {
        v.resize(100);
        v.clear();
        v.shrink_to_fit();
    });
    EXPECT_EQ(counts.allocations, 1u);
    EXPECT_EQ(counts.deallocations, 1u);

    const auto cCounts = countRealtimeViolations([] {
        // volatile keeps the compiler from folding the pair away.
        void* volatile p = std::malloc(16);
        std::free(p);
    });
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    EXPECT_EQ(cCounts.allocations, 1u);
    EXPECT_EQ(cCounts.deallocations, 1u);
#else
    (void)cCounts;
#endif
}

TEST(RealtimeGuardTest, CountsLocksAndIgnoresOtherThreads)
{
    std::mutex mutex;
#if !defined(__SANITIZE_THREAD__)
    const auto locked = countRealtimeViolations([&] { std::lock_guard lock(mutex); });
    EXPECT_EQ(locked.locks, 1u);
#endif

    // Work on a thread without a section is not counted, even while a section is open here.
    const auto counts = countRealtimeViolations([&] {
        int sum = 0;
        for (int i = 0; i < 100; ++i) {
            sum += i;
        }
        EXPECT_EQ(sum, 4950);
    });
    EXPECT_EQ(counts.total(), 0u);

    // A thread without a section of its own is not counted while this thread holds one.
    vell::test::resetRealtimeCounts();
    {
        std::thread other;
        RealtimeSection section;
        const auto atStart = vell::test::realtimeCounts();
        std::mutex otherMutex;
        other = std::thread([&] {
            auto p = std::make_unique<std::vector<int>>(1000);
            std::lock_guard lock(otherMutex);
        });
        const auto afterStart = vell::test::realtimeCounts();
        other.join();
        // Starting the thread allocates its state here; what the thread itself does is not ours.
        EXPECT_GT(afterStart.allocations, atStart.allocations);
        EXPECT_EQ(vell::test::realtimeCounts().allocations, afterStart.allocations);
        EXPECT_EQ(vell::test::realtimeCounts().locks, afterStart.locks);
    }
}
