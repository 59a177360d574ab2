// Real-time enforcement for tests: counts allocations, frees and lock calls made inside a
// RealtimeSection. The test binary replaces the global allocation functions and the pthread
// lock calls; outside a section they behave as usual. Built with RealtimeSanitizer (VELL_RTSAN),
// a section is also the sanitizer's real-time context: any allocation, lock, sleep or I/O in it
// ends the process with a stack, and only operator new and delete are still counted.
#pragma once

#include <cstddef>

namespace vell::test {

struct RealtimeCounts {
    std::size_t allocations = 0;
    std::size_t deallocations = 0;
    std::size_t locks = 0;

    std::size_t total() const { return allocations + deallocations + locks; }
};

/// While alive, marks the current thread as a render thread: every allocation, free and lock
/// it makes is counted. Sections nest. Construct one inside a render callback to check a
/// thread the test does not own.
class RealtimeSection {
public:
    RealtimeSection() noexcept;
    ~RealtimeSection();
    RealtimeSection(const RealtimeSection&) = delete;
    RealtimeSection& operator=(const RealtimeSection&) = delete;
};

/// What all sections on all threads counted since the last reset.
RealtimeCounts realtimeCounts() noexcept;
void resetRealtimeCounts() noexcept;

/// Runs fn inside a section on the calling thread and returns what it counted.
template <class Fn> RealtimeCounts countRealtimeViolations(Fn&& fn)
{
    resetRealtimeCounts();
    {
        RealtimeSection section;
        fn();
    }
    return realtimeCounts();
}

} // namespace vell::test
