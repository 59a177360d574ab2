// The freezer's worker thread and its ring of buffers, and the output-configuration check.
#include "engine/VellAudioFreezer.h"

#include "audio/bufferplayer/BRIXAudioPCMBuffer.h"
#include "audio/bufferplayer/BRIXAudioPlayerNode.h"
#include "audio/effects/Freezer.h"
#include "support/Localized.h"

#include <algorithm>
#include <cerrno>
#include <pthread.h>
#include <stdexcept>
#include <thread>

namespace vell {

namespace detail {

CountingSemaphore::CountingSemaphore(unsigned initialCount)
{
    if (sem_init(&mSemaphore, 0, initialCount) != 0) {
        throw std::runtime_error("the freezer's buffer semaphore could not be made");
    }
}

CountingSemaphore::~CountingSemaphore()
{
    sem_destroy(&mSemaphore);
}

VELL_RT void CountingSemaphore::release() noexcept
{
    sem_post(&mSemaphore);
}

void CountingSemaphore::acquire() noexcept
{
    while (sem_wait(&mSemaphore) != 0 && errno == EINTR) {
    }
}

std::optional<OperatingSystemVersion> freezerAffectedSystemVersion()
{
    return std::nullopt;
}

bool checkFreezerOutputConfiguration(std::optional<OperatingSystemVersion> version,
                                     const std::function<OSType()>& defaultDeviceTransportType,
                                     Error* outError)
{
    const bool affected = version && version->major == 10 && version->minor == 13;
    if (!affected || !defaultDeviceTransportType) {
        return true;
    }
    if (defaultDeviceTransportType() == kAudioDeviceTransportTypeAggregate) {
        assignError(outError, makeUnsupportedConfigurationError());
        return false;
    }
    return true;
}

Error makeUnsupportedConfigurationError()
{
    ErrorUserInfo info;
    info.emplace(NSLocalizedDescriptionKey,
                 localizedString(VellAudioFreezer::kUnsupportedConfigurationDescription));
    info.emplace(NSLocalizedFailureReasonErrorKey,
                 localizedString(VellAudioFreezer::kUnsupportedConfigurationReason));
    info.emplace(VellAudioFreezer::kRecoverySuggestionErrorKey,
                 localizedString(VellAudioFreezer::kUnsupportedConfigurationSuggestion));
    return Error(kVellErrorDomain, 0, std::move(info));
}

} // namespace detail

VellAudioFreezer::WorkerState::WorkerState(const AudioStreamBasicDescription& format,
                                           int bufferCount, int frameCapacity)
    : mBufferSemaphore(static_cast<unsigned>(std::max(bufferCount, 1)))
{
    if (bufferCount < 1 || frameCapacity < 1) {
        throw std::invalid_argument("the freezer's worker needs buffers with room for frames");
    }
    for (int i = 0; i < bufferCount; ++i) {
        mBuffers.push_back(std::make_shared<BRIXAudioPCMBuffer>(
            format, static_cast<std::uint32_t>(frameCapacity)));
    }
}

VellAudioFreezer::WorkerState::~WorkerState()
{
    if (mRunning.exchange(false)) {
        // Nothing may deliver completions any more: one extra count lets the worker see the
        // flag. Its last buffer's completion must not come after this object is gone, which
        // the freezer ensures by stopping its player first.
        mBufferSemaphore.release();
    }
    if (mExitFuture.valid()) {
        mExitFuture.wait();
    }
}

std::size_t VellAudioFreezer::WorkerState::bufferIndex(std::int32_t counter,
                                                       std::size_t bufferCount) noexcept
{
    // Deliberate: a counter that has wrapped negative is widened with its sign and divided
    // unsigned, so the ring does not run on evenly across the wrap.
    const auto widened = static_cast<std::uint64_t>(static_cast<std::int64_t>(counter));
    return static_cast<std::size_t>(widened % bufferCount);
}

void VellAudioFreezer::WorkerState::spawnWorkerThread(
    std::shared_ptr<BRIXAudioPlayerNode> playerNode, std::shared_ptr<BRIXEffect::Freezer> freezer)
{
    mRunning.store(true);
    std::promise<void> startPromise;
    std::future<void> startFuture = startPromise.get_future();
    std::promise<void> exitPromise;
    mExitFuture = exitPromise.get_future();
    std::thread(&WorkerState::main, this, std::move(startFuture), std::move(exitPromise),
                std::move(playerNode), std::move(freezer))
        .detach();
    startPromise.set_value();
}

void VellAudioFreezer::WorkerState::terminateWorkerThread()
{
    mRunning.store(false);
    if (mExitFuture.valid()) {
        mExitFuture.wait();
    }
}

void VellAudioFreezer::WorkerState::waitForFramesScheduled(std::uint64_t frames)
{
    std::unique_lock lock(mProgressMutex);
    mProgress.wait(lock, [&] { return mFramesScheduled.load() >= frames; });
}

void VellAudioFreezer::WorkerState::main(std::future<void> start, std::promise<void> exit,
                                         std::shared_ptr<BRIXAudioPlayerNode> playerNode,
                                         std::shared_ptr<BRIXEffect::Freezer> freezer)
{
    pthread_setname_np(pthread_self(), "vell-freezer");
    start.wait();
    detail::CountingSemaphore* semaphore = &mBufferSemaphore;
    while (mRunning.load()) {
        semaphore->acquire();
        const std::int32_t k = mBufferCounter.fetch_add(1);
        const std::shared_ptr<BRIXAudioPCMBuffer>& buffer =
            mBuffers[bufferIndex(k, mBuffers.size())];
        const std::uint32_t frames = buffer->frameCapacity();
        freezer->process(nullptr, 0, buffer->floatChannelData(), static_cast<int>(frames));
        buffer->setFrameLength(frames);
        // The handler runs where the player completes buffers: it only posts.
        if (!playerNode->scheduleBuffer(buffer, [semaphore] { semaphore->release(); })) {
            semaphore->release(); // refused: no completion will give the count back
            continue;
        }
        mFramesScheduled.fetch_add(frames);
        {
            std::lock_guard lock(mProgressMutex);
        }
        mProgress.notify_all();
    }
    // The player may be released last here, running completions that post the semaphore: let
    // go of both before signalling, so nothing of this object is touched after the signal.
    playerNode.reset();
    freezer.reset();
    exit.set_value();
}

} // namespace vell
