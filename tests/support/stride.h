// How thoroughly sweeps go.
#ifndef TESTS_SUPPORT_STRIDE_H
#define TESTS_SUPPORT_STRIDE_H

#include <stdlib.h>

// Places of a sweep are tried one after the other in steps of this. Every place is tried where
// nothing instruments the program. Under a sanitizer a run takes several times as long, and what it
// looks for is the same at many places: every fourth, under the thread sanitizer, which starts
// slowest, every sixteenth, unless CORVO_FULL is set.
inline int sweep_stride() {
#if defined(__SANITIZE_THREAD__)
    constexpr int STRIDE = 16;
#elif defined(__SANITIZE_ADDRESS__)
    constexpr int STRIDE = 4;
#else
    constexpr int STRIDE = 1;
#endif
    return STRIDE > 1 && getenv("CORVO_FULL") == nullptr ? STRIDE : 1;
}

#endif  // TESTS_SUPPORT_STRIDE_H
