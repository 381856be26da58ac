#include "agent/delay.h"

#include <algorithm>

namespace {

constexpr uint32_t SLEEP_UNKNOWN_S = 300;
constexpr uint32_t FIRST_RETRY_S = 5;
// Of a long interval a part is at most PART_MAX_S. An outage then concerns few cameras at a time,
// and one whose network was not up yet at its first poll must not wait for hours.
constexpr uint32_t INTERVAL_PARTS = 4;
constexpr uint32_t PART_MAX_S = 75;
constexpr uint32_t DOUBLINGS_MAX = 10;
constexpr uint32_t MS_PER_S = 1000;
// Longer than a camera needs to start its services.
constexpr uint64_t JUST_STARTED_S = 600;

uint32_t part_of_interval_s(uint32_t sleepS) {
    return std::min(sleepS / INTERVAL_PARTS, PART_MAX_S);
}

}  // namespace

uint32_t delay_ms(uint32_t sleepS, uint32_t failures, uint32_t retryAfterS, bool isIdle,
                  uint32_t random) {
    const uint32_t interval = sleepS == 0 ? SLEEP_UNKNOWN_S : sleepS;
    if (failures == 0) {
        // A random time from 90 % to 110 % of the interval.
        return interval * 900 + random % (interval * 200 + 1);
    }
    const uint32_t first =
        isIdle ? std::max(part_of_interval_s(sleepS), FIRST_RETRY_S) : FIRST_RETRY_S;
    const uint32_t grown = first << std::min(failures - 1, DOUBLINGS_MAX);
    const uint32_t chosen = std::min(grown, interval);
    const uint32_t delay = chosen * 500 + random % (chosen * 1000 + 1);
    // All cameras may have been asked to wait until the same time.
    const uint32_t spread = retryAfterS == 0 ? 0 : random % (interval * MS_PER_S + 1);
    return std::max(delay, retryAfterS * MS_PER_S + spread);
}

uint32_t trial_interval_s(uint32_t sleepS) {
    return std::max(part_of_interval_s(sleepS == 0 ? SLEEP_UNKNOWN_S : sleepS), 1U);
}

bool has_just_started(uint64_t uptimeS) {
    return uptimeS < JUST_STARTED_S;
}

uint32_t first_delay_ms(uint32_t sleepS, uint64_t uptimeS, bool isIdle, uint32_t random) {
    const uint32_t most = isIdle ? sleepS : part_of_interval_s(sleepS);
    return has_just_started(uptimeS) ? random % (most * MS_PER_S + 1) : 0;
}
