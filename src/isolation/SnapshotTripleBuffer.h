// Triple buffer that hands the newest snapshot from the render thread to readers without blocking
// the render thread.
#pragma once

#include "rt/Realtime.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

namespace vell::detail {

/// Three slots of T. The render thread owns the back slot and writes it freely; publish() swaps it
/// with the middle slot and marks the middle as fresh. A reader takes the middle slot into its
/// front slot when it is fresh and reads the front slot at leisure. The render side is wait-free
/// (one atomic exchange); readers serialise among themselves with a mutex the render thread never
/// touches, so several reader threads may call read().
///
/// Memory order: the exchange is sequentially consistent, so everything the writer put into a
/// slot before publish() is visible to the reader that takes the slot.
template <class T> class SnapshotTripleBuffer {
public:
    SnapshotTripleBuffer() : mSlots(std::make_unique<T[]>(3)) {}

    /// The slot the render thread may write. Thread: render. Wait-free.
    VELL_RT T& back() noexcept { return mSlots[mBack]; }

    /// Makes the back slot the newest snapshot. Thread: render. Wait-free, no allocation.
    VELL_RT void publish() noexcept
    {
        const std::uint32_t old = mMiddle.exchange(mBack | kFresh);
        mBack = old & kIndexMask;
    }

    /// Calls fn(const T&) with the newest published snapshot (or the last one taken when nothing
    /// new was published; a default T before the first publish). Thread: any but render.
    template <class Fn> void read(Fn&& fn)
    {
        std::lock_guard lock(mReaderMutex);
        if (mMiddle.load() & kFresh) {
            const std::uint32_t old = mMiddle.exchange(mFront);
            mFront = old & kIndexMask;
        }
        fn(static_cast<const T&>(mSlots[mFront]));
    }

private:
    static constexpr std::uint32_t kFresh = 4;
    static constexpr std::uint32_t kIndexMask = 3;
    VELL_STATIC_ASSERT_LOCK_FREE(std::uint32_t);

    std::unique_ptr<T[]> mSlots;
    std::uint32_t mBack = 0;                  // render thread only
    std::atomic<std::uint32_t> mMiddle{1};   // index, plus kFresh when not yet taken
    std::uint32_t mFront = 2;                 // readers only, under mReaderMutex
    std::mutex mReaderMutex;
};

} // namespace vell::detail
