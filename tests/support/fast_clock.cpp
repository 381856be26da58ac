// For the otactl of the tests: the monotonic clock runs faster by the factor CORVO_CLOCK_RATE (from
// the environment), so that tests of long time-outs are short.
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
