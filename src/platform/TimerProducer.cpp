// Timer producers over repeating timers.
#include "platform/TimerProducer.h"

#include "platform/RepeatingTimer.h"

namespace vell {

SignalProducer<MainQueue::Clock::time_point> timerProducer(std::chrono::nanoseconds interval,
                                                           MainQueue& queue)
{
    using TimePoint = MainQueue::Clock::time_point;
    MainQueue* target = &queue;
    return SignalProducer<TimePoint>(
        [interval, target](SignalProducer<TimePoint>::Observer observer) {
            auto timer = std::make_shared<RepeatingTimer>(
                interval, [target, observer] { observer(target->now()); }, *target, *target);
            timer->start();
            return Disposable([timer] { timer->stop(); });
        });
}

} // namespace vell
