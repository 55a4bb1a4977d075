// What a target holds against the code under test: a broken promise ends the run like a crash.
#ifndef FUZZ_REQUIRE_H
#define FUZZ_REQUIRE_H

#include <cstdio>
#include <cstdlib>

inline void require(bool holds, const char* promise) {
    if (!holds) {
        std::fprintf(stderr, "Broken: %s\n", promise);
        std::abort();
    }
}

#endif
