// The error reporting of the platform abstraction and of the hardware modules below it. Each report
// is one line on standard output. A function that detects a failure reports it once.
#ifndef PAL_ERROR_LOG_H
#define PAL_ERROR_LOG_H

#include <stdint.h>

#include "pal/modules.h"

// Printed with each report, never used to filter.
enum ReportLevel : int32_t {
    REPORT_LEVEL_INFO = 2,   // progress and information
    REPORT_LEVEL_ERROR = 4,  // a failure
};

// The origin of a report: a tag for people and a number for programs that read the output.
struct ReportSource {
    const char* tag;
    int32_t id;
};

// Defines REPORT_FLASH_MMC and so on, from the table in pal/modules.h.
#define REPORT_SOURCE_CONSTANT(name, tag, number) constexpr ReportSource REPORT_##name{tag, number};
REPORT_SOURCES(REPORT_SOURCE_CONSTANT)
#undef REPORT_SOURCE_CONSTANT

// Prints "PAL error function,line,tag id level message" and a line feed. The message is truncated
// to 508 characters; if it ends in a line feed, an empty line follows. Takes only the lock of the
// output stream; may be called from any thread. No pointer may be null.
void PAL_ErrorLog(const char* function, int32_t line, const char* tag, int32_t id, int32_t level,
                  const char* format, ...) __attribute__((format(printf, 6, 7)));

// As PAL_ErrorLog, but prints "hal error ..." and truncates the message to 1020 characters.
void HAL_ErrorLog(const char* function, int32_t line, const char* tag, int32_t id, int32_t level,
                  const char* format, ...) __attribute__((format(printf, 6, 7)));

// The macros with which a hardware module reports: a printf() format and its values. A report names
// the current source line and the REPORT_SOURCE that the file defines. It also names the current
// function, or with ..._AS the operation that calls the current helper function.
#define HAL_ERROR(...) HAL_ERROR_AS(__func__, __VA_ARGS__)
#define HAL_INFO(...) HAL_INFO_AS(__func__, __VA_ARGS__)
#define HAL_ERROR_AS(operation, ...) HAL_REPORT_AS(operation, REPORT_LEVEL_ERROR, __VA_ARGS__)
#define HAL_INFO_AS(operation, ...) HAL_REPORT_AS(operation, REPORT_LEVEL_INFO, __VA_ARGS__)
#define HAL_REPORT_AS(operation, level, ...) \
    HAL_ErrorLog((operation), __LINE__, REPORT_SOURCE.tag, REPORT_SOURCE.id, (level), __VA_ARGS__)

#endif  // PAL_ERROR_LOG_H
