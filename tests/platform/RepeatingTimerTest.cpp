// Repeating timers: grid, hop to the target queue, coalescing, stop and restart, manual time.
#include "platform/RepeatingTimer.h"
#include "platform/ManualTime.h"
#include "platform/TimerProducer.h"

#include <gtest/gtest.h>

#include <thread>

namespace vell {
namespace {

using namespace std::chrono_literals;

constexpr std::chrono::nanoseconds kFrameTick{8'333'333}; // 120 Hz

class RepeatingTimerTest : public ::testing::Test {
protected:
    std::shared_ptr<ManualClock> mClock = std::make_shared<ManualClock>();
    MainQueue mTimerQueue{mClock};
    MainQueue mTarget{mClock};
    int mCalls = 0;
    std::thread::id mCallThread;

    RepeatingTimer::Handler counter()
    {
        return [this] {
            ++mCalls;
            mCallThread = std::this_thread::get_id();
        };
    }

    std::size_t advance(std::chrono::nanoseconds delta)
    {
        return advanceAndDrain(*mClock, {&mTimerQueue, &mTarget}, delta);
    }
};

TEST_F(RepeatingTimerTest, TicksOncePerIntervalForASecond)
{
    RepeatingTimer timer(kFrameTick, counter(), mTarget, mTimerQueue);
    timer.start();
    EXPECT_TRUE(timer.isRunning());

    advance(kFrameTick - 1ns);
    EXPECT_EQ(mCalls, 0);
    advance(1ns);
    EXPECT_EQ(mCalls, 1);
    advance(1s - kFrameTick);
    // 1 s / 8.333333 ms = 120.0000048: the 120th tick lands just inside the second.
    EXPECT_EQ(mCalls, 120);
}

TEST_F(RepeatingTimerTest, HandlerHopsToTheTargetQueueAndASlowTargetGetsOneHopNotABacklog)
{
    RepeatingTimer timer(10ms, counter(), mTarget, mTimerQueue);
    timer.start();
    mClock->advance(10ms);
    EXPECT_EQ(mTimerQueue.drain(), 1u);
    EXPECT_EQ(mCalls, 0); // not in the tick itself
    for (int i = 0; i < 2; ++i) {
        mClock->advance(10ms);
        mTimerQueue.drain();
    }
    EXPECT_EQ(mTarget.drain(), 1u);
    EXPECT_EQ(mCalls, 1);

    // Once the hop ran, the next tick hops again.
    mClock->advance(10ms);
    mTimerQueue.drain();
    EXPECT_EQ(mTarget.drain(), 1u);
    EXPECT_EQ(mCalls, 2);
}

TEST_F(RepeatingTimerTest, LateTickKeepsTheGridAndSkipsMissedTicks)
{
    RepeatingTimer timer(10ms, counter(), mTimerQueue, mTimerQueue);
    timer.start();
    mClock->advance(35ms); // ticks at 10, 20 and 30 ms were all late
    EXPECT_EQ(mTimerQueue.drain(), 1u);
    EXPECT_EQ(mCalls, 1);

    mClock->advance(4ms); // 39 ms: the next grid point is 40 ms
    EXPECT_EQ(mTimerQueue.drain(), 0u);
    mClock->advance(1ms);
    EXPECT_EQ(mTimerQueue.drain(), 1u);
    EXPECT_EQ(mCalls, 2);
}

TEST_F(RepeatingTimerTest, StopDropsAPendingHopAndEachStartBeginsAFreshGrid)
{
    RepeatingTimer timer(10ms, counter(), mTarget, mTimerQueue);
    timer.start();
    mClock->advance(10ms);
    mTimerQueue.drain(); // a hop now waits on the target queue

    timer.stop();
    EXPECT_FALSE(timer.isRunning());
    mTarget.drain();
    advance(100ms);
    EXPECT_EQ(mCalls, 0);
    EXPECT_FALSE(mTimerQueue.nextDueTime().has_value());

    mClock->advance(3ms); // off the old grid
    timer.start();
    advance(7ms);
    timer.start(); // restarting a running timer restarts its grid too
    advance(7ms);  // the previous grid would have ticked at 10 ms
    EXPECT_EQ(mCalls, 0);
    advance(3ms);
    EXPECT_EQ(mCalls, 1);
}

TEST_F(RepeatingTimerTest, DestroyedTimerLeavesNothingActing)
{
    {
        RepeatingTimer timer(10ms, counter(), mTarget, mTimerQueue);
        timer.start();
        mClock->advance(10ms);
        mTimerQueue.drain();
    }
    advance(50ms);
    EXPECT_EQ(mCalls, 0);
}

TEST_F(RepeatingTimerTest, HandlerMayStopItsOwnTimer)
{
    std::unique_ptr<RepeatingTimer> timer;
    timer = std::make_unique<RepeatingTimer>(
        10ms,
        [&] {
            ++mCalls;
            timer->stop();
        },
        mTarget, mTimerQueue);
    timer->start();
    advance(100ms);
    EXPECT_EQ(mCalls, 1);
}

TEST_F(RepeatingTimerTest, TimerProducerTicksOnItsQueueUntilDisposedOrItsLifetimeEnds)
{
    using TimePoint = MainQueue::Clock::time_point;
    const auto start = mClock->now();
    auto producer = timerProducer(67ms, mTarget);
    std::vector<std::chrono::milliseconds> ticks;
    auto [lifetime, token] = Lifetime::make();
    producer.take(lifetime).startWithValues([&](const TimePoint& t) {
        ticks.push_back(std::chrono::duration_cast<std::chrono::milliseconds>(t - start));
    });
    int otherTicks = 0;
    Disposable other = producer.startWithValues([&](const TimePoint&) { ++otherTicks; });

    advanceAndDrain(*mClock, {&mTarget}, 200ms);
    EXPECT_EQ(ticks, (std::vector<std::chrono::milliseconds>{67ms, 134ms}));
    EXPECT_EQ(otherTicks, 2);

    {
        Lifetime::Token ended = std::move(token);
    }
    other.dispose();
    advanceAndDrain(*mClock, {&mTarget}, 1s);
    EXPECT_EQ(ticks.size(), 2u);
    EXPECT_EQ(otherTicks, 2);
    EXPECT_FALSE(mTarget.nextDueTime().has_value());
}

TEST(RepeatingTimerProcessQueuesTest, ManualTimeScopeDrivesTheDefaultQueues)
{
    ManualTimeScope time;
    int calls = 0;
    bool onMain = false;
    RepeatingTimer timer(kFrameTick, [&] {
        ++calls;
        onMain = MainQueue::main().isCurrent();
    });
    timer.start();
    time.advance(kFrameTick * 5);
    EXPECT_EQ(calls, 5);
    EXPECT_TRUE(onMain);
    timer.stop();
    time.advance(1s);
    EXPECT_EQ(calls, 5);
}

TEST(RepeatingTimerProcessQueuesTest, RealTimerThreadHopsToAQueueDrainedByTheHost)
{
    // The one test on the steady clock: the global queue's own thread ticks, the host drains.
    MainQueue host;
    int calls = 0;
    RepeatingTimer timer(
        1ms, [&] { ++calls; }, host, MainQueue::global());
    timer.start();
    EXPECT_TRUE(host.runUntil([&] { return calls >= 3; }, host.now() + 30s));
    timer.stop();
    const int atStop = calls;
    host.drain();
    EXPECT_EQ(calls, atStop);
}

} // namespace
} // namespace vell
