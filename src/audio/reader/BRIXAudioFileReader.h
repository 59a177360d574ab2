// Prefetching reader of a decoded audio file: a thread keeps blocks of the file ready ahead of the
// reading position; the render thread takes frames from them, looping and in reverse.
#pragma once

#include "VellAudio/AudioTypes.h"
#include "VellAudio/BRIXExtendedAudioFile.h"
#include "VellAudio/Types.h"
#include "audio/reader/BRIXAudioBufferQueue.h"
#include "rt/Realtime.h"
#include "rt/TripleBuffer.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace vell {

/// Reads one file for the render thread.
///
/// The file is cut into blocks of framesPerBuffer frames at multiples of framesPerBuffer. A
/// prefetch thread keeps the next bufferCount blocks that reading will visit (following the
/// direction and the loop) in bufferCount buffers; the render thread copies frames out of them.
/// Reading wraps from the loop's last frame straight to its first (reading in reverse, from its
/// first to its last), so the render thread never receives a frame outside the loop while
/// looping, and the reading frame jumps at the wrap.
///
/// Threads and who writes what:
/// - Main thread (every operation not marked otherwise; calls are serialised by a mutex, so
///   an export thread may call them too): writes the control record (seek, direction, loop,
///   file) under the mutex and publishes a copy to the render thread through a triple buffer.
/// - Prefetch thread (between `start` and `stop`): reads the control record under the mutex
///   and the render thread's published position, fills buffers and publishes each one through
///   the buffer's state word (a fill version, a ready bit and a pinned bit).
/// - Render thread (the one reading thread): takes the newest control record at the start of
///   each real-time call, owns the reading position, pins the buffer it copies from (one
///   compare-and-swap) and publishes its position for the prefetch thread.
/// What each side may assume:
/// - The render thread never waits: a buffer that is not ready means fewer frames, never stale
///   ones. Blocks are identified by file and block number, and a buffer's fill version changes
///   whenever it is refilled, so data is only used while it still belongs to the block asked
///   for. The prefetch thread never refills a pinned buffer.
/// - A seek, loop change or direction change takes effect at the start of the next real-time
///   call: frames from before it are never handed out after it. While looping, a reading
///   position outside the loop (after a seek or a loop change) moves to the loop's first frame
///   (its last frame when reading in reverse).
/// - `start`, and each seek or loop change while running, return once the block at the new
///   reading position is ready (or after a second at most), so the next cycle is not starved.
class BRIXAudioFileReader final : public BRIXAudioBufferQueue {
    VELL_STATIC_ASSERT_LOCK_FREE(std::uint64_t);
    VELL_STATIC_ASSERT_LOCK_FREE(Frame);

public:
    /// A span of frames given by its first frame and its length.
    struct FrameRange {
        Frame location = 0;
        Frame length = 0;
        friend bool operator==(const FrameRange&, const FrameRange&) = default;
    };

    /// A reader with bufferCount buffers of framesPerBuffer frames for the channels of format
    /// (non-interleaved float). Null for a count or size of 0, or no channels or more than
    /// AudioBufferList::kMaxBuffers. Thread: main (allocates).
    static std::unique_ptr<BRIXAudioFileReader> create(std::uint32_t bufferCount,
                                                       std::uint32_t framesPerBuffer,
                                                       const AudioStreamBasicDescription& format);
    /// Stops the prefetch thread. The render thread must be done with the reader.
    ~BRIXAudioFileReader() override;

    std::uint32_t bufferCount() const noexcept { return mBufferCount; }
    std::uint32_t framesPerBuffer() const noexcept { return mFramesPerBuffer; }
    const AudioStreamBasicDescription& streamDescription() const noexcept { return mFormat; }

    /// The file read. Its channels map onto the stream's: channel i reads file channel i, or the
    /// file's last channel when it has fewer.
    std::shared_ptr<BRIXExtendedAudioFile> audioFile() const;
    /// Replaces the file and moves reading to its frame 0 (the prefetch thread restarts if it
    /// was running).
    void setAudioFile(std::shared_ptr<BRIXExtendedAudioFile> file);

    /// Moves reading to frame (clamped to [0, frameCount]; frameCount is the end when reading
    /// forward, the last frame when reading in reverse).
    void setCurrentFrame(Frame frame);

    /// Starts the prefetch thread and waits until the block at the reading position is ready.
    /// False if the thread could not be started.
    bool start();
    /// Stops the prefetch thread. Buffers keep what they hold.
    void stop();
    /// Whether the prefetch thread runs. Thread: any.
    bool running() const noexcept { return mRunning.load(); }

    /// Reading backwards hands out frames in descending order, from the reading position.
    void setReverse(bool reverse);
    bool isReverse() const;

    /// Loops over [location, location + length) (cut to the file). An empty range reads as no
    /// loop and `isLooping` answers false.
    void enableLoopingInRange(Frame location, Frame length);
    void enableLoopingInRange(FrameRange range)
    {
        enableLoopingInRange(range.location, range.length);
    }
    void disableLooping();
    bool isLooping() const;
    /// The range last given to `enableLoopingInRange`, as given.
    FrameRange loopRange() const;

    /// For rendering faster than real time on a thread that may block (an export): a copy that
    /// finds its block not ready waits for the prefetch thread instead of returning fewer
    /// frames. Never set it while a real-time thread reads.
    void setWaitsForData(bool waits);
    bool waitsForData() const noexcept { return mWaitsForData.load(); }

    /// Copies that returned fewer frames than asked before the end of the stream. Thread: any.
    std::uint64_t underrunCount() const noexcept { return mUnderruns.load(); }

    // BRIXAudioBufferQueue. Thread: the reading (render) thread. Wait-free, no allocation.
    VELL_RT Frame readingFrame() noexcept override;
    VELL_RT std::uint32_t copyFrames(float* const* channels, std::uint32_t channelCount,
                                     std::uint32_t frames) noexcept override;
    VELL_RT bool reachedEndOfStream() noexcept override;
    VELL_RT Frame contiguousFrames() noexcept override;

private:
    /// What the main thread decided; copied whole to the render thread.
    struct Control {
        std::uint64_t version = 0;    // bumped by every change
        std::uint64_t seekSerial = 0; // bumped by every seek (and file change)
        Frame seekFrame = 0;
        Frame frameCount = 0;
        std::uint32_t fileEpoch = 0; // bumped by every file change
        bool reverse = false;
        bool looping = false; // the loop cut to the file is not empty
        Frame loopStart = 0;
        Frame loopEnd = 0; // one past the loop's last frame
    };

    /// One buffer. `state` packs (fill version << 2) | kReady | kPinned.
    struct Slot {
        std::atomic<std::uint64_t> state{0};
        std::atomic<Frame> block{-1};
        std::atomic<std::uint32_t> fileEpoch{0};
        float* data = nullptr; // channels x framesPerBuffer, channel after channel
    };

    static constexpr std::uint64_t kPinned = 1;
    static constexpr std::uint64_t kReady = 2;

    BRIXAudioFileReader(std::uint32_t bufferCount, std::uint32_t framesPerBuffer,
                        const AudioStreamBasicDescription& format);

    static Frame normalizedPosition(Frame position, const Control& control) noexcept;
    static bool isAtEnd(Frame position, const Control& control) noexcept;

    // Main thread, with mMutex held (start and stop also with mLifecycleMutex).
    void updateLoopLocked();
    void publishControlLocked();
    void waitUntilServedLocked(std::unique_lock<std::mutex>& lock, std::uint64_t version);
    bool startLocked(std::unique_lock<std::mutex>& lock);
    void stopLocked(std::unique_lock<std::mutex>& lock);

    // Prefetch thread.
    void prefetchLoop();
    void planBlocks(Frame position, const Control& control, std::vector<Frame>& outBlocks) const;
    bool isResident(Frame block, std::uint32_t fileEpoch) const noexcept;
    bool fillBlock(Frame block, const Control& control, const std::vector<Frame>& plan,
                   const BRIXExtendedAudioFile* file);

    // Render thread.
    VELL_RT void adoptControl() noexcept;
    VELL_RT int pinBlock(Frame block) noexcept;
    VELL_RT void unpin(int slot) noexcept;
    VELL_RT void publishPosition() noexcept;
    // Only in the waiting (non-real-time) mode.
    void wakePrefetch();
    bool waitForBlock(Frame block);

    const std::uint32_t mBufferCount;
    const std::uint32_t mFramesPerBuffer;
    const std::uint32_t mChannels;
    const AudioStreamBasicDescription mFormat;
    const std::chrono::microseconds mPollInterval;
    std::vector<float> mStorage;
    std::unique_ptr<Slot[]> mSlots;

    // Main side, guarded by mMutex. mLifecycleMutex keeps start, stop and file changes apart
    // (stop joins the thread without holding mMutex).
    std::mutex mLifecycleMutex;
    mutable std::mutex mMutex;
    std::condition_variable mPrefetchWake; // the prefetch thread waits here
    std::condition_variable mProgress;     // waiters for a filled block or a served version
    Control mControl;
    std::shared_ptr<BRIXExtendedAudioFile> mFile;
    FrameRange _loopRange;
    bool mLoopEnabled = false;
    bool mWakeRequested = false;
    bool mStopRequested = false;
    std::uint64_t mServedVersion = 0;
    std::thread mThread;
    std::atomic<bool> mRunning{false};
    std::atomic<bool> mWaitsForData{false};

    // Main to render.
    TripleBuffer<Control> mControlBuffer;

    // Render side: owned by the reading thread.
    Control mAdopted;
    Frame mPosition = 0;
    int mPinnedSlot = -1;
    std::uint64_t mPinnedState = 0;

    // Render to prefetch and to anyone watching.
    std::atomic<Frame> mPublishedPosition{0};
    std::atomic<std::uint64_t> mPublishedSeekSerial{0};
    std::atomic<std::uint64_t> mUnderruns{0};
};

} // namespace vell
