// The two reporters of the platform abstraction and of the hardware modules below it. Each prints
// one line per report on standard output; whoever meets a failure reports it, once.
#ifndef BOARD_ERROR_LOG_H
#define BOARD_ERROR_LOG_H

#include <stdint.h>

#include "board/modules.h"

// Printed with each report, never used to filter.
enum ReportLevel : int32_t {
    REPORT_LEVEL_INFO = 2,   // progress and information
    REPORT_LEVEL_ERROR = 4,  // a failure
};

// Who reports: a tag for people and a number for programs that read the output.
struct ReportSource {
    const char* tag;
    int32_t id;
};

// REPORT_FLASH_MMC and so on, from the table in board/modules.h.
#define REPORT_SOURCE_CONSTANT(name, tag, number) constexpr ReportSource REPORT_##name{tag, number};
REPORT_SOURCES(REPORT_SOURCE_CONSTANT)
#undef REPORT_SOURCE_CONSTANT

// Prints "PAL error function,line,tag id level message" and a line feed. The message is cut to 508
// characters; one that ends in a line feed is followed by an empty line. Takes no lock but that of
// the output stream and is safe from any thread. No pointer may be null.
void PAL_ErrorLog(const char* function, int32_t line, const char* tag, int32_t id, int32_t level,
                  const char* format, ...) __attribute__((format(printf, 6, 7)));

// As PAL_ErrorLog, but prints "hal error ..." and cuts the message to 1020 characters.
void HAL_ErrorLog(const char* function, int32_t line, const char* tag, int32_t id, int32_t level,
                  const char* format, ...) __attribute__((format(printf, 6, 7)));

// How a hardware module reports: format and values, from the current line, as the REPORT_SOURCE
// that its file defines. In the name of the current function, or of the operation that a helper
// works for.
#define HAL_ERROR(...) HAL_ERROR_AS(__func__, __VA_ARGS__)
#define HAL_INFO(...) HAL_INFO_AS(__func__, __VA_ARGS__)
#define HAL_ERROR_AS(operation, ...) HAL_REPORT_AS(operation, REPORT_LEVEL_ERROR, __VA_ARGS__)
#define HAL_INFO_AS(operation, ...) HAL_REPORT_AS(operation, REPORT_LEVEL_INFO, __VA_ARGS__)
#define HAL_REPORT_AS(operation, level, ...) \
    HAL_ErrorLog((operation), __LINE__, REPORT_SOURCE.tag, REPORT_SOURCE.id, (level), __VA_ARGS__)

#endif  // BOARD_ERROR_LOG_H
