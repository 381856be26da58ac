#include "pal/error_log.h"

#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>
#include <iterator>

namespace {

constexpr size_t PAL_MESSAGE_LIMIT = 509;  // terminator included
constexpr size_t HAL_MESSAGE_LIMIT = 1021;
constexpr size_t BUFFER_SIZE = 1024;
// There must be room for the line feed that is appended to the longest message.
static_assert(PAL_MESSAGE_LIMIT < BUFFER_SIZE && HAL_MESSAGE_LIMIT < BUFFER_SIZE);

#define REPORT_SOURCE_NUMBER(name, tag, number) number,
constexpr int32_t NUMBERS[] = {REPORT_SOURCES(REPORT_SOURCE_NUMBER)};
#undef REPORT_SOURCE_NUMBER
constexpr bool are_unique(const int32_t* first, const int32_t* last) {
    return std::all_of(first, last,
                       [=](int32_t number) { return std::count(first, last, number) == 1; });
}
static_assert(are_unique(std::begin(NUMBERS), std::end(NUMBERS)),
              "two sources report under one number");

// Where a report comes from, as its line names it.
struct Origin {
    const char* layer;
    const char* function;
    int32_t line;
    const char* tag;
    int32_t id;
};

__attribute__((format(printf, 4, 0))) void print_report(const Origin& origin, int32_t level,
                                                        size_t limit, const char* format,
                                                        va_list arguments) {
    char message[BUFFER_SIZE] = {};
    vsnprintf(message, limit, format, arguments);
    message[strlen(message)] = '\n';
    printf("%s error %s,%d,%s %d %d %s", origin.layer, origin.function, origin.line, origin.tag,
           origin.id, level, message);
}

}  // namespace

void PAL_ErrorLog(const char* function, int32_t line, const char* tag, int32_t id, int32_t level,
                  const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    print_report({"PAL", function, line, tag, id}, level, PAL_MESSAGE_LIMIT, format, arguments);
    va_end(arguments);
}

void HAL_ErrorLog(const char* function, int32_t line, const char* tag, int32_t id, int32_t level,
                  const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    print_report({"hal", function, line, tag, id}, level, HAL_MESSAGE_LIMIT, format, arguments);
    va_end(arguments);
}
