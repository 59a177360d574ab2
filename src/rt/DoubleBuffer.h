// Two copies of a value: the reader scans the active one in place while the writer fills the other.
#pragma once

#include "rt/Realtime.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <thread>
#include <type_traits>

namespace vell {

/// A double buffer with an in-use flag, for a large value the render thread reads in place
/// (no copy per cycle) and a controlling thread replaces now and then.
///
/// Who writes what:
/// - `mState` packs the active slot index (bit 0), the reader's in-use flag (bit 1) and a count
///   of the reader's releases (bits 2 and up). Only the writer flips the index; only the reader
///   sets and clears the flag (clearing adds one to the count in the same atomic add).
/// - The writer alone writes the inactive slot; the reader reads only the slot it acquired.
/// What each side may assume:
/// - The reader never waits: `acquire` and `release` are one atomic operation each, and the
///   slot acquired does not change until `release`.
/// - The writer may wait, briefly, in `beginWrite`: when the reader acquired the now-inactive
///   slot just before the last `publish`, the writer spins (yielding) until that read is
///   released. So the writer must never be the render thread.
/// - After `publish` the inactive slot holds an older value; `write` assigns the whole value.
/// Memory order: sequentially consistent read-modify-writes; the writer's stores to a slot come
/// before the flip that makes it active, and the reader's loads come before the release the
/// writer waits for.
template <class T> class DoubleBuffer {
    VELL_STATIC_ASSERT_LOCK_FREE(std::uint64_t);

public:
    DoubleBuffer() = default;
    explicit DoubleBuffer(const T& initial) { mSlots.fill(initial); }

    DoubleBuffer(const DoubleBuffer&) = delete;
    DoubleBuffer& operator=(const DoubleBuffer&) = delete;

    /// The inactive slot, once the reader no longer uses it. Thread: writer (never render).
    T& beginWrite() noexcept
    {
        if (mAwaitRelease) {
            for (;;) {
                const std::uint64_t s = mState.load();
                if (!(s & kInUse) || (s >> kCountShift) != mReleasesAtFlip) {
                    break;
                }
                std::this_thread::yield();
            }
            mAwaitRelease = false;
        }
        return mSlots[mActive ^ 1u];
    }

    /// Makes the slot from `beginWrite` the active one. Thread: writer. Wait-free.
    void publish() noexcept
    {
        const std::uint64_t s = mState.fetch_xor(1);
        mActive ^= 1u;
        // The reader may still hold the slot that just became inactive.
        mAwaitRelease = (s & kInUse) != 0;
        mReleasesAtFlip = s >> kCountShift;
    }

    /// Replaces the whole value. Thread: writer (never render).
    void write(const T& value)
    {
        beginWrite() = value;
        publish();
    }

    /// Marks the active slot in use and returns it; it stays valid until `release`. No nesting.
    /// Thread: reader. Wait-free, no allocation.
    VELL_RT const T& acquire() noexcept
    {
        const std::uint64_t s = mState.fetch_or(kInUse);
        return mSlots[s & 1u];
    }

    /// Ends the read begun by `acquire`. Thread: reader. Wait-free.
    VELL_RT void release() noexcept
    {
        // The flag is set, so adding it clears it and carries one into the release count.
        mState.fetch_add(kInUse);
    }

    /// Acquires on construction and releases on destruction.
    class ReadScope {
    public:
        explicit ReadScope(DoubleBuffer& buffer) noexcept
            : mBuffer(buffer), mValue(buffer.acquire())
        {
        }
        ~ReadScope() { mBuffer.release(); }
        ReadScope(const ReadScope&) = delete;
        ReadScope& operator=(const ReadScope&) = delete;
        const T& operator*() const noexcept { return mValue; }
        const T* operator->() const noexcept { return &mValue; }

    private:
        DoubleBuffer& mBuffer;
        const T& mValue;
    };

private:
    static constexpr std::uint64_t kInUse = 2;
    static constexpr unsigned kCountShift = 2;

    std::array<T, 2> mSlots{};
    std::atomic<std::uint64_t> mState{0};
    // Writer only.
    std::uint32_t mActive = 0;
    bool mAwaitRelease = false;
    std::uint64_t mReleasesAtFlip = 0;
};

} // namespace vell
