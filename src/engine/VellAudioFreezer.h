// The freezer's worker (a ring of buffers fed to the player node, paced by a counting
// semaphore) and the output-configuration check.
#pragma once

#include "VellAudio/AudioTypes.h"
#include "VellAudio/Error.h"
#include "VellAudio/VellAudioFreezer.h"
#include "rt/Realtime.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <optional>
#include <semaphore.h>
#include <vector>

namespace vell {

namespace detail {

/// A counting semaphore over a POSIX semaphore, whose post takes no lock.
class CountingSemaphore {
public:
    explicit CountingSemaphore(unsigned initialCount);
    ~CountingSemaphore();
    CountingSemaphore(const CountingSemaphore&) = delete;
    CountingSemaphore& operator=(const CountingSemaphore&) = delete;

    /// Thread: any. Wait-free, no allocation.
    VELL_RT void release() noexcept;
    /// Waits without time-out.
    void acquire() noexcept;

private:
    sem_t mSemaphore;
};

/// The transport type of an aggregate device.
inline constexpr OSType kAudioDeviceTransportTypeAggregate = fourCharCode("grup");

/// A version of the operating system, for checks that concern one release of one system.
struct OperatingSystemVersion {
    int major = 0;
    int minor = 0;
};

/// The version the output-configuration check looks at: none on this system, whose releases
/// are not affected.
std::optional<OperatingSystemVersion> freezerAffectedSystemVersion();

/// Whether the freezer can play on the default output: only on system 10.13 (at least 10.13,
/// below 10.14) is the default device's transport type read, and an aggregate device fails
/// with the unsupported-configuration error. Elsewhere the check passes without a query.
bool checkFreezerOutputConfiguration(std::optional<OperatingSystemVersion> version,
                                     const std::function<OSType()>& defaultDeviceTransportType,
                                     Error* outError);

/// "BRIXVellErrorDomain", code 0, with the unsupported-configuration description, failure
/// reason and recovery suggestion.
Error makeUnsupportedConfigurationError();

} // namespace detail

/// Keeps a player node supplied with frozen sound from a worker thread.
///
/// Hand-offs: the run flag and the buffer counter are atomics. The semaphore starts at the
/// buffer count; the worker takes one count per buffer it synthesises and schedules, and the
/// buffer's completion handler (run by the player off the render thread, doing nothing but
/// posting) gives it back. Completions come in scheduling order, so a buffer is rewritten only
/// after it has played or been dropped. The counter is never reset: the ring goes on where it
/// stopped at the next spawn.
///
/// Thread: one controlling thread, except where noted. The worker must be terminated before
/// destruction (the destructor ends a running one, which needs no completions then).
class VellAudioFreezer::WorkerState {
public:
    WorkerState(const AudioStreamBasicDescription& format, int bufferCount, int frameCapacity);
    ~WorkerState();
    WorkerState(const WorkerState&) = delete;
    WorkerState& operator=(const WorkerState&) = delete;

    /// Sets the run flag and starts a detached worker that synthesises into the buffers with
    /// freezer and schedules them on playerNode.
    void spawnWorkerThread(std::shared_ptr<BRIXAudioPlayerNode> playerNode,
                           std::shared_ptr<BRIXEffect::Freezer> freezer);
    /// Clears the run flag and waits until the worker has left. It leaves at its next turn, so
    /// the player must deliver the completions of what it still holds (stop it, or its engine).
    void terminateWorkerThread();

    /// Thread: any.
    bool isRunning() const noexcept { return mRunning.load(); }
    /// Buffers taken by workers so far (wraps as a 32-bit signed count). Thread: any.
    std::int32_t bufferCounter() const noexcept { return mBufferCounter.load(); }
    /// The buffer a counter value picks: the count widened with its sign, then divided unsigned.
    static std::size_t bufferIndex(std::int32_t counter, std::size_t bufferCount) noexcept;
    const std::vector<std::shared_ptr<BRIXAudioPCMBuffer>>& buffers() const noexcept
    {
        return mBuffers;
    }

    /// Frames scheduled on players by every worker so far. Thread: any.
    std::uint64_t framesScheduled() const noexcept { return mFramesScheduled.load(); }
    /// Waits until framesScheduled() reaches frames. Thread: any but the worker.
    void waitForFramesScheduled(std::uint64_t frames);

private:
    void main(std::future<void> start, std::promise<void> exit,
              std::shared_ptr<BRIXAudioPlayerNode> playerNode,
              std::shared_ptr<BRIXEffect::Freezer> freezer);

    std::atomic<bool> mRunning{false};
    detail::CountingSemaphore mBufferSemaphore;
    std::future<void> mExitFuture;
    std::atomic<std::int32_t> mBufferCounter{0};
    std::vector<std::shared_ptr<BRIXAudioPCMBuffer>> mBuffers;

    std::atomic<std::uint64_t> mFramesScheduled{0};
    std::mutex mProgressMutex; // pairs with mProgress for waitForFramesScheduled
    std::condition_variable mProgress;

    VELL_STATIC_ASSERT_LOCK_FREE(bool);
    VELL_STATIC_ASSERT_LOCK_FREE(std::int32_t);
    VELL_STATIC_ASSERT_LOCK_FREE(std::uint64_t);
};

} // namespace vell
