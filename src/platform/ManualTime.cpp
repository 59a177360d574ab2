// Deterministic time for tests: stepping a manual clock through the due times of queues.
#include "platform/ManualTime.h"

#include <optional>

namespace vell {

std::size_t drainAll(const std::vector<MainQueue*>& queues)
{
    std::size_t total = 0;
    for (;;) {
        std::size_t ran = 0;
        for (MainQueue* queue : queues) {
            ran += queue->drain();
        }
        if (ran == 0) {
            return total;
        }
        total += ran;
    }
}

std::size_t advanceAndDrain(ManualClock& clock, const std::vector<MainQueue*>& queues,
                            std::chrono::nanoseconds delta)
{
    const auto end = clock.now() + std::chrono::duration_cast<TimeSource::Clock::duration>(
                                       std::max(delta, std::chrono::nanoseconds(0)));
    std::size_t total = drainAll(queues);
    for (;;) {
        std::optional<TimeSource::Clock::time_point> next;
        for (MainQueue* queue : queues) {
            if (auto due = queue->nextDueTime(); due && (!next || *due < *next)) {
                next = due;
            }
        }
        if (!next || *next > end) {
            break;
        }
        clock.advanceTo(*next);
        total += drainAll(queues);
    }
    clock.advanceTo(end);
    return total + drainAll(queues);
}

ManualTimeScope::ManualTimeScope() : mClock(std::make_shared<ManualClock>())
{
    MainQueue::global().stopThread();
    mPreviousMain = MainQueue::main().timeSource();
    mPreviousGlobal = MainQueue::global().timeSource();
    MainQueue::main().setTimeSource(mClock);
    MainQueue::global().setTimeSource(mClock);
    MainQueue::main().adoptCurrentThread();
}

ManualTimeScope::~ManualTimeScope()
{
    MainQueue::main().setTimeSource(mPreviousMain);
    MainQueue::global().setTimeSource(mPreviousGlobal);
    MainQueue::global().startThread();
}

std::size_t ManualTimeScope::advance(std::chrono::nanoseconds delta)
{
    return advanceAndDrain(*mClock, {&MainQueue::global(), &MainQueue::main()}, delta);
}

std::size_t ManualTimeScope::drain()
{
    return drainAll({&MainQueue::global(), &MainQueue::main()});
}

} // namespace vell
