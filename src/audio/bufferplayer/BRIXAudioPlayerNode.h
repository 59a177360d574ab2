// The player node: plays scheduled PCM buffers one after another into the engine's mixer, and
// runs each buffer's completion handler off the render thread once it has played or was
// dropped by a stop.
#pragma once

#include "audio/bufferplayer/BRIXAudioPCMBuffer.h"
#include "audio/bufferplayer/CompletionSignal.h"
#include "rt/Realtime.h"
#include "rt/SpscRing.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace vell {

class BRIXAudioEngine;

/// Every buffer scheduled gets exactly one completion: after its last frame was rendered, or
/// when a stop of the node or of its engine drops it. Completion handlers run on the engine's
/// completion thread (on the calling thread for a node attached to no engine), never on the
/// render thread, in the order the buffers were scheduled. A handler that throws is logged.
///
/// Hand-offs: scheduled buffers reach the render thread as slot numbers through an SPSC ring;
/// finished ones come back through a second ring to the completion worker, which releases the
/// buffer and the handler. Whoever consumes the first ring and feeds the second holds the
/// render gate: the render thread takes it with one exchange and, finding it taken (a stop is
/// flushing), plays nothing for that cycle; other threads spin for it, for at most a cycle.
/// Lock order: deliver lock, then schedule lock, then the gate. A completion handler may
/// schedule buffers or stop the node, but must not destroy it.
class BRIXAudioPlayerNode {
public:
    using CompletionHandler = std::function<void()>;
    /// Buffers queued (scheduled and not yet completed) at most.
    static constexpr std::uint32_t kMaximumScheduledBuffers = 64;

    BRIXAudioPlayerNode();
    /// Drops what is queued and runs the outstanding completion handlers on the calling thread.
    ~BRIXAudioPlayerNode();
    BRIXAudioPlayerNode(const BRIXAudioPlayerNode&) = delete;
    BRIXAudioPlayerNode& operator=(const BRIXAudioPlayerNode&) = delete;

    /// Queues buffer's first frameLength frames (the length read now) after those already
    /// queued. A mono buffer plays on every output channel; other buffers play channel by
    /// channel. False, and the handler is never called, when kMaximumScheduledBuffers are
    /// already queued or buffer is null. The buffer is not written while queued.
    /// Scheduled while the engine is stopped after running and the node was not stopped, the
    /// buffer cannot play: it completes at once.
    /// Thread: any but the render thread.
    bool scheduleBuffer(std::shared_ptr<BRIXAudioPCMBuffer> buffer,
                        CompletionHandler completionHandler = {});

    /// Starts playing what is queued, and whatever is queued later, when the engine renders.
    void play();
    /// Stops and drops everything queued; their completion handlers follow.
    /// Thread: any but the render thread.
    void stop();
    bool isPlaying() const noexcept { return mPlaying.load(); }

    /// The node's own gain, applied before the main mixer's. Thread: any.
    float volume() const noexcept { return mVolume.load(); }
    void setVolume(float volume) noexcept;

    /// Buffers scheduled whose completion handler has not yet returned. Thread: any (snapshot).
    std::uint32_t queuedBufferCount() const;
    /// Render cycles that wanted frames while playing and found the queue empty.
    std::uint64_t underrunCount() const noexcept { return mUnderruns.load(); }

    /// Adds the node's queued frames, times its volume, to channels[0..channelCount).
    /// The engine calls it for every cycle.
    /// Thread: render. Wait-free, no allocation.
    VELL_RT void renderAdding(float* const* channels, std::uint32_t channelCount,
                              std::uint32_t frameCount) noexcept;

    /// Runs the completion handlers of the buffers that finished, in order.
    /// Thread: the engine's completion worker, or any non-render thread when not attached.
    void deliverCompletions();

private:
    friend class BRIXAudioEngine;
    static constexpr std::uint32_t kNoSlot = 0xFFFFFFFFu;

    struct Slot {
        std::shared_ptr<BRIXAudioPCMBuffer> buffer;
        CompletionHandler completion;
        // What the render thread reads, copied at scheduling.
        const float* const* channels = nullptr;
        std::uint32_t channelCount = 0;
        std::uint32_t frames = 0;
    };

    // Engine hooks. Thread: main (the engine's controlling thread).
    void attach(std::shared_ptr<detail::CompletionSignal> signal);
    void detach();
    void engineDidStart();
    void engineDidStop();

    void acquireGate() noexcept;
    void releaseGate() noexcept;
    /// Moves the playing buffer and everything queued to the finished ring, then delivers.
    void flush();
    /// Gets the finished buffers to their handlers: wakes the worker, or delivers right here.
    void announceFinished();

    std::array<Slot, kMaximumScheduledBuffers> mSlots;
    mutable std::mutex mScheduleMutex; // guards mFreeSlots, slot ownership and the queue's tail
    std::vector<std::uint32_t> mFreeSlots;
    SpscRing<std::uint32_t> mScheduled{kMaximumScheduledBuffers};
    SpscRing<std::uint32_t> mFinished{kMaximumScheduledBuffers};
    std::recursive_mutex mDeliverMutex; // one deliverer at a time; handlers may stop the node

    std::atomic<bool> mGate{false};
    std::uint32_t mCurrent = kNoSlot; // the gate holder's: the buffer being played
    std::uint32_t mOffset = 0;        // and the frames of it already played

    std::atomic<bool> mPlaying{false};
    std::atomic<bool> mDiscarding{false};
    std::atomic<float> mVolume{1.0f};
    std::atomic<std::uint64_t> mUnderruns{0};

    std::shared_ptr<detail::CompletionSignal> mSignal;
    std::atomic<detail::CompletionSignal*> mRenderSignal{nullptr};

    VELL_STATIC_ASSERT_LOCK_FREE(float);
    VELL_STATIC_ASSERT_LOCK_FREE(bool);
    VELL_STATIC_ASSERT_LOCK_FREE(detail::CompletionSignal*);
};

} // namespace vell
