// The notification worker: adding is free of allocation and locks, blocks run on the worker
// thread once each and in order, stop runs what is queued, a full queue drops and counts.
#include "audio/reader/KAudioNotificationQueueWorker.h"

#include "ReaderTestSupport.h"
#include "RealtimeGuard.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

using namespace vell;
using namespace vell::test;

namespace {

using WorkerPtr =
    std::unique_ptr<KAudioNotificationQueueWorker, decltype(&KAudioNotificationQueueWorkerDestroy)>;
using NotificationPtr =
    std::unique_ptr<KQueueableAudioNotification, decltype(&KQueueableAudioNotificationDestroy)>;

WorkerPtr makeWorker(std::size_t capacity)
{
    return {KAudioNotificationQueueWorkerCreate(capacity), &KAudioNotificationQueueWorkerDestroy};
}

NotificationPtr makeNotification(std::function<void()> block)
{
    return {KQueueableAudioNotificationCreate(std::move(block)),
            &KQueueableAudioNotificationDestroy};
}

} // namespace

TEST(KAudioNotificationQueueWorkerTest, RunsInOrderAndStopRunsWhatIsQueued)
{
    WorkerPtr worker = makeWorker(16);
    std::vector<int> order; // touched by the worker only, read after stop
    std::vector<NotificationPtr> notifications;
    for (int i = 0; i < 10; ++i) {
        notifications.push_back(makeNotification([&order, i] { order.push_back(i); }));
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
    WorkerPtr worker = makeWorker(4);
    std::atomic<int> runs{0};
    NotificationPtr notification = makeNotification([&] { ++runs; });
    for (int i = 0; i < 4; ++i) {
        EXPECT_TRUE(KAudioNotificationQueueWorkerAddNotification(worker.get(), notification.get()));
    }
    EXPECT_FALSE(KAudioNotificationQueueWorkerAddNotification(worker.get(), notification.get()));
    EXPECT_FALSE(KAudioNotificationQueueWorkerAddNotification(worker.get(), nullptr));
    EXPECT_FALSE(KAudioNotificationQueueWorkerAddNotification(nullptr, notification.get()));
    EXPECT_EQ(worker->droppedCount(), 2u);
    ASSERT_TRUE(KAudioNotificationQueueWorkerStart(worker.get()));
    ASSERT_TRUE(waitFor([&] { return runs.load() == 4; }));
    KAudioNotificationQueueWorkerStop(worker.get());
    EXPECT_EQ(runs.load(), 4);
}

TEST(KAudioNotificationQueueWorkerTest, TwoThreadStressRunsEveryNotificationOnceOnTheWorker)
{
    constexpr int kNotifications = 20000;
    WorkerPtr worker = makeWorker(8);
    std::atomic<long long> sum{0};
    std::atomic<int> runs{0};
    std::atomic<std::thread::id> renderThread;
    std::atomic<bool> ranOnRenderThread{false};
    std::vector<NotificationPtr> notifications;
    for (int i = 0; i < 8; ++i) {
        // Each block owns heap data: building it allocates, here on the main thread.
        notifications.push_back(makeNotification([&, i, data = std::vector<int>(50, i + 1)] {
            sum += data[0];
            ++runs;
            ranOnRenderThread = ranOnRenderThread || std::this_thread::get_id() == renderThread;
        }));
    }
    ASSERT_TRUE(worker->start());
    resetRealtimeCounts();
    long long expected = 0;
    std::uint64_t retries = 0;
    std::thread render([&] {
        renderThread = std::this_thread::get_id();
        RealtimeSection section;
        for (int n = 0; n < kNotifications; ++n) {
            while (!KAudioNotificationQueueWorkerAddNotification(
                worker.get(), notifications[std::size_t(n % 8)].get())) {
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
    EXPECT_EQ(runs.load(), kNotifications);
    EXPECT_FALSE(ranOnRenderThread.load());
    EXPECT_EQ(worker->droppedCount(), retries);
}
