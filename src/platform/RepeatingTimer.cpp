// Repeating timers: ticks on a timer queue, handler calls hopped to the target queue.
#include "platform/RepeatingTimer.h"

#include <atomic>
#include <mutex>

namespace vell {

struct RepeatingTimer::State : std::enable_shared_from_this<State> {
    State(std::chrono::nanoseconds period, Handler fn, MainQueue& targetQueue, MainQueue& tickQueue)
        : interval(std::max(period, std::chrono::nanoseconds(1))), handler(std::move(fn)),
          target(targetQueue), timerQueue(tickQueue)
    {
    }

    const std::chrono::nanoseconds interval;
    const Handler handler;
    MainQueue& target;
    MainQueue& timerQueue;

    mutable std::mutex mutex;
    // Each start begins a new generation; ticks and hops of an older one do nothing.
    std::atomic<std::uint64_t> generation{0};
    bool running = false;
    MainQueue::Clock::time_point nextDue;
    std::shared_ptr<MainQueue::Cancellable> pendingTick;
    std::atomic<bool> hopPending{false};

    bool isLive(std::uint64_t gen) const { return generation.load() == gen; }

    /// Caller holds mutex.
    void scheduleTickLocked(std::uint64_t gen)
    {
        const auto delay = nextDue - timerQueue.now();
        std::weak_ptr<State> weak = weak_from_this();
        pendingTick = timerQueue.asyncAfter(delay, [weak, gen] {
            if (auto self = weak.lock()) {
                self->tick(gen);
            }
        });
    }

    void tick(std::uint64_t gen)
    {
        {
            std::lock_guard lock(mutex);
            if (!running || !isLive(gen)) {
                return;
            }
            const auto now = timerQueue.now();
            nextDue += interval;
            if (nextDue <= now) {
                // Skip the ticks missed entirely and stay on the grid.
                const auto behind = now - nextDue;
                nextDue += (behind / interval + 1) * interval;
            }
            scheduleTickLocked(gen);
        }
        if (&target == &timerQueue) {
            fire(gen);
            return;
        }
        if (hopPending.exchange(true)) {
            return;
        }
        std::weak_ptr<State> weak = weak_from_this();
        target.async([weak, gen] {
            if (auto self = weak.lock()) {
                self->hopPending.store(false);
                self->fire(gen);
            }
        });
    }

    void fire(std::uint64_t gen)
    {
        if (isLive(gen) && handler) {
            handler();
        }
    }
};

RepeatingTimer::RepeatingTimer(std::chrono::nanoseconds interval, Handler handler,
                               MainQueue& target, MainQueue& timerQueue)
    : mState(std::make_shared<State>(interval, std::move(handler), target, timerQueue))
{
}

RepeatingTimer::~RepeatingTimer()
{
    stop();
}

void RepeatingTimer::start()
{
    std::lock_guard lock(mState->mutex);
    if (mState->pendingTick) {
        mState->pendingTick->cancel();
    }
    const auto gen = mState->generation.fetch_add(1) + 1;
    mState->running = true;
    mState->nextDue = mState->timerQueue.now() + mState->interval;
    mState->scheduleTickLocked(gen);
}

void RepeatingTimer::stop()
{
    std::lock_guard lock(mState->mutex);
    mState->generation.fetch_add(1);
    mState->running = false;
    if (mState->pendingTick) {
        mState->pendingTick->cancel();
        mState->pendingTick.reset();
    }
}

bool RepeatingTimer::isRunning() const
{
    std::lock_guard lock(mState->mutex);
    return mState->running;
}

std::chrono::nanoseconds RepeatingTimer::interval() const noexcept
{
    return mState->interval;
}

} // namespace vell
