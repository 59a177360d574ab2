// The main queue: tasks that must run on the application's main (controlling) thread.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>

namespace vell {

class TimeSource;

/// A serial queue drained by one thread: the host drains it (`drain`, `runUntil`) or lets it
/// run on a thread of its own (`startThread`). Tests drain it deterministically.
/// Thread: `async` and `asyncAfter` from any thread except the render thread.
///
/// Delays are measured on the queue's time source: the steady clock, or a `ManualClock` on which
/// nothing becomes due until a test advances it. A task that throws is logged and dropped.
class MainQueue {
public:
    using Task = std::function<void()>;
    using Clock = std::chrono::steady_clock;

    /// The process's main queue.
    static MainQueue& main();
    /// The process's global queue, where timers tick: it runs on a thread of its own, started at
    /// its first use. Tests stop that thread (`stopThread`) and drain it themselves.
    static MainQueue& global();

    MainQueue();
    explicit MainQueue(std::shared_ptr<TimeSource> timeSource);
    ~MainQueue();
    MainQueue(const MainQueue&) = delete;
    MainQueue& operator=(const MainQueue&) = delete;

    /// Queues task to run after everything queued before it.
    void async(Task task);
    /// Queues task to run no sooner than delay from now. The returned handle cancels it when
    /// `cancel()` is called on it (dropping the handle does not cancel).
    class Cancellable;
    std::shared_ptr<Cancellable> asyncAfter(std::chrono::nanoseconds delay, Task task);

    /// Runs every task that is due now, including tasks queued by those tasks; returns how many
    /// ran. Thread: the queue's thread.
    std::size_t drain();
    /// Drains until predicate is true or the deadline passes, waiting for new tasks in between.
    /// The deadline is read on the queue's time source: on a manual clock the wait ends only
    /// when a task arrives or another thread moves the clock.
    bool runUntil(const std::function<bool()>& predicate, Clock::time_point deadline);

    /// Runs the queue on a thread of its own until `stopThread` or destruction.
    void startThread();
    /// Stops the queue's own thread after its current task and joins it. Called from one of
    /// the queue's tasks it only asks the loop to end; the next start (or the destructor, which
    /// must then run elsewhere) joins the thread.
    void stopThread();

    /// Whether the calling thread is the one draining this queue (or the queue's own thread).
    /// The last thread that drained the queue stays its thread until another one drains it.
    bool isCurrent() const;
    /// Makes the calling thread the queue's thread without draining (for hosts that drain later).
    void adoptCurrentThread();

    /// The queue's time source and its current reading.
    std::shared_ptr<TimeSource> timeSource() const;
    Clock::time_point now() const;
    /// Replaces the time source. Delayed tasks keep their due times, so switch before scheduling.
    void setTimeSource(std::shared_ptr<TimeSource> timeSource);

    /// When the earliest pending task is due (now, for a task queued with `async`); nothing when
    /// no task is pending. Cancelled tasks do not count.
    std::optional<Clock::time_point> nextDueTime() const;

private:
    struct Impl;
    std::unique_ptr<Impl> mImpl;
};

class MainQueue::Cancellable {
public:
    void cancel() noexcept;
    bool isCancelled() const noexcept;

private:
    friend class MainQueue;
    std::shared_ptr<void> mState;
};

} // namespace vell
