// Marks for the real-time boundary. `grep VELL_RT` lists every function the render thread may call.
#pragma once

#include <atomic>

/// Marks a function the render thread may call. Such functions are noexcept and never
/// allocate, lock, wait, log or make system calls.
#define VELL_RT

/// Asserts at compile time that atomic<T> needs no lock.
#define VELL_STATIC_ASSERT_LOCK_FREE(T)                                                            \
    static_assert(std::atomic<T>::is_always_lock_free, #T " atomics must be lock-free")
