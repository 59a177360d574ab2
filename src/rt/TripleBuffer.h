// Wait-free hand-off of the newest snapshot of a value from one writer thread to one reader thread.
#pragma once

#include "rt/Realtime.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <type_traits>

namespace vell {

/// Three slots of T: the writer's back slot, a shared middle slot and the reader's front slot.
///
/// Who writes what:
/// - The writer alone writes its back slot (through `write` or `back` + `publish`). `publish`
///   swaps back and middle in one atomic exchange and marks the middle fresh.
/// - The reader alone reads its front slot. `read` swaps front and middle in one atomic exchange
///   when the middle is fresh, and otherwise keeps the front it has.
/// - `mMiddle` (slot index plus the fresh bit) is the only word both touch, always by exchange.
/// What each side may assume:
/// - The reader always sees a whole snapshot, never a half-written one, and after `read` it sees
///   the newest snapshot published before that call (or a newer one). It may skip snapshots.
/// - Neither side ever waits: each call is one exchange.
/// - The back slot holds an older snapshot after `publish`; a writer that updates in place must
///   first bring it up to date, which `write` does by assigning the whole value.
/// - Slots are constructed up front; with a T that does not allocate on copy (a plain record),
///   `write` and `read` never allocate.
/// Memory order: sequentially consistent exchanges, so everything written to a slot before
/// `publish` is visible to the reader that takes the slot.
template <class T> class TripleBuffer {
    VELL_STATIC_ASSERT_LOCK_FREE(std::uint32_t);

public:
    TripleBuffer() = default;
    explicit TripleBuffer(const T& initial) { mSlots.fill(initial); }

    TripleBuffer(const TripleBuffer&) = delete;
    TripleBuffer& operator=(const TripleBuffer&) = delete;

    /// Publishes a whole new snapshot. Thread: writer. Wait-free.
    VELL_RT void write(const T& value) noexcept(std::is_nothrow_copy_assignable_v<T>)
    {
        mSlots[mBack] = value;
        publish();
    }

    /// The writer's slot, for filling in place before `publish`. Thread: writer.
    VELL_RT T& back() noexcept { return mSlots[mBack]; }

    /// Makes the back slot the newest snapshot. Thread: writer. Wait-free.
    VELL_RT void publish() noexcept
    {
        const std::uint32_t old = mMiddle.exchange(mBack | kFresh);
        mBack = old & kIndexMask;
    }

    /// The newest snapshot (the initial value before the first publish). The reference stays
    /// valid and unchanged until this thread's next `read`. Thread: reader. Wait-free.
    VELL_RT const T& read() noexcept
    {
        if (mMiddle.load() & kFresh) {
            const std::uint32_t old = mMiddle.exchange(mFront);
            mFront = old & kIndexMask;
        }
        return mSlots[mFront];
    }

    /// Whether a snapshot was published since the reader's last `read`. Thread: reader.
    VELL_RT bool hasNewSnapshot() const noexcept { return (mMiddle.load() & kFresh) != 0; }

private:
    static constexpr std::uint32_t kIndexMask = 3;
    static constexpr std::uint32_t kFresh = 4;

    std::array<T, 3> mSlots{};
    std::uint32_t mBack = 0;  // writer only
    std::uint32_t mFront = 2; // reader only
    std::atomic<std::uint32_t> mMiddle{1};
};

} // namespace vell
