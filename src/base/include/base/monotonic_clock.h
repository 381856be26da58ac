// The monotonic clock, which does not jump when somebody sets the time.
#ifndef BASE_MONOTONIC_CLOCK_H
#define BASE_MONOTONIC_CLOCK_H

#include <stdint.h>
#include <time.h>

namespace corvo {

// Returns the milliseconds since an arbitrary moment, which is the same for all processes. The
// difference of two results is the time between both calls.
inline int64_t monotonic_ms() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

}  // namespace corvo

#endif  // BASE_MONOTONIC_CLOCK_H
