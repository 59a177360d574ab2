// Asserts: debug-only checks, checks with a release fallback, and designed aborts.
#pragma once

#include <cstdio>
#include <cstdlib>

#ifdef NDEBUG
#define VELL_ASSERT(cond) ((void)0)
#else
#define VELL_ASSERT(cond)                                                                          \
    ((cond) ? (void)0 : ::vell::detail::assertFailed(#cond, __FILE__, __LINE__))
#endif

/// Asserts in debug builds; in release builds runs the block that follows when cond is false.
///     VELL_VERIFY_OR(index < size) { return; }
#define VELL_VERIFY_OR(cond)                                                                       \
    if (!(cond) && (VELL_ASSERT(cond), true))

/// Stops the process whatever the build, naming the expression. Only where stopping is designed.
#define VELL_ALWAYS_ASSERT(cond)                                                                   \
    ((cond) ? (void)0 : ::vell::detail::assertFailed(#cond, __FILE__, __LINE__))

namespace vell::detail {

[[noreturn]] inline void assertFailed(const char* expression, const char* file, int line) noexcept
{
    std::fprintf(stderr, "%s:%d: assertion failed: %s\n", file, line, expression);
    std::abort();
}

} // namespace vell::detail
