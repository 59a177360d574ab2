// Main queue: order, delayed and cancelled tasks, its own thread, draining on a manual clock.
#include "platform/MainQueue.h"
#include "platform/Clock.h"
#include "platform/ManualTime.h"

#include "TestSupport.h"

#include <gtest/gtest.h>

#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace vell {
namespace {

using namespace std::chrono_literals;

class MainQueueTest : public ::testing::Test {
protected:
    std::shared_ptr<ManualClock> mClock = std::make_shared<ManualClock>();
    MainQueue mQueue{mClock};
    std::vector<std::string> mLog;

    MainQueue::Task record(std::string what)
    {
        return [this, what] { mLog.push_back(what); };
    }
};

TEST_F(MainQueueTest, DrainRunsTasksInOrderIncludingTasksTheyQueueAndPastOneThatThrows)
{
    test::LogCapture capture;
    mQueue.async(record("a"));
    mQueue.async([] { throw std::runtime_error("boom"); });
    mQueue.async([this] {
        mLog.push_back("b");
        mQueue.async(record("d"));
    });
    mQueue.async(record("c"));

    EXPECT_EQ(mQueue.drain(), 5u);
    EXPECT_EQ(mLog, (std::vector<std::string>{"a", "b", "c", "d"}));
    EXPECT_EQ(mQueue.drain(), 0u);
    EXPECT_FALSE(mQueue.nextDueTime().has_value());
    const auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("Caught exception: boom"), std::string::npos) << lines[0];
}

TEST_F(MainQueueTest, DelayedTasksRunWhenDueInDueOrderUnlessCancelled)
{
    mQueue.asyncAfter(30ms, record("30"));
    mQueue.asyncAfter(10ms, record("10a")); // dropping the handle does not cancel
    mQueue.asyncAfter(10ms, record("10b"));
    mQueue.asyncAfter(-5ms, record("negative")); // treated as due now
    auto cancelled = mQueue.asyncAfter(5ms, record("cancelled"));
    EXPECT_FALSE(cancelled->isCancelled());
    cancelled->cancel();
    EXPECT_TRUE(cancelled->isCancelled());

    EXPECT_EQ(mQueue.drain(), 1u);
    EXPECT_EQ(mLog, std::vector<std::string>{"negative"});
    ASSERT_TRUE(mQueue.nextDueTime().has_value());
    EXPECT_EQ(*mQueue.nextDueTime(), mClock->now() + 10ms); // the cancelled task is not due

    mClock->advance(9ms);
    EXPECT_EQ(mQueue.drain(), 0u);
    mClock->advance(1ms);
    EXPECT_EQ(mQueue.drain(), 2u);
    mClock->advance(100ms);
    EXPECT_EQ(mQueue.drain(), 1u);
    EXPECT_EQ(mLog, (std::vector<std::string>{"negative", "10a", "10b", "30"}));
}

TEST_F(MainQueueTest, CurrentThreadIsTheLastDrainer)
{
    EXPECT_FALSE(mQueue.isCurrent());
    mQueue.drain();
    EXPECT_TRUE(mQueue.isCurrent());

    bool currentElsewhere = true;
    std::thread([&] { currentElsewhere = mQueue.isCurrent(); }).join();
    EXPECT_FALSE(currentElsewhere);

    std::thread([&] { mQueue.adoptCurrentThread(); }).join();
    EXPECT_FALSE(mQueue.isCurrent());
}

TEST_F(MainQueueTest, AdvanceAndDrainStopsAtEveryDueTime)
{
    // A task that re-arms itself every 10 ms must run once per step, not once for the jump.
    int runs = 0;
    std::function<void()> rearm = [&] {
        ++runs;
        mQueue.asyncAfter(10ms, rearm);
    };
    mQueue.asyncAfter(10ms, rearm);
    const auto start = mClock->now();

    EXPECT_EQ(advanceAndDrain(*mClock, {&mQueue}, 55ms), 5u);
    EXPECT_EQ(runs, 5);
    EXPECT_EQ(mClock->now() - start, 55ms);
    EXPECT_EQ(advanceAndDrain(*mClock, {&mQueue}, 5ms), 1u);
    EXPECT_EQ(runs, 6);
}

TEST_F(MainQueueTest, RunUntilRunsDueWorkAndWakesForOtherThreadsAndClockMoves)
{
    // A past deadline still runs what is due, then reports the predicate.
    bool done = false;
    mQueue.async([&] { done = true; });
    EXPECT_TRUE(mQueue.runUntil([&] { return done; }, mClock->now()));
    mQueue.async(record("x"));
    EXPECT_FALSE(mQueue.runUntil([] { return false; }, mClock->now()));
    EXPECT_EQ(mLog, std::vector<std::string>{"x"});

    done = false;
    std::thread poster([&] { mQueue.async([&] { done = true; }); });
    EXPECT_TRUE(mQueue.runUntil([&] { return done; }, mClock->now() + 1h));
    poster.join();

    // A delayed task on a manual clock becomes due only when another thread moves the clock.
    bool delayedRan = false;
    mQueue.asyncAfter(20ms, [&] { delayedRan = true; });
    std::thread mover([&] { mClock->advance(20ms); });
    EXPECT_TRUE(mQueue.runUntil([&] { return delayedRan; }, mClock->now() + 1h));
    mover.join();
}

TEST(MainQueueThreadTest, OwnThreadRunsTasksUntilStopped)
{
    MainQueue queue;
    queue.startThread();
    queue.startThread(); // a second start is harmless

    std::promise<bool> onQueueThread;
    queue.async([&] { onQueueThread.set_value(queue.isCurrent()); });
    EXPECT_TRUE(onQueueThread.get_future().get());
    EXPECT_FALSE(queue.isCurrent());

    std::promise<void> delayedRan;
    queue.asyncAfter(1ms, [&] { delayedRan.set_value(); });
    delayedRan.get_future().get();

    queue.stopThread();
    int ranAfterStop = 0;
    queue.async([&] { ++ranAfterStop; });
    EXPECT_EQ(ranAfterStop, 0);
    EXPECT_EQ(queue.drain(), 1u);
    EXPECT_EQ(ranAfterStop, 1);

    // Restartable, and a stop from the queue's own thread does not deadlock.
    queue.startThread();
    std::promise<void> stoppedFromInside;
    queue.async([&] {
        queue.stopThread();
        stoppedFromInside.set_value();
    });
    stoppedFromInside.get_future().get();
    queue.startThread();
    std::promise<void> ranAgain;
    queue.async([&] { ranAgain.set_value(); });
    ranAgain.get_future().get();
}

TEST(MainQueueThreadTest, DestroyingAQueueReleasesPendingTasks)
{
    auto held = std::make_shared<int>(7);
    {
        MainQueue queue;
        queue.async([held] {});
        queue.asyncAfter(1h, [held] {});
        EXPECT_EQ(held.use_count(), 3);
    }
    EXPECT_EQ(held.use_count(), 1);
}

} // namespace
} // namespace vell
