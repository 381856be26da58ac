// What a log line is measured against.
#ifndef BENCH_LOG_BY_HAND_H
#define BENCH_LOG_BY_HAND_H

#include <stdint.h>

// Opens a publish socket like the service's, on an address of its own. Returns it.
int open_by_hand();

// The same bytes as the service's line, on standard output and published, by snprintf, write and
// nn_send and nothing else: the time is whatever `stamp` says.
void log_by_hand(int socket, const char* stamp, const char* function, int line, uint32_t module,
                 int level, const char* partition);

// The same with the time looked up and formatted, as it must be done for each line.
void log_by_hand_with_time(int socket, const char* function, int line, uint32_t module, int level,
                           const char* partition);

// Takes what Corvo_LogPrint takes and does nothing.
int32_t empty_call(uint32_t level, uint32_t outputMask, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

#endif  // BENCH_LOG_BY_HAND_H
