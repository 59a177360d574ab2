// The main queue: a serial task queue drained by a host thread or by a thread of its own.
#include "platform/MainQueue.h"

#include "platform/Clock.h"
#include "support/Format.h"
#include "support/Log.h"

#include <atomic>
#include <condition_variable>
#include <deque>
#include <exception>
#include <map>
#include <mutex>
#include <thread>
#include <utility>

namespace vell {

namespace {

using CancelFlag = std::atomic<bool>;

struct DelayedTask {
    MainQueue::Task task;
    std::shared_ptr<CancelFlag> cancelled;
};

void runTask(MainQueue::Task& task)
{
    try {
        task();
    } catch (const std::exception& exception) {
        VELL_LOG_ERROR(format("Caught exception: %s", exception.what()));
    } catch (...) {
        VELL_LOG_ERROR("Caught exception: unknown");
    }
}

} // namespace

struct MainQueue::Impl {
    mutable std::mutex mutex;
    std::condition_variable wake;
    std::deque<Task> ready;
    // Keyed by due time, then by order of scheduling, so equal due times keep FIFO order.
    std::map<std::pair<Clock::time_point, std::uint64_t>, DelayedTask> delayed;
    std::uint64_t nextSequence = 0;
    std::shared_ptr<TimeSource> timeSource;
    std::shared_ptr<void> clockListener;
    std::thread::id owner;
    std::thread thread;
    bool stopRequested = false;

    Clock::time_point nowLocked() const { return timeSource->now(); }

    /// Moves the delayed tasks that are due into the ready queue. Caller holds mutex.
    void promoteDueLocked()
    {
        const auto now = nowLocked();
        while (!delayed.empty() && delayed.begin()->first.first <= now) {
            auto node = delayed.extract(delayed.begin());
            if (!node.mapped().cancelled->load()) {
                ready.push_back(std::move(node.mapped().task));
            }
        }
    }

    void dropCancelledLocked()
    {
        std::erase_if(delayed, [](const auto& entry) { return entry.second.cancelled->load(); });
    }

    /// Waits for a task to become due, for stop, or until deadline (if given). Caller holds lock.
    void waitLocked(std::unique_lock<std::mutex>& lock, std::optional<Clock::time_point> deadline)
    {
        dropCancelledLocked();
        std::optional<Clock::time_point> until = deadline;
        if (!delayed.empty()) {
            const auto due = delayed.begin()->first.first;
            until = until ? std::min(*until, due) : due;
        }
        if (until && !timeSource->isManual()) {
            wake.wait_until(lock, *until);
        } else {
            // A manual clock wakes us through its listener when it moves.
            wake.wait(lock);
        }
    }

    void listenTo(const std::shared_ptr<TimeSource>& source)
    {
        // Registered outside mutex: the clock calls its listeners under its own lock, and a
        // listener takes ours, so we never hold ours while taking the clock's.
        auto listener = source->addListener([this] {
            std::lock_guard lock(mutex);
            wake.notify_all();
        });
        std::shared_ptr<void> old;
        {
            std::lock_guard lock(mutex);
            old = std::exchange(clockListener, std::move(listener));
            timeSource = source;
            wake.notify_all();
        }
    }
};

void MainQueue::Cancellable::cancel() noexcept
{
    static_cast<CancelFlag*>(mState.get())->store(true);
}

bool MainQueue::Cancellable::isCancelled() const noexcept
{
    return static_cast<const CancelFlag*>(mState.get())->load();
}

MainQueue& MainQueue::main()
{
    static MainQueue queue;
    return queue;
}

MainQueue& MainQueue::global()
{
    static MainQueue queue;
    static std::once_flag started;
    std::call_once(started, [] { queue.startThread(); });
    return queue;
}

MainQueue::MainQueue() : MainQueue(TimeSource::system()) {}

MainQueue::MainQueue(std::shared_ptr<TimeSource> timeSource) : mImpl(std::make_unique<Impl>())
{
    mImpl->listenTo(timeSource ? timeSource : TimeSource::system());
}

MainQueue::~MainQueue()
{
    stopThread();
    std::shared_ptr<void> listener;
    std::deque<Task> ready;
    std::map<std::pair<Clock::time_point, std::uint64_t>, DelayedTask> delayed;
    {
        std::lock_guard lock(mImpl->mutex);
        listener = std::move(mImpl->clockListener);
        ready.swap(mImpl->ready);
        delayed.swap(mImpl->delayed);
    }
    // Tasks (and whatever they hold) are destroyed here, outside the lock.
}

void MainQueue::async(Task task)
{
    if (!task) {
        return;
    }
    std::lock_guard lock(mImpl->mutex);
    mImpl->ready.push_back(std::move(task));
    mImpl->wake.notify_all();
}

std::shared_ptr<MainQueue::Cancellable> MainQueue::asyncAfter(std::chrono::nanoseconds delay,
                                                              Task task)
{
    auto flag = std::make_shared<CancelFlag>(false);
    auto handle = std::make_shared<Cancellable>();
    handle->mState = flag;
    if (!task) {
        flag->store(true);
        return handle;
    }
    std::lock_guard lock(mImpl->mutex);
    const auto due = mImpl->nowLocked() + std::chrono::duration_cast<Clock::duration>(
                                              std::max(delay, std::chrono::nanoseconds(0)));
    mImpl->delayed.emplace(std::make_pair(due, mImpl->nextSequence++),
                           DelayedTask{std::move(task), std::move(flag)});
    mImpl->wake.notify_all();
    return handle;
}

std::size_t MainQueue::drain()
{
    std::size_t count = 0;
    std::unique_lock lock(mImpl->mutex);
    mImpl->owner = std::this_thread::get_id();
    for (;;) {
        mImpl->promoteDueLocked();
        if (mImpl->ready.empty()) {
            break;
        }
        Task task = std::move(mImpl->ready.front());
        mImpl->ready.pop_front();
        lock.unlock();
        runTask(task);
        task = nullptr; // release what the task held before taking the lock again
        ++count;
        lock.lock();
    }
    return count;
}

bool MainQueue::runUntil(const std::function<bool()>& predicate, Clock::time_point deadline)
{
    for (;;) {
        if (predicate()) {
            return true;
        }
        if (drain() > 0) {
            continue;
        }
        std::unique_lock lock(mImpl->mutex);
        if (mImpl->nowLocked() >= deadline) {
            lock.unlock();
            return predicate();
        }
        mImpl->promoteDueLocked();
        if (mImpl->ready.empty()) {
            mImpl->waitLocked(lock, deadline);
        }
    }
}

void MainQueue::startThread()
{
    std::unique_lock lock(mImpl->mutex);
    if (mImpl->thread.joinable()) {
        if (!mImpl->stopRequested || mImpl->thread.get_id() == std::this_thread::get_id()) {
            return;
        }
        // A stop asked for from the queue's own thread left that thread to be joined here.
        std::thread finished = std::move(mImpl->thread);
        lock.unlock();
        finished.join();
        lock.lock();
        if (mImpl->thread.joinable()) {
            return; // another caller started it meanwhile
        }
    }
    mImpl->stopRequested = false;
    mImpl->thread = std::thread([this] {
        std::unique_lock threadLock(mImpl->mutex);
        mImpl->owner = std::this_thread::get_id();
        while (!mImpl->stopRequested) {
            mImpl->promoteDueLocked();
            if (mImpl->ready.empty()) {
                mImpl->waitLocked(threadLock, std::nullopt);
                continue;
            }
            Task task = std::move(mImpl->ready.front());
            mImpl->ready.pop_front();
            threadLock.unlock();
            runTask(task);
            task = nullptr;
            threadLock.lock();
        }
    });
}

void MainQueue::stopThread()
{
    std::thread thread;
    {
        std::lock_guard lock(mImpl->mutex);
        if (!mImpl->thread.joinable()) {
            return;
        }
        mImpl->stopRequested = true;
        mImpl->wake.notify_all();
        if (mImpl->thread.get_id() == std::this_thread::get_id()) {
            return; // cannot join ourselves; the loop ends after the current task
        }
        thread = std::move(mImpl->thread);
    }
    thread.join();
}

bool MainQueue::isCurrent() const
{
    std::lock_guard lock(mImpl->mutex);
    return mImpl->owner == std::this_thread::get_id();
}

void MainQueue::adoptCurrentThread()
{
    std::lock_guard lock(mImpl->mutex);
    mImpl->owner = std::this_thread::get_id();
}

std::shared_ptr<TimeSource> MainQueue::timeSource() const
{
    std::lock_guard lock(mImpl->mutex);
    return mImpl->timeSource;
}

MainQueue::Clock::time_point MainQueue::now() const
{
    std::lock_guard lock(mImpl->mutex);
    return mImpl->nowLocked();
}

void MainQueue::setTimeSource(std::shared_ptr<TimeSource> timeSource)
{
    mImpl->listenTo(timeSource ? timeSource : TimeSource::system());
}

std::optional<MainQueue::Clock::time_point> MainQueue::nextDueTime() const
{
    std::lock_guard lock(mImpl->mutex);
    if (!mImpl->ready.empty()) {
        return mImpl->nowLocked();
    }
    for (const auto& [key, entry] : mImpl->delayed) {
        if (!entry.cancelled->load()) {
            return key.first;
        }
    }
    return std::nullopt;
}

} // namespace vell
