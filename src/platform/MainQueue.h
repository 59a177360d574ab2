// The main queue: tasks that must run on the application's main (controlling) thread.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>

namespace vell {

/// A serial queue drained by one thread: the host drains it (`drain`, `runUntil`) or lets it
/// run on a thread of its own (`startThread`). Tests drain it deterministically.
/// Thread: `async` and `asyncAfter` from any thread except the render thread.
class MainQueue {
public:
    using Task = std::function<void()>;
    using Clock = std::chrono::steady_clock;

    /// The process's main queue.
    static MainQueue& main();

    MainQueue();
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
    bool runUntil(const std::function<bool()>& predicate, Clock::time_point deadline);

    /// Runs the queue on a thread of its own until `stopThread` or destruction.
    void startThread();
    void stopThread();

    /// Whether the calling thread is the one draining this queue (or the queue's own thread).
    bool isCurrent() const;

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
