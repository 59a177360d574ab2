// Moves notifications off the render thread: the render thread queues a prepared notification,
// a worker thread runs its block.
#pragma once

#include "rt/Realtime.h"
#include "rt/SpscRing.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <thread>

namespace vell {

/// A block prepared on the main thread (which allocates), so that the render thread only ever
/// passes a pointer to it. Immutable after creation.
class KQueueableAudioNotification {
public:
    explicit KQueueableAudioNotification(std::function<void()> block) : mBlock(std::move(block)) {}

    /// Runs the block (nothing when it is empty). Thread: the worker.
    void run() const
    {
        if (mBlock) {
            mBlock();
        }
    }

private:
    const std::function<void()> mBlock;
};

/// A worker thread that runs queued notifications in the order they were added.
///
/// Who writes what:
/// - The adding thread (the render thread; one thread at a time) pushes notification pointers
///   into a preallocated SPSC ring and bumps `mWakeSequence`; the worker pops and runs them.
/// - `start`, `stop` and destruction belong to the owning (main) thread.
/// What each side may assume:
/// - Adding never allocates, locks or blocks. It wakes a sleeping worker through the atomic's
///   notify, which on Linux is a non-blocking futex wake made only while the worker sleeps.
/// - Every notification added while the worker exists runs exactly once, on the worker thread:
///   `stop` runs what is still queued before the thread ends; one added while stopped runs
///   after the next `start`. A full queue drops the notification and counts it.
/// - A notification must outlive its runs: destroy it only when it is neither queued nor
///   running (for example after `stop`).
class KAudioNotificationQueueWorker {
    VELL_STATIC_ASSERT_LOCK_FREE(std::uint32_t);
    VELL_STATIC_ASSERT_LOCK_FREE(std::uint64_t);

public:
    static constexpr std::size_t kDefaultCapacity = 64;

    explicit KAudioNotificationQueueWorker(std::size_t capacity = kDefaultCapacity);
    /// Stops the worker (running what is queued).
    ~KAudioNotificationQueueWorker();
    KAudioNotificationQueueWorker(const KAudioNotificationQueueWorker&) = delete;
    KAudioNotificationQueueWorker& operator=(const KAudioNotificationQueueWorker&) = delete;

    /// Starts the worker thread; nothing if it runs. False if the thread could not be made.
    /// Thread: main.
    bool start();
    /// Runs what is queued, then ends the worker thread; nothing if it is not running.
    /// Thread: main (never the worker itself).
    void stop();
    bool isRunning() const noexcept { return mThread.joinable(); }

    /// Queues a notification; false (and counted as dropped) when the queue is full or the
    /// notification is null. Thread: render (one adding thread at a time). Wait-free, no
    /// allocation, no lock.
    VELL_RT bool addNotification(const KQueueableAudioNotification* notification) noexcept;

    /// Notifications dropped because the queue was full. Thread: any.
    std::uint64_t droppedCount() const noexcept { return mDropped.load(); }

private:
    void runLoop();
    void drain();

    SpscRing<const KQueueableAudioNotification*> mQueue;
    std::atomic<std::uint32_t> mWakeSequence{0};
    std::atomic<bool> mStopRequested{false};
    std::atomic<std::uint64_t> mDropped{0};
    std::thread mThread;
};

/// Makes a notification wrapping block. Thread: main (allocates).
KQueueableAudioNotification* KQueueableAudioNotificationCreate(std::function<void()> block);
/// Frees a notification made by KQueueableAudioNotificationCreate (null is fine). Thread: main.
void KQueueableAudioNotificationDestroy(KQueueableAudioNotification* notification);

/// Makes a stopped worker whose queue holds at least capacity notifications. Thread: main.
KAudioNotificationQueueWorker* KAudioNotificationQueueWorkerCreate(
    std::size_t capacity = KAudioNotificationQueueWorker::kDefaultCapacity);
/// Stops and frees a worker (null is fine). Thread: main.
void KAudioNotificationQueueWorkerDestroy(KAudioNotificationQueueWorker* worker);
/// Starts the worker thread. Thread: main.
bool KAudioNotificationQueueWorkerStart(KAudioNotificationQueueWorker* worker);
/// Runs what is queued and stops the worker thread. Thread: main.
void KAudioNotificationQueueWorkerStop(KAudioNotificationQueueWorker* worker);
/// Queues notification to run on the worker thread. Thread: render. Wait-free, no allocation.
VELL_RT bool KAudioNotificationQueueWorkerAddNotification(
    KAudioNotificationQueueWorker* worker,
    const KQueueableAudioNotification* notification) noexcept;

} // namespace vell
