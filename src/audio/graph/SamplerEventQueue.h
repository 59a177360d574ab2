// A bounded lock-free queue of plain records from any number of threads to the render thread.
#pragma once

#include "rt/Realtime.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace vell {

/// Bounded multi-producer, single-consumer queue (sequence-numbered cells).
///
/// Who writes what: producers claim a cell by advancing `mTail` with a compare-exchange, write
/// its value, then publish it by storing the cell's sequence; the consumer alone advances
/// `mHead`, reads a published cell and hands it back by storing its next-lap sequence.
/// What each side may assume: a producer never waits for the consumer (a full queue refuses the
/// push); the consumer sees a value only after its producer published it, and whole.
/// Memory order: sequentially consistent throughout.
template <class T, std::size_t Capacity> class SamplerEventQueue {
    static_assert(std::is_trivially_copyable_v<T>);
    static_assert(Capacity >= 2 && (Capacity & (Capacity - 1)) == 0, "capacity: a power of two");
    VELL_STATIC_ASSERT_LOCK_FREE(std::size_t);

public:
    SamplerEventQueue() noexcept
    {
        for (std::size_t i = 0; i < Capacity; ++i) {
            mCells[i].sequence.store(i);
        }
    }

    /// Adds a value; false when the queue is full. Thread: any. Lock-free.
    VELL_RT bool push(const T& value) noexcept
    {
        std::size_t position = mTail.load();
        for (;;) {
            Cell& cell = mCells[position & (Capacity - 1)];
            const std::size_t sequence = cell.sequence.load();
            const auto difference =
                static_cast<std::ptrdiff_t>(sequence) - static_cast<std::ptrdiff_t>(position);
            if (difference == 0) {
                if (mTail.compare_exchange_weak(position, position + 1)) {
                    cell.value = value;
                    cell.sequence.store(position + 1);
                    return true;
                }
            } else if (difference < 0) {
                return false;
            } else {
                position = mTail.load();
            }
        }
    }

    /// Takes the oldest published value; false when there is none. Thread: the consumer only.
    /// Wait-free.
    VELL_RT bool pop(T& out) noexcept
    {
        Cell& cell = mCells[mHead & (Capacity - 1)];
        if (cell.sequence.load() != mHead + 1) {
            return false;
        }
        out = cell.value;
        cell.sequence.store(mHead + Capacity);
        ++mHead;
        return true;
    }

private:
    struct Cell {
        std::atomic<std::size_t> sequence{0};
        T value{};
    };
    std::array<Cell, Capacity> mCells;
    std::atomic<std::size_t> mTail{0};
    std::size_t mHead = 0;
};

} // namespace vell
