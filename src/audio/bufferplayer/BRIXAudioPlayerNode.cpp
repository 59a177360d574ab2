// The player node: a slot table of scheduled buffers, a ring to the render thread and a ring
// back, and the render gate that lets a stop take the queue from the render thread.
#include "audio/bufferplayer/BRIXAudioPlayerNode.h"

#include "support/Format.h"
#include "support/Log.h"

#include <algorithm>
#include <cmath>
#include <exception>
#include <thread>

namespace vell {

BRIXAudioPlayerNode::BRIXAudioPlayerNode()
{
    mFreeSlots.reserve(kMaximumScheduledBuffers);
    for (std::uint32_t i = kMaximumScheduledBuffers; i-- > 0;) {
        mFreeSlots.push_back(i);
    }
}

BRIXAudioPlayerNode::~BRIXAudioPlayerNode()
{
    mPlaying.store(false);
    mRenderSignal.store(nullptr);
    mSignal.reset();
    flush(); // with no engine left, the handlers run here
}

bool BRIXAudioPlayerNode::scheduleBuffer(std::shared_ptr<BRIXAudioPCMBuffer> buffer,
                                         CompletionHandler completionHandler)
{
    if (!buffer) {
        return false;
    }
    std::unique_lock lock(mScheduleMutex);
    if (mFreeSlots.empty()) {
        return false;
    }
    const std::uint32_t index = mFreeSlots.back();
    mFreeSlots.pop_back();
    Slot& slot = mSlots[index];
    slot.channels = buffer->floatChannelData();
    slot.channelCount = buffer->channelCount();
    slot.frames = buffer->frameLength();
    slot.buffer = std::move(buffer);
    slot.completion = std::move(completionHandler);

    if (mDiscarding.load()) {
        // The engine stopped under a playing node: nothing will play this, so it is done.
        acquireGate();
        mFinished.tryPush(index); // cannot fail: the ring holds every slot
        releaseGate();
        lock.unlock();
        announceFinished();
        return true;
    }
    mScheduled.tryPush(index); // cannot fail: the ring holds every slot
    return true;
}

void BRIXAudioPlayerNode::play()
{
    mPlaying.store(true);
}

void BRIXAudioPlayerNode::stop()
{
    mPlaying.store(false);
    mDiscarding.store(false);
    flush();
}

void BRIXAudioPlayerNode::setVolume(float volume) noexcept
{
    mVolume.store(std::isfinite(volume) ? std::max(volume, 0.0f) : 0.0f);
}

std::uint32_t BRIXAudioPlayerNode::queuedBufferCount() const
{
    std::lock_guard lock(mScheduleMutex);
    return kMaximumScheduledBuffers - static_cast<std::uint32_t>(mFreeSlots.size());
}

void BRIXAudioPlayerNode::acquireGate() noexcept
{
    // The render thread holds the gate for one cycle at most.
    while (mGate.exchange(true, std::memory_order_acquire)) {
        std::this_thread::yield();
    }
}

void BRIXAudioPlayerNode::releaseGate() noexcept
{
    mGate.store(false, std::memory_order_release);
}

void BRIXAudioPlayerNode::flush()
{
    // Holding the schedule lock, no buffer can slip into the queue behind the flush after
    // its scheduler saw the node as playable.
    std::unique_lock lock(mScheduleMutex);
    acquireGate();
    if (mCurrent != kNoSlot) {
        mFinished.tryPush(mCurrent);
        mCurrent = kNoSlot;
        mOffset = 0;
    }
    std::uint32_t index = 0;
    while (mScheduled.tryPop(index)) {
        mFinished.tryPush(index);
    }
    releaseGate();
    lock.unlock();
    announceFinished();
}

void BRIXAudioPlayerNode::announceFinished()
{
    if (mFinished.empty()) {
        return;
    }
    if (detail::CompletionSignal* signal = mRenderSignal.load()) {
        signal->post();
    } else {
        deliverCompletions();
    }
}

void BRIXAudioPlayerNode::deliverCompletions()
{
    std::lock_guard deliver(mDeliverMutex);
    std::uint32_t index = 0;
    while (mFinished.tryPop(index)) {
        CompletionHandler completion;
        std::shared_ptr<BRIXAudioPCMBuffer> buffer;
        {
            std::lock_guard lock(mScheduleMutex);
            completion = std::move(mSlots[index].completion);
            buffer = std::move(mSlots[index].buffer);
            mSlots[index] = Slot();
        }
        buffer.reset();
        if (completion) {
            try {
                completion();
            } catch (const std::exception& exception) {
                VELL_LOG_ERROR(vell::format("Caught exception: %s", exception.what()));
            } catch (...) {
                VELL_LOG_ERROR("Caught exception in a buffer completion handler");
            }
        }
        // Counted as queued until its handler has run.
        std::lock_guard lock(mScheduleMutex);
        mFreeSlots.push_back(index);
    }
}

void BRIXAudioPlayerNode::attach(std::shared_ptr<detail::CompletionSignal> signal)
{
    mSignal = std::move(signal);
    mRenderSignal.store(mSignal.get());
}

void BRIXAudioPlayerNode::detach()
{
    mRenderSignal.store(nullptr);
    mSignal.reset();
    deliverCompletions();
}

void BRIXAudioPlayerNode::engineDidStart()
{
    mDiscarding.store(false);
}

void BRIXAudioPlayerNode::engineDidStop()
{
    mDiscarding.store(true);
    flush();
}

VELL_RT void BRIXAudioPlayerNode::renderAdding(float* const* channels, std::uint32_t channelCount,
                                               std::uint32_t frameCount) noexcept
{
    if (!mPlaying.load()) {
        return;
    }
    if (mGate.exchange(true, std::memory_order_acquire)) {
        return; // a stop is taking the queue: play nothing this cycle
    }
    const float gain = mVolume.load();
    bool finished = false;
    std::uint32_t done = 0;
    while (done < frameCount) {
        if (mCurrent == kNoSlot) {
            if (!mScheduled.tryPop(mCurrent)) {
                mCurrent = kNoSlot;
                mUnderruns.fetch_add(1);
                break;
            }
            mOffset = 0;
        }
        const Slot& slot = mSlots[mCurrent];
        const std::uint32_t n = std::min(slot.frames - mOffset, frameCount - done);
        if (slot.channelCount > 0) {
            for (std::uint32_t c = 0; c < channelCount; ++c) {
                const std::uint32_t source = slot.channelCount == 1 ? 0 : c;
                if (source >= slot.channelCount) {
                    continue;
                }
                const float* in = slot.channels[source] + mOffset;
                float* out = channels[c] + done;
                for (std::uint32_t i = 0; i < n; ++i) {
                    out[i] += gain * in[i];
                }
            }
        }
        mOffset += n;
        done += n;
        if (mOffset >= slot.frames) {
            mFinished.tryPush(mCurrent); // cannot fail: the ring holds every slot
            mCurrent = kNoSlot;
            finished = true;
        }
    }
    releaseGate();
    if (finished) {
        if (detail::CompletionSignal* signal = mRenderSignal.load()) {
            signal->post();
        }
    }
}

} // namespace vell
