// Replaces global allocation and pthread lock entry points so tests can count what a render
// thread does. Counting is per thread (a thread-local depth); totals are global atomics.
// Under RealtimeSanitizer a section is also the sanitizer's real-time context, and the C-level
// functions are left to the sanitizer's interceptors: a definition here would replace them.
#include "RealtimeGuard.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <dlfcn.h>
#include <new>
#include <pthread.h>
#include <semaphore.h>

#if defined(__has_feature)
#if __has_feature(realtime_sanitizer)
#define VELL_RTSAN 1
#endif
#endif

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || defined(VELL_RTSAN)
#define VELL_GUARD_REPLACES_MALLOC 0
#else
#define VELL_GUARD_REPLACES_MALLOC 1
#endif
#if defined(__SANITIZE_THREAD__) || defined(VELL_RTSAN)
#define VELL_GUARD_REPLACES_LOCKS 0
#else
#define VELL_GUARD_REPLACES_LOCKS 1
#endif

#if defined(VELL_RTSAN)
// The runtime's entry points (Clang 19 installs no header for them).
extern "C" void __rtsan_realtime_enter();
extern "C" void __rtsan_realtime_exit();
#endif

namespace vell::test {
namespace {

constinit thread_local int tSectionDepth = 0;
std::atomic<std::size_t> gAllocations{0};
std::atomic<std::size_t> gDeallocations{0};
std::atomic<std::size_t> gLocks{0};

inline void noteAllocation() noexcept
{
    if (tSectionDepth > 0) {
        gAllocations.fetch_add(1);
    }
}

inline void noteDeallocation(void* p) noexcept
{
    if (p && tSectionDepth > 0) {
        gDeallocations.fetch_add(1);
    }
}

[[maybe_unused]] inline void noteLock() noexcept
{
    if (tSectionDepth > 0) {
        gLocks.fetch_add(1);
    }
}

} // namespace

RealtimeSection::RealtimeSection() noexcept
{
    ++tSectionDepth;
#if defined(VELL_RTSAN)
    __rtsan_realtime_enter();
#endif
}

RealtimeSection::~RealtimeSection()
{
#if defined(VELL_RTSAN)
    __rtsan_realtime_exit();
#endif
    --tSectionDepth;
}

RealtimeCounts realtimeCounts() noexcept
{
    return {gAllocations.load(), gDeallocations.load(), gLocks.load()};
}

void resetRealtimeCounts() noexcept
{
    gAllocations = 0;
    gDeallocations = 0;
    gLocks = 0;
}

} // namespace vell::test

using vell::test::noteAllocation;
using vell::test::noteDeallocation;
using vell::test::noteLock;

// ---- C allocation. Sanitizers interpose malloc themselves; there only operator new is counted.
#if VELL_GUARD_REPLACES_MALLOC
extern "C" {
void* __libc_malloc(std::size_t);
void* __libc_calloc(std::size_t, std::size_t);
void* __libc_realloc(void*, std::size_t);
void* __libc_memalign(std::size_t, std::size_t);
void __libc_free(void*);

void* malloc(std::size_t size)
{
    noteAllocation();
    return __libc_malloc(size);
}

void* calloc(std::size_t count, std::size_t size)
{
    noteAllocation();
    return __libc_calloc(count, size);
}

void* realloc(void* p, std::size_t size)
{
    noteAllocation();
    return __libc_realloc(p, size);
}

void free(void* p)
{
    noteDeallocation(p);
    __libc_free(p);
}

void* aligned_alloc(std::size_t alignment, std::size_t size)
{
    noteAllocation();
    return __libc_memalign(alignment, size);
}

void* memalign(std::size_t alignment, std::size_t size)
{
    noteAllocation();
    return __libc_memalign(alignment, size);
}

int posix_memalign(void** out, std::size_t alignment, std::size_t size)
{
    noteAllocation();
    void* p = __libc_memalign(alignment, size);
    if (!p) {
        return ENOMEM;
    }
    *out = p;
    return 0;
}
} // extern "C"
#endif

// ---- C++ allocation. Goes straight to the C library so each allocation is counted once.
namespace {

#if VELL_GUARD_REPLACES_MALLOC
void* rawMalloc(std::size_t size) { return __libc_malloc(size); }
void* rawMemalign(std::size_t alignment, std::size_t size) { return __libc_memalign(alignment, size); }
void rawFree(void* p) { __libc_free(p); }
#else
void* rawMalloc(std::size_t size) { return std::malloc(size); }
void* rawMemalign(std::size_t alignment, std::size_t size) { return std::aligned_alloc(alignment, (size + alignment - 1) / alignment * alignment); }
void rawFree(void* p) { std::free(p); }
#endif

void* allocateOrThrow(std::size_t size)
{
    noteAllocation();
    if (void* p = rawMalloc(size ? size : 1)) {
        return p;
    }
    throw std::bad_alloc();
}

void* allocateAlignedOrThrow(std::size_t size, std::align_val_t alignment)
{
    noteAllocation();
    const auto a = std::max(static_cast<std::size_t>(alignment), sizeof(void*));
    if (void* p = rawMemalign(a, size ? size : 1)) {
        return p;
    }
    throw std::bad_alloc();
}

} // namespace

void* operator new(std::size_t size) { return allocateOrThrow(size); }
void* operator new[](std::size_t size) { return allocateOrThrow(size); }
void* operator new(std::size_t size, const std::nothrow_t&) noexcept
{
    noteAllocation();
    return rawMalloc(size ? size : 1);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept
{
    noteAllocation();
    return rawMalloc(size ? size : 1);
}
void* operator new(std::size_t size, std::align_val_t a) { return allocateAlignedOrThrow(size, a); }
void* operator new[](std::size_t size, std::align_val_t a)
{
    return allocateAlignedOrThrow(size, a);
}
void operator delete(void* p) noexcept
{
    noteDeallocation(p);
    rawFree(p);
}
void operator delete[](void* p) noexcept
{
    noteDeallocation(p);
    rawFree(p);
}
void operator delete(void* p, std::size_t) noexcept
{
    noteDeallocation(p);
    rawFree(p);
}
void operator delete[](void* p, std::size_t) noexcept
{
    noteDeallocation(p);
    rawFree(p);
}
void operator delete(void* p, std::align_val_t) noexcept
{
    noteDeallocation(p);
    rawFree(p);
}
void operator delete[](void* p, std::align_val_t) noexcept
{
    noteDeallocation(p);
    rawFree(p);
}
void operator delete(void* p, std::size_t, std::align_val_t) noexcept
{
    noteDeallocation(p);
    rawFree(p);
}
void operator delete[](void* p, std::size_t, std::align_val_t) noexcept
{
    noteDeallocation(p);
    rawFree(p);
}

// ---- Locks and waits. The real functions are looked up once, before any test runs.
#if VELL_GUARD_REPLACES_LOCKS
namespace {

template <class Fn> Fn lookupNext(const char* name)
{
    return reinterpret_cast<Fn>(dlsym(RTLD_NEXT, name));
}

using MutexFn = int (*)(pthread_mutex_t*);
using RwFn = int (*)(pthread_rwlock_t*);
using CondWaitFn = int (*)(pthread_cond_t*, pthread_mutex_t*);
using CondTimedWaitFn = int (*)(pthread_cond_t*, pthread_mutex_t*, const timespec*);
using SemFn = int (*)(sem_t*);
using SemTimedFn = int (*)(sem_t*, const timespec*);

struct RealLockFunctions {
    MutexFn mutexLock = lookupNext<MutexFn>("pthread_mutex_lock");
    MutexFn mutexTryLock = lookupNext<MutexFn>("pthread_mutex_trylock");
    RwFn rdLock = lookupNext<RwFn>("pthread_rwlock_rdlock");
    RwFn wrLock = lookupNext<RwFn>("pthread_rwlock_wrlock");
    CondWaitFn condWait = lookupNext<CondWaitFn>("pthread_cond_wait");
    CondTimedWaitFn condTimedWait = lookupNext<CondTimedWaitFn>("pthread_cond_timedwait");
    SemFn semWait = lookupNext<SemFn>("sem_wait");
    SemTimedFn semTimedWait = lookupNext<SemTimedFn>("sem_timedwait");
};

const RealLockFunctions& real()
{
    static const RealLockFunctions functions;
    return functions;
}

// Resolve before main so no lookup happens inside a counted section.
[[maybe_unused]] const RealLockFunctions& gResolvedEarly = real();

} // namespace

extern "C" {
int pthread_mutex_lock(pthread_mutex_t* m)
{
    noteLock();
    return real().mutexLock(m);
}
int pthread_mutex_trylock(pthread_mutex_t* m)
{
    noteLock();
    return real().mutexTryLock(m);
}
int pthread_rwlock_rdlock(pthread_rwlock_t* l)
{
    noteLock();
    return real().rdLock(l);
}
int pthread_rwlock_wrlock(pthread_rwlock_t* l)
{
    noteLock();
    return real().wrLock(l);
}
int pthread_cond_wait(pthread_cond_t* c, pthread_mutex_t* m)
{
    noteLock();
    return real().condWait(c, m);
}
int pthread_cond_timedwait(pthread_cond_t* c, pthread_mutex_t* m, const timespec* t)
{
    noteLock();
    return real().condTimedWait(c, m, t);
}
int sem_wait(sem_t* s)
{
    noteLock();
    return real().semWait(s);
}
int sem_timedwait(sem_t* s, const timespec* t)
{
    noteLock();
    return real().semTimedWait(s, t);
}
} // extern "C"
#endif
