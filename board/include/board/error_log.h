// The two reporters of the platform abstraction and of the hardware modules below it. Each prints
// one line per report on standard output; whoever meets a failure reports it, once.
#ifndef BOARD_ERROR_LOG_H
#define BOARD_ERROR_LOG_H

#include <stdint.h>

// Printed with each report, never used to filter.
enum ReportLevel : int32_t {
    REPORT_LEVEL_INFO = 2,   // progress and information
    REPORT_LEVEL_ERROR = 4,  // a failure
};

// Who reports: a tag for people and a number for programs that read the output. A new one takes a
// number that no line below has.
struct ReportSource {
    const char* tag;
    int32_t id;
};

constexpr ReportSource REPORT_FLASH_MMC{"FLASH_MMC", 1};
constexpr ReportSource REPORT_FLASH_MTD{"FLASH_MTD", 2};
constexpr ReportSource REPORT_PAL_LED{"PAL_LED", 7};
constexpr ReportSource REPORT_PAL_OTA{"PAL_OTA", 10};
constexpr ReportSource REPORT_PAL_NV{"PAL_NV", 20};
constexpr ReportSource REPORT_PAL_PMU{"PAL_PMU", 21};
constexpr ReportSource REPORT_HAL_LED{"HAL_LED", 46};
constexpr ReportSource REPORT_HAL_OTA{"BATTERY_CAM_OTA", 48};
constexpr ReportSource REPORT_HAL_GPIO{"HAL_GPIO", 77};

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
