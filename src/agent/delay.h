// The time until the next poll of the update server. Needs neither the server nor the camera.
#ifndef AGENT_DELAY_H
#define AGENT_DELAY_H

#include <stdint.h>

// Returns the milliseconds until the next poll. `sleepS` is the server's polling interval, 0 when
// it is unknown. `failures` is the number of failed polls in a row without progress of a download;
// with it the time grows up to the polling interval, which is the load that the server is planned
// for. It grows from a quarter of the interval, at most 75 s, if the camera `isIdle`: no action and
// no report depends on the poll. Nearly all cameras of a fleet are, and the retries of a whole
// fleet must not add up. If the server asked for `retryAfterS` (0: it did not; at most a day), the
// time is at least that and a random part of the interval. `random` is a random number that spreads
// the polls of many cameras.
uint32_t delay_ms(uint32_t sleepS, uint32_t failures, uint32_t retryAfterS, bool isIdle,
                  uint32_t random);

// Returns the seconds between two polls while a new system is on trial: a quarter of the interval,
// at least 1 s and at most 75 s. The result can be sent when the trial has ended, and all other
// cameras of the rollout may wait for it.
uint32_t trial_interval_s(uint32_t sleepS);

// Whether the camera was started less than ten minutes ago. `uptimeS` is the time since its start.
bool has_just_started(uint64_t uptimeS);

// Returns the milliseconds until the first poll of an agent. If the camera has just started, this
// is a random part of the polling interval, because the power may have returned to the whole fleet.
// If the camera is not idle, it is a random part of a quarter of the interval and at most 75 s:
// cameras whose upgrades were interrupted all end them at the same time, and each result takes
// several requests. Otherwise, or when the interval is unknown, it is 0.
uint32_t first_delay_ms(uint32_t sleepS, uint64_t uptimeS, bool isIdle, uint32_t random);

#endif  // AGENT_DELAY_H
