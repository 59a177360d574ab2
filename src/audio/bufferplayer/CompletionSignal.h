// A wake-up from the render thread to the engine's completion worker: a POSIX semaphore, which
// the render thread may post without locking or allocating.
#pragma once

#include "rt/Realtime.h"

#include <semaphore.h>

namespace vell::detail {

class CompletionSignal {
public:
    CompletionSignal();
    ~CompletionSignal();
    CompletionSignal(const CompletionSignal&) = delete;
    CompletionSignal& operator=(const CompletionSignal&) = delete;

    /// Wakes the waiting worker (posts are counted).
    /// Thread: any, including render. Wait-free, no allocation.
    VELL_RT void post() noexcept;
    /// Waits for a post. Thread: the completion worker.
    void wait() noexcept;

private:
    sem_t mSemaphore;
};

} // namespace vell::detail
