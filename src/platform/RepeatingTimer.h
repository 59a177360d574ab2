// A repeating timer that ticks on a timer queue and runs its handler on a target queue.
#pragma once

#include "platform/MainQueue.h"

#include <chrono>
#include <functional>
#include <memory>

namespace vell {

/// Ticks every interval on the timer queue (by default the global queue, a thread of its own)
/// and hops to the target queue (by default the main queue) to run the handler. When both
/// queues are the same the handler runs in the tick itself.
///
/// Ticks keep to a fixed grid (first at start + interval, then every interval after it); a tick
/// that comes late does not shift the ones after it, and ticks missed entirely are skipped. While
/// a hop is waiting on the target queue, further ticks post no second hop: a slow target queue
/// sees one handler call, not a backlog.
///
/// Thread: `start`, `stop` and destruction from any thread but the render thread. After `stop`
/// (or destruction) returns on the target queue's thread, the handler does not run again;
/// stopping from another thread cannot interrupt a handler already running.
class RepeatingTimer {
public:
    using Handler = std::function<void()>;

    RepeatingTimer(std::chrono::nanoseconds interval, Handler handler,
                   MainQueue& target = MainQueue::main(),
                   MainQueue& timerQueue = MainQueue::global());
    ~RepeatingTimer();
    RepeatingTimer(const RepeatingTimer&) = delete;
    RepeatingTimer& operator=(const RepeatingTimer&) = delete;

    /// Starts ticking, the first tick one interval from now. Starting a running timer restarts
    /// its grid from now.
    void start();
    /// Stops ticking and drops a hop not yet run. The timer can be started again.
    void stop();
    bool isRunning() const;
    std::chrono::nanoseconds interval() const noexcept;

private:
    struct State;
    std::shared_ptr<State> mState;
};

} // namespace vell
