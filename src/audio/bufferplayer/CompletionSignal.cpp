// The completion worker's wake-up semaphore.
#include "audio/bufferplayer/CompletionSignal.h"

#include <cerrno>

namespace vell::detail {

CompletionSignal::CompletionSignal()
{
    sem_init(&mSemaphore, 0, 0);
}

CompletionSignal::~CompletionSignal()
{
    sem_destroy(&mSemaphore);
}

VELL_RT void CompletionSignal::post() noexcept
{
    sem_post(&mSemaphore);
}

void CompletionSignal::wait() noexcept
{
    while (sem_wait(&mSemaphore) != 0 && errno == EINTR) {
    }
}

} // namespace vell::detail
