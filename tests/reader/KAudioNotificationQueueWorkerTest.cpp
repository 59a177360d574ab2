// The notification worker: adding is free of allocation and locks, blocks run on the worker
// thread once each and in order, stop runs what is queued, a full queue drops and counts.
#include "audio/reader/KAudioNotificationQueueWorker.h"

#include "ReaderTestSupport.h"
#include "RealtimeGuard.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

using namespace vell;
using namespace vell::test;

namespace {

struct WorkerDeleter {
    void operator()(KAudioNotificationQueueWorker* w) const
    {
        KAudioNotificationQueueWorkerDestroy(w);
    }
};
struct NotificationDeleter {
    void operator()(KQueueableAudioNotification* n) const { KQueueableAudioNotificationDestroy(n); }
};
using WorkerPtr = std::unique_ptr<KAudioNotificationQueueWorker, WorkerDeleter>;
using NotificationPtr = std::unique_ptr<KQueueableAudioNotification, NotificationDeleter>;

} // namespace

TEST(KAudioNotificationQueueWorkerTest, AddingFromTheRenderThreadAllocatesAndLocksNothing)
{
    WorkerPtr worker(KAudioNotificationQueueWorkerCreate());
    std::atomic<int> runs{0};
    std::atomic<bool> ranOnCaller{false};
    const std::thread::id caller = std::this_thread::get_id();
    // The block owns a string and a vector: building it allocates, here on the main thread.
    NotificationPtr notification(KQueueableAudioNotificationCreate(
        [&, text = std::string(100, 'x'), data = std::vector<int>(50, 1)] {
            ranOnCaller = ranOnCaller || std::this_thread::get_id() == caller;
            runs += int(text.size() == 100 && data.size() == 50);
        }));
    ASSERT_TRUE(KAudioNotificationQueueWorkerStart(worker.get()));
    // Let the worker fall asleep first, so the add has to wake it.
    std::this_thread::yield();

    bool added = false;
    const auto counts = countRealtimeViolations([&] {
        added = KAudioNotificationQueueWorkerAddNotification(worker.get(), notification.get());
    });
    EXPECT_TRUE(added);
    EXPECT_EQ(counts.total(), 0u);
    EXPECT_EQ(counts.allocations, 0u);
    EXPECT_EQ(counts.locks, 0u);

    ASSERT_TRUE(waitFor([&] { return runs.load() == 1; })) << "the block runs later, on the worker";
    EXPECT_FALSE(ranOnCaller.load());
    KAudioNotificationQueueWorkerStop(worker.get());
    EXPECT_EQ(runs.load(), 1) << "exactly once";
}

TEST(KAudioNotificationQueueWorkerTest, RunsInOrderAndStopRunsWhatIsQueued)
{
    WorkerPtr worker(KAudioNotificationQueueWorkerCreate(16));
    std::vector<int> order; // touched by the worker only, read after stop
    std::vector<NotificationPtr> notifications;
    for (int i = 0; i < 10; ++i) {
        notifications.emplace_back(
            KQueueableAudioNotificationCreate([&order, i] { order.push_back(i); }));
    }
    // Added while stopped: kept until the worker starts.
    for (int i = 0; i < 5; ++i) {
        ASSERT_TRUE(worker->addNotification(notifications[std::size_t(i)].get()));
    }
    ASSERT_TRUE(worker->start());
    EXPECT_TRUE(worker->isRunning());
    for (int i = 5; i < 10; ++i) {
        ASSERT_TRUE(worker->addNotification(notifications[std::size_t(i)].get()));
    }
    worker->stop(); // whatever is still queued runs before the thread ends
    EXPECT_FALSE(worker->isRunning());
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9}));

    // Start and stop again with nothing queued: nothing runs twice.
    ASSERT_TRUE(worker->start());
    worker->stop();
    EXPECT_EQ(order.size(), 10u);
}

TEST(KAudioNotificationQueueWorkerTest, FullQueueDropsAndCounts)
{
    WorkerPtr worker(KAudioNotificationQueueWorkerCreate(4));
    std::atomic<int> runs{0};
    NotificationPtr notification(KQueueableAudioNotificationCreate([&] { ++runs; }));
    for (int i = 0; i < 4; ++i) {
        EXPECT_TRUE(KAudioNotificationQueueWorkerAddNotification(worker.get(), notification.get()));
    }
    EXPECT_FALSE(KAudioNotificationQueueWorkerAddNotification(worker.get(), notification.get()));
    EXPECT_FALSE(KAudioNotificationQueueWorkerAddNotification(worker.get(), nullptr));
    EXPECT_FALSE(KAudioNotificationQueueWorkerAddNotification(nullptr, notification.get()));
    EXPECT_EQ(worker->droppedCount(), 2u);
    ASSERT_TRUE(worker->start());
    ASSERT_TRUE(waitFor([&] { return runs.load() == 4; }));
    worker->stop();
    EXPECT_EQ(runs.load(), 4);
}

TEST(KAudioNotificationQueueWorkerTest, TwoThreadStressRunsEveryNotificationOnce)
{
    constexpr int kNotifications = 20000;
    WorkerPtr worker(KAudioNotificationQueueWorkerCreate(8));
    std::atomic<long long> sum{0};
    std::vector<NotificationPtr> notifications;
    for (int i = 0; i < 8; ++i) {
        notifications.emplace_back(KQueueableAudioNotificationCreate([&sum, i] { sum += i + 1; }));
    }
    ASSERT_TRUE(worker->start());
    resetRealtimeCounts();
    long long expected = 0;
    std::uint64_t retries = 0;
    std::thread render([&] {
        RealtimeSection section;
        for (int n = 0; n < kNotifications; ++n) {
            const auto* notification = notifications[std::size_t(n % 8)].get();
            while (!worker->addNotification(notification)) {
                ++retries; // full: a real render thread would drop; the test tries again
                std::this_thread::yield();
            }
            expected += n % 8 + 1;
        }
    });
    render.join();
    EXPECT_EQ(realtimeCounts().total(), 0u) << "adding, full or not, never allocates or locks";
    worker->stop();
    EXPECT_EQ(sum.load(), expected);
    EXPECT_EQ(worker->droppedCount(), retries);
}
