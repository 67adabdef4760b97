#pragma once
// The fuzz targets' property check: a broken property prints what broke and
// aborts, which libFuzzer (and the replay runner) report as a finding with
// the input that caused it.
#include <cstdio>
#include <cstdlib>

#define FUZZ_CHECK(condition, ...)                                                                  \
    do {                                                                                            \
        if (!(condition)) {                                                                         \
            std::fprintf(stderr, "property broken at %s:%d: %s\n", __FILE__, __LINE__, #condition); \
            std::fprintf(stderr, __VA_ARGS__);                                                      \
            std::fprintf(stderr, "\n");                                                             \
            std::abort();                                                                           \
        }                                                                                           \
    } while (false)
