// A timer as a stream of values: each start runs a repeating timer until disposed.
#pragma once

#include "VellAudio/Reactive.h"
#include "platform/MainQueue.h"

#include <chrono>

namespace vell {

/// A producer that, for each start, ticks every interval on queue (the tick and the delivery
/// both run there, no hop) and sends the queue's time of each tick. Disposing the start stops
/// its timer; `take(lifetime)` ties it to an owner. The queue must outlive every start.
SignalProducer<MainQueue::Clock::time_point> timerProducer(std::chrono::nanoseconds interval,
                                                           MainQueue& queue = MainQueue::main());

} // namespace vell
