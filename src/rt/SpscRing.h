// Wait-free single-producer single-consumer ring of plain values.
#pragma once

#include "rt/Realtime.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <type_traits>

namespace vell {

/// A bounded FIFO between exactly one producer thread and one consumer thread.
///
/// Who writes what:
/// - `mTail` (values pushed so far) is written only by the producer; the consumer reads it.
/// - `mHead` (values popped so far) is written only by the consumer; the producer reads it.
/// - A slot is written by the producer while it lies outside [head, tail), and read by the
///   consumer while it lies inside; the two never touch the same slot at the same time.
/// What each side may assume:
/// - The producer sees at least the free space there is (it may see less while a pop is in
///   flight); the consumer sees at least the values there are (it may see fewer while a push is
///   in flight). Neither ever waits for the other.
/// - A value popped is exactly the value pushed: the release store of `mTail` after writing a
///   slot pairs with the consumer's acquire load, and the release store of `mHead` after reading
///   a slot pairs with the producer's acquire load, so a slot is never reused while being read.
///   Acquire/release is enough because each counter has one writer and orders one slot range.
/// - The counters are 64-bit and only grow; they cannot wrap in the life of a process.
///
/// Storage is allocated once by the constructor (on a non-real-time thread); push and pop never
/// allocate, lock or make system calls. T must be trivially copyable so copying cannot throw or
/// allocate.
template <class T> class SpscRing {
    static_assert(std::is_trivially_copyable_v<T>, "SpscRing holds plain values only");
    VELL_STATIC_ASSERT_LOCK_FREE(std::uint64_t);

public:
    /// Holds at least minimumCapacity values (rounded up to a power of two, at least 1).
    explicit SpscRing(std::size_t minimumCapacity)
        : mCapacity(std::bit_ceil(std::max<std::size_t>(minimumCapacity, 1))), mMask(mCapacity - 1),
          mSlots(std::make_unique<T[]>(mCapacity))
    {
    }

    SpscRing(const SpscRing&) = delete;
    SpscRing& operator=(const SpscRing&) = delete;

    std::size_t capacity() const noexcept { return mCapacity; }

    /// Appends one value; false when the ring is full (nothing is written).
    /// Thread: producer. Wait-free, no allocation.
    VELL_RT bool tryPush(const T& value) noexcept
    {
        return push(std::span<const T>(&value, 1)) == 1;
    }

    /// Removes the oldest value into out; false when the ring is empty (out is untouched).
    /// Thread: consumer. Wait-free, no allocation.
    VELL_RT bool tryPop(T& out) noexcept { return pop(std::span<T>(&out, 1)) == 1; }

    /// Appends as many of values as fit, in order; returns how many.
    /// Thread: producer. Wait-free, no allocation.
    VELL_RT std::size_t push(std::span<const T> values) noexcept
    {
        const std::uint64_t tail = mTail.load(std::memory_order_relaxed); // own counter
        const std::uint64_t head = mHead.load(std::memory_order_acquire);
        const std::size_t space = mCapacity - std::size_t(tail - head);
        const std::size_t n = std::min(space, values.size());
        for (std::size_t i = 0; i < n; ++i) {
            mSlots[std::size_t(tail + i) & mMask] = values[i];
        }
        mTail.store(tail + n, std::memory_order_release);
        return n;
    }

    /// Removes up to out.size() of the oldest values into out, in order; returns how many.
    /// Thread: consumer. Wait-free, no allocation.
    VELL_RT std::size_t pop(std::span<T> out) noexcept
    {
        const std::uint64_t head = mHead.load(std::memory_order_relaxed); // own counter
        const std::uint64_t tail = mTail.load(std::memory_order_acquire);
        const std::size_t n = std::min(std::size_t(tail - head), out.size());
        for (std::size_t i = 0; i < n; ++i) {
            out[i] = mSlots[std::size_t(head + i) & mMask];
        }
        mHead.store(head + n, std::memory_order_release);
        return n;
    }

    /// Values waiting. Exact on either end's own thread between its calls; a snapshot elsewhere.
    /// Thread: any. Wait-free.
    VELL_RT std::size_t size() const noexcept
    {
        const std::uint64_t head = mHead.load(std::memory_order_acquire);
        const std::uint64_t tail = mTail.load(std::memory_order_acquire);
        return tail >= head ? std::size_t(tail - head) : 0;
    }

    VELL_RT bool empty() const noexcept { return size() == 0; }

private:
    const std::size_t mCapacity;
    const std::size_t mMask;
    std::unique_ptr<T[]> mSlots;
    // Each counter on its own cache line so the two ends do not falsely share.
    alignas(64) std::atomic<std::uint64_t> mHead{0};
    alignas(64) std::atomic<std::uint64_t> mTail{0};
};

} // namespace vell
