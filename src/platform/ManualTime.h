// Deterministic time for tests: queues on a manual clock, advanced step by step and drained.
#pragma once

#include "platform/Clock.h"
#include "platform/MainQueue.h"

#include <chrono>
#include <cstddef>
#include <initializer_list>
#include <memory>
#include <vector>

namespace vell {

/// Moves clock forward by delta in steps: at every due time of a task on one of queues (on or
/// before the end), time stops there and the queues are drained in the order given until none
/// has work that is due. Then time reaches the end and the queues are drained once more.
/// Returns how many tasks ran. The queues must not run threads of their own.
std::size_t advanceAndDrain(ManualClock& clock, const std::vector<MainQueue*>& queues,
                            std::chrono::nanoseconds delta);

/// Drains queues in the order given until none has work due now; returns how many tasks ran.
std::size_t drainAll(const std::vector<MainQueue*>& queues);

/// For the life of the scope the process's main and global queues run on one manual clock and
/// the global queue's thread is stopped; `advance` moves time and drains both (global first, so
/// a timer's tick and its hop run within the same step). The destructor gives both queues the
/// steady clock back and restarts the global queue's thread.
/// Thread: the test's thread, which becomes the main queue's thread.
class ManualTimeScope {
public:
    ManualTimeScope();
    ~ManualTimeScope();
    ManualTimeScope(const ManualTimeScope&) = delete;
    ManualTimeScope& operator=(const ManualTimeScope&) = delete;

    ManualClock& clock() noexcept { return *mClock; }
    std::size_t advance(std::chrono::nanoseconds delta);
    std::size_t drain();

private:
    std::shared_ptr<ManualClock> mClock;
    std::shared_ptr<TimeSource> mPreviousMain;
    std::shared_ptr<TimeSource> mPreviousGlobal;
};

} // namespace vell
