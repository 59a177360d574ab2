// The notification worker thread and the C-style entry points of notifications and workers.
#include "audio/reader/KAudioNotificationQueueWorker.h"

#include "support/Format.h"
#include "support/Log.h"

#include <exception>
#include <system_error>

namespace vell {

KAudioNotificationQueueWorker::KAudioNotificationQueueWorker(std::size_t capacity)
    : mQueue(capacity)
{
}

KAudioNotificationQueueWorker::~KAudioNotificationQueueWorker()
{
    stop();
}

bool KAudioNotificationQueueWorker::start()
{
    if (mThread.joinable()) {
        return true;
    }
    mStopRequested = false;
    try {
        mThread = std::thread([this] { runLoop(); });
    } catch (const std::system_error& e) {
        VELL_LOG_ERROR(format("Could not start the notification worker: %s", e.what()));
        return false;
    }
    return true;
}

void KAudioNotificationQueueWorker::stop()
{
    if (!mThread.joinable()) {
        return;
    }
    mStopRequested = true;
    mWakeSequence.fetch_add(1);
    mWakeSequence.notify_one();
    mThread.join();
}

VELL_RT bool KAudioNotificationQueueWorker::addNotification(
    const KQueueableAudioNotification* notification) noexcept
{
    if (!notification || !mQueue.tryPush(notification)) {
        mDropped.fetch_add(1);
        return false;
    }
    // The worker reads the sequence before it checks the queue, so either it sees the value
    // pushed above or its wait returns at once on the changed sequence.
    mWakeSequence.fetch_add(1);
    mWakeSequence.notify_one();
    return true;
}

void KAudioNotificationQueueWorker::drain()
{
    const KQueueableAudioNotification* notification = nullptr;
    while (mQueue.tryPop(notification)) {
        try {
            notification->run();
        } catch (const std::exception& e) {
            VELL_LOG_ERROR(format("A queued audio notification failed: %s", e.what()));
        } catch (...) {
            VELL_LOG_ERROR("A queued audio notification failed.");
        }
    }
}

void KAudioNotificationQueueWorker::runLoop()
{
    for (;;) {
        const std::uint32_t seen = mWakeSequence.load();
        drain();
        if (mStopRequested.load()) {
            drain();
            return;
        }
        mWakeSequence.wait(seen);
    }
}

KQueueableAudioNotification* KQueueableAudioNotificationCreate(std::function<void()> block)
{
    return new KQueueableAudioNotification(std::move(block));
}

void KQueueableAudioNotificationDestroy(KQueueableAudioNotification* notification)
{
    delete notification;
}

KAudioNotificationQueueWorker* KAudioNotificationQueueWorkerCreate(std::size_t capacity)
{
    return new KAudioNotificationQueueWorker(capacity);
}

void KAudioNotificationQueueWorkerDestroy(KAudioNotificationQueueWorker* worker)
{
    delete worker;
}

bool KAudioNotificationQueueWorkerStart(KAudioNotificationQueueWorker* worker)
{
    return worker && worker->start();
}

void KAudioNotificationQueueWorkerStop(KAudioNotificationQueueWorker* worker)
{
    if (worker) {
        worker->stop();
    }
}

VELL_RT bool KAudioNotificationQueueWorkerAddNotification(
    KAudioNotificationQueueWorker* worker, const KQueueableAudioNotification* notification) noexcept
{
    return worker && worker->addNotification(notification);
}

} // namespace vell
