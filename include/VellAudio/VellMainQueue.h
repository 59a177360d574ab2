// The application's main queue, for hosts without a run loop of their own (the vell tool):
// engine messages to delegates arrive there and run when the host drains it.
#pragma once

#include <chrono>
#include <functional>

namespace vell {

/// Runs every main-queue task that is due now; returns how many ran. Thread: the host's main
/// thread (the first thread to drain becomes it).
std::size_t VellDrainMainQueue();

/// Drains the main queue until predicate answers true or timeout passes, sleeping while
/// nothing is due; the predicate is also asked every few milliseconds, so it may watch state
/// that changes without a task. Answers the predicate's last value.
bool VellRunMainQueueUntil(const std::function<bool()>& predicate,
                           std::chrono::milliseconds timeout);

} // namespace vell
