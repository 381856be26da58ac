// In otactl as tests run it: the monotonic clock runs so many times faster as CORVO_CLOCK_RATE
// says, for limits that would take a test long to reach, and the time is CORVO_TIME, in seconds
// since 1970.
#include <stdint.h>
#include <stdlib.h>
#include <time.h>

extern "C" int __real_clock_gettime(clockid_t clock, timespec* now);
extern "C" int __wrap_clock_gettime(clockid_t clock, timespec* now) {
    constexpr int64_t NS_PER_S = 1000000000;
    const int result = __real_clock_gettime(clock, now);
    const char* const rate = getenv("CORVO_CLOCK_RATE");
    if (clock == CLOCK_MONOTONIC && rate != nullptr) {
        const int64_t ns = (int64_t{now->tv_sec} * NS_PER_S + now->tv_nsec) * atoi(rate);
        *now = {.tv_sec = static_cast<time_t>(ns / NS_PER_S),
                .tv_nsec = static_cast<long>(ns % NS_PER_S)};
    }
    return result;
}

extern "C" time_t __real_time(time_t* now);
extern "C" time_t __wrap_time(time_t* now) {
    const char* const fixed = getenv("CORVO_TIME");
    return fixed == nullptr ? __real_time(now) : atol(fixed);
}
