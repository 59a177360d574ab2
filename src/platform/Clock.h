// Time sources for queues and timers: the steady clock, or a manual clock that tests advance.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace vell {

/// Where queues and timers read the time. Thread: any.
class TimeSource {
public:
    using Clock = std::chrono::steady_clock;
    using Listener = std::function<void()>;

    virtual ~TimeSource() = default;

    virtual Clock::time_point now() const noexcept = 0;
    /// Whether time moves only when told to. Waiters on a manual clock wait for its listeners'
    /// call rather than for a deadline.
    virtual bool isManual() const noexcept { return false; }
    /// Calls listener after every move of a manual clock, until the returned token is dropped.
    /// Clocks that move on their own never call it and return an empty token.
    [[nodiscard]] virtual std::shared_ptr<void> addListener(Listener listener);

    /// The steady clock, shared by the process.
    static std::shared_ptr<TimeSource> system();
};

/// A clock that stands still until advanced. It starts at the steady clock's reading when made,
/// so deadlines computed before switching to it stay meaningful.
class ManualClock final : public TimeSource {
public:
    ManualClock();

    Clock::time_point now() const noexcept override;
    bool isManual() const noexcept override { return true; }
    [[nodiscard]] std::shared_ptr<void> addListener(Listener listener) override;

    /// Moves time forward by delta (a negative delta is ignored) and tells the listeners.
    void advance(std::chrono::nanoseconds delta);
    /// Moves time forward to t; a t in the past changes nothing.
    void advanceTo(Clock::time_point t);

private:
    struct Listeners;
    std::atomic<Clock::rep> mTicks;
    std::shared_ptr<Listeners> mListeners;
};

} // namespace vell
