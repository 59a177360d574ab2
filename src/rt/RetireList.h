// Deferred freeing of objects that the render thread may still be using when they are replaced.
#pragma once

#include "rt/Realtime.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <utility>
#include <vector>

namespace vell {

/// Marks the render thread's cycles so another thread can tell when a cycle that might have seen
/// an old object is over.
///
/// Who writes what: only the render thread writes `mCounter`, adding one on `enter` (making it
/// odd) and one on `exit` (making it even). Any thread reads it.
/// What each side may assume: an object unpublished before `stamp` was read cannot be reached by
/// a cycle that enters afterwards (that cycle loads the new pointer); so once the counter moved
/// past an odd stamp, or the stamp was even, nothing reaches the old object any more.
/// This holds only if the render thread reloads shared pointers in every cycle (between `enter`
/// and `exit`) and keeps none across cycles. Memory order: sequentially consistent, which the
/// argument needs (the unpublish store and the counter load on one side, the counter increment
/// and the pointer load on the other, form a store-load pattern).
class RealtimeEpoch {
    VELL_STATIC_ASSERT_LOCK_FREE(std::uint64_t);

public:
    /// Starts a render cycle. Thread: render. Wait-free.
    VELL_RT void enter() noexcept { mCounter.fetch_add(1); }
    /// Ends the render cycle. Thread: render. Wait-free.
    VELL_RT void exit() noexcept { mCounter.fetch_add(1); }

    /// The counter now. Thread: any.
    std::uint64_t stamp() const noexcept { return mCounter.load(); }

    /// Whether no cycle that was running at `stamp` time is still running. Thread: any.
    bool hasPassed(std::uint64_t stampValue) const noexcept
    {
        return (stampValue & 1u) == 0 || mCounter.load() != stampValue;
    }

    /// enter() on construction, exit() on destruction. Thread: render.
    class Scope {
    public:
        explicit Scope(RealtimeEpoch& epoch) noexcept : mEpoch(epoch) { mEpoch.enter(); }
        ~Scope() { mEpoch.exit(); }
        Scope(const Scope&) = delete;
        Scope& operator=(const Scope&) = delete;

    private:
        RealtimeEpoch& mEpoch;
    };

private:
    std::atomic<std::uint64_t> mCounter{0};
};

/// Objects replaced while the render thread may hold them, kept until the render thread's cycle
/// is over and then freed on the main thread.
///
/// Who writes what: the list itself belongs to the main thread (`retire`, `collect` and the
/// destructor run there and may allocate and free); the render thread never touches it. The
/// render thread only advances the `RealtimeEpoch` the list watches.
/// What each side may assume: an object handed to `retire` after being unpublished stays alive
/// until a `collect` that runs after every render cycle that could have seen it; the destructor
/// frees everything, so destroy the list only when the render thread is stopped.
class RetireList {
public:
    explicit RetireList(const RealtimeEpoch& epoch) : mEpoch(epoch) {}
    ~RetireList() = default;
    RetireList(const RetireList&) = delete;
    RetireList& operator=(const RetireList&) = delete;

    /// Keeps object alive until the render cycles running now are over. Call after the object was
    /// unpublished. Thread: main.
    template <class T> void retire(std::unique_ptr<T> object)
    {
        if (object) {
            mEntries.push_back({mEpoch.stamp(), Holder(object.release(), &destroy<T>)});
        }
    }

    /// The same for shared ownership: the render thread never drops the last reference.
    template <class T> void retire(std::shared_ptr<T> object)
    {
        if (object) {
            retire(std::make_unique<std::shared_ptr<T>>(std::move(object)));
        }
    }

    /// Frees what no render cycle can reach any more; returns how many objects were freed.
    /// Thread: main.
    std::size_t collect()
    {
        return std::erase_if(mEntries,
                             [this](const Entry& entry) { return mEpoch.hasPassed(entry.stamp); });
    }

    /// Objects waiting. Thread: main.
    std::size_t pending() const noexcept { return mEntries.size(); }

private:
    using Holder = std::unique_ptr<void, void (*)(void*)>;
    struct Entry {
        std::uint64_t stamp;
        Holder object;
    };

    template <class T> static void destroy(void* p) { delete static_cast<T*>(p); }

    const RealtimeEpoch& mEpoch;
    std::vector<Entry> mEntries;
};

/// A pointer the main thread replaces and the render thread reads each cycle; replaced objects
/// go through a RetireList so the render thread never sees one freed.
///
/// Who writes what: only the main thread stores `mCurrent` (in `replace`); the render thread
/// loads it, inside a RealtimeEpoch scope, and must not keep it past the cycle.
/// What each side may assume: the object the render thread loaded stays alive until its cycle
/// ends; the main thread owns every object and frees the retired ones in `RetireList::collect`.
template <class T> class RetiringPointer {
    VELL_STATIC_ASSERT_LOCK_FREE(T*);

public:
    explicit RetiringPointer(RetireList& retireList, std::unique_ptr<T> initial = nullptr)
        : mRetireList(retireList), mCurrent(initial.release())
    {
    }
    /// Frees the current object; the render thread must be done with it.
    ~RetiringPointer() { delete mCurrent.load(); }
    RetiringPointer(const RetiringPointer&) = delete;
    RetiringPointer& operator=(const RetiringPointer&) = delete;

    /// Publishes next and retires the previous object. Thread: main.
    void replace(std::unique_ptr<T> next)
    {
        T* old = mCurrent.exchange(next.release());
        mRetireList.retire(std::unique_ptr<T>(old));
    }

    /// The current object, or null. Thread: render, inside a RealtimeEpoch scope; or main.
    /// Wait-free.
    VELL_RT T* load() const noexcept { return mCurrent.load(); }

private:
    RetireList& mRetireList;
    std::atomic<T*> mCurrent;
};

} // namespace vell
