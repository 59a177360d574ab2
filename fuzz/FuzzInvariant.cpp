// The fuzzers' report of a broken invariant: print it and abort so libFuzzer keeps the input.
#include "FuzzTarget.h"

#include <cstdio>
#include <cstdlib>

void vellFuzzInvariantFailed(const char* expression, const char* file, int line)
{
    std::fprintf(stderr, "%s:%d: invariant broken: %s\n", file, line, expression);
    std::fflush(stderr);
    std::abort();
}
