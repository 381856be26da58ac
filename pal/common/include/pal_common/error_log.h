// The two reporters of the platform abstraction and of the hardware modules below it. Each prints
// one line per report on standard output; whoever meets a failure reports it, once.
#ifndef PAL_COMMON_ERROR_LOG_H
#define PAL_COMMON_ERROR_LOG_H

#include <stdint.h>

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

// Report from the current function and line: the source, the level, then format and values.
#define PAL_REPORT(source, level, ...) PAL_REPORT_AS(__func__, source, level, __VA_ARGS__)
#define HAL_REPORT(source, level, ...) HAL_REPORT_AS(__func__, source, level, __VA_ARGS__)

// The same in the name of another function: for helpers that work for several operations.
#define PAL_REPORT_AS(function, source, level, ...) \
    PAL_ErrorLog((function), __LINE__, (source).tag, (source).id, (level), __VA_ARGS__)
#define HAL_REPORT_AS(function, source, level, ...) \
    HAL_ErrorLog((function), __LINE__, (source).tag, (source).id, (level), __VA_ARGS__)

#endif  // PAL_COMMON_ERROR_LOG_H
