// Baselines for a log line.
#ifndef BENCH_LOG_BY_HAND_H
#define BENCH_LOG_BY_HAND_H

#include <stdint.h>

// Opens a publish socket like the service's, but with another address. Returns the socket.
int open_by_hand();

// Prints and publishes the same bytes as the service's log line with only snprintf, write and
// nn_send. `stamp` is used as the time stamp.
void log_by_hand(int socket, const char* stamp, const char* function, int line, uint32_t module,
                 int level, const char* partition);

// Like log_by_hand(), but reads the clock and formats the time stamp for each line.
void log_by_hand_with_time(int socket, const char* function, int line, uint32_t module, int level,
                           const char* partition);

// Has the parameters of Corvo_LogPrint and does nothing.
int32_t empty_call(uint32_t level, uint32_t outputMask, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

#endif  // BENCH_LOG_BY_HAND_H
