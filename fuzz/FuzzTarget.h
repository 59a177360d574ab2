// What every fuzz target shares: its entry point's name and the invariant check.
#pragma once

#include <cstddef>
#include <cstdint>

/// Defines a target's entry point. Under libFuzzer it is LLVMFuzzerTestOneInput; the regression
/// test (built with VELL_FUZZ_REGRESSION) links every target into one binary, so there each one
/// gets its own name, vellFuzz<name>, declared with VELL_FUZZ_DECLARE(name).
#if defined(VELL_FUZZ_REGRESSION)
#define VELL_FUZZ_TARGET(name)                                                                     \
    extern "C" int vellFuzz##name(const std::uint8_t* data, std::size_t size)
#else
#define VELL_FUZZ_TARGET(name)                                                                     \
    extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
#endif
#define VELL_FUZZ_DECLARE(name)                                                                    \
    extern "C" int vellFuzz##name(const std::uint8_t* data, std::size_t size)

/// Reports a broken invariant. The fuzzers print it and abort, so libFuzzer keeps the input; the
/// regression test records a test failure and carries on with the next file.
void vellFuzzInvariantFailed(const char* expression, const char* file, int line);

/// Checks an invariant that must hold for every input.
#define VELL_FUZZ_CHECK(condition)                                                                 \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            vellFuzzInvariantFailed(#condition, __FILE__, __LINE__);                               \
        }                                                                                          \
    } while (false)

/// Checks an invariant the rest of the input's run depends on: when it fails the run ends there.
#define VELL_FUZZ_REQUIRE(condition)                                                               \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            vellFuzzInvariantFailed(#condition, __FILE__, __LINE__);                               \
            return 0;                                                                              \
        }                                                                                          \
    } while (false)
