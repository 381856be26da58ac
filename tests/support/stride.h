// How many positions the sweeps try.
#ifndef TESTS_SUPPORT_STRIDE_H
#define TESTS_SUPPORT_STRIDE_H

#include <stdlib.h>

// Returns the step between the positions that a sweep tries. Without a sanitizer every position is
// tried. With one, a run takes several times as long, and most positions show the same errors:
// every fourth position is tried, with the slow thread sanitizer every sixteenth, unless CORVO_FULL
// is set.
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
