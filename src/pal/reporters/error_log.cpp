#include "pal/error_log.h"

#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <iterator>

namespace {

// Each buffer has room for the line feed that is appended to the longest message.
constexpr size_t PAL_BUFFER_SIZE = 512;
constexpr size_t PAL_MESSAGE_LIMIT = 509;  // terminator included
constexpr size_t HAL_BUFFER_SIZE = 1024;
constexpr size_t HAL_MESSAGE_LIMIT = 1021;

#define REPORT_SOURCE_NUMBER(name, tag, number) number,
constexpr int32_t NUMBERS[] = {REPORT_SOURCES(REPORT_SOURCE_NUMBER)};
#undef REPORT_SOURCE_NUMBER
constexpr bool are_unique(const int32_t* first, const int32_t* last) {
    return std::all_of(first, last,
                       [=](int32_t number) { return std::count(first, last, number) == 1; });
}
static_assert(are_unique(std::begin(NUMBERS), std::end(NUMBERS)),
              "two sources report under one number");

static_assert(PAL_MESSAGE_LIMIT < PAL_BUFFER_SIZE && HAL_MESSAGE_LIMIT < HAL_BUFFER_SIZE);

}  // namespace

void PAL_ErrorLog(const char* function, int32_t line, const char* tag, int32_t id, int32_t level,
                  const char* format, ...) {
    char message[PAL_BUFFER_SIZE] = {};
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(message, PAL_MESSAGE_LIMIT, format, arguments);
    va_end(arguments);
    message[strlen(message)] = '\n';
    printf("PAL error %s,%d,%s %d %d %s", function, line, tag, id, level, message);
}

void HAL_ErrorLog(const char* function, int32_t line, const char* tag, int32_t id, int32_t level,
                  const char* format, ...) {
    char message[HAL_BUFFER_SIZE] = {};
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(message, HAL_MESSAGE_LIMIT, format, arguments);
    va_end(arguments);
    message[strlen(message)] = '\n';
    printf("hal error %s,%d,%s %d %d %s", function, line, tag, id, level, message);
}
