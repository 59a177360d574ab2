// Time sources: the steady clock and the manual clock of deterministic tests.
#include "platform/Clock.h"

#include "support/ReleaseToken.h"

#include <algorithm>

namespace vell {

namespace {

class SystemTimeSource final : public TimeSource {
public:
    Clock::time_point now() const noexcept override { return Clock::now(); }
};

} // namespace

std::shared_ptr<void> TimeSource::addListener(Listener)
{
    return nullptr;
}

std::shared_ptr<TimeSource> TimeSource::system()
{
    static const std::shared_ptr<TimeSource> source = std::make_shared<SystemTimeSource>();
    return source;
}

// Listeners are called under mMutex so that removing one (its token's destruction) waits for a
// call in progress: a listener never runs after its owner is gone.
struct ManualClock::Listeners {
    std::mutex mutex;
    std::vector<std::pair<std::uint64_t, Listener>> entries;
    std::uint64_t nextId = 1;
};

ManualClock::ManualClock()
    : mTicks(Clock::now().time_since_epoch().count()), mListeners(std::make_shared<Listeners>())
{
}

TimeSource::Clock::time_point ManualClock::now() const noexcept
{
    return Clock::time_point(Clock::duration(mTicks.load()));
}

std::shared_ptr<void> ManualClock::addListener(Listener listener)
{
    std::uint64_t id = 0;
    {
        std::lock_guard lock(mListeners->mutex);
        id = mListeners->nextId++;
        mListeners->entries.emplace_back(id, std::move(listener));
    }
    std::weak_ptr<Listeners> weak = mListeners;
    return makeReleaseToken([weak, id] {
        if (auto listeners = weak.lock()) {
            std::lock_guard lock(listeners->mutex);
            std::erase_if(listeners->entries,
                          [id](const auto& entry) { return entry.first == id; });
        }
    });
}

void ManualClock::advance(std::chrono::nanoseconds delta)
{
    if (delta.count() <= 0) {
        return;
    }
    mTicks.fetch_add(std::chrono::duration_cast<Clock::duration>(delta).count());
    std::lock_guard lock(mListeners->mutex);
    for (const auto& entry : mListeners->entries) {
        entry.second();
    }
}

void ManualClock::advanceTo(Clock::time_point t)
{
    const auto delta = t - now();
    if (delta > Clock::duration::zero()) {
        advance(delta);
    }
}

} // namespace vell
