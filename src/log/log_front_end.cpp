#include "log/log_front_end.h"

#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>

#include <atomic>

#include "log/log_producer.h"

namespace {

std::atomic<uint32_t> g_log_level{LOG_LEVEL_ORDINARY};
std::atomic<uint8_t> g_output_force_init{0};
std::atomic<uint8_t> g_log_centre_working{0};

// Formats the digits without strftime() or snprintf(), which would take several times as long.
char* put_digits(char* to, int value, int digits) {
    for (int i = digits - 1; i >= 0; --i) {
        to[i] = static_cast<char>('0' + value % 10);
        value /= 10;
    }
    return to + digits;
}

// Writes the time stamp without a terminating NUL and returns a pointer to its end. buf must have
// at least LOG_STAMP_MIN_CAPACITY bytes.
char* put_stamp(char* buf) {
    timeval now = {};
    gettimeofday(&now, nullptr);
    tm local = {};
    const time_t seconds = now.tv_sec;
    localtime_r(&seconds, &local);
    char* end = put_digits(buf, local.tm_mon + 1, 2);
    for (const int field : {local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec}) {
        end = put_digits(end, field, 2);
    }
    *end = '.';
    return put_digits(end + 1, static_cast<int>(now.tv_usec / 1000), 3);
}

}  // namespace

int32_t Corvo_SetLogLevel(uint32_t level) {
    g_log_level.store(level, std::memory_order_relaxed);
    printf("g_log_level set to:%d\n", static_cast<int>(level));
    return 0;
}

void Corvo_SetLogOutputForceInit(uint8_t flag) {
    printf("set log output force init flag:%d %s\n", flag, __func__);
    g_output_force_init.store(flag, std::memory_order_relaxed);
}

uint8_t Corvo_GetLogOutputForceInit() {
    return g_output_force_init.load(std::memory_order_relaxed);
}

void Corvo_SetLogCentorWorkingFlag(uint8_t flag) {
    printf("set log center working flag:%d %s\n", flag, __func__);
    g_log_centre_working.store(flag, std::memory_order_relaxed);
}

bool Corvo_GetLogCentorWorkingFlag() {
    return g_log_centre_working.load(std::memory_order_relaxed) != 0;
}

int32_t Corvo_LogAuxSink(uint32_t /*level*/, const char* /*line*/, uint32_t /*length*/) {
    return 0;
}

void ts_format_log(char* buf, uint32_t capacity) {
    if (buf == nullptr || capacity < LOG_STAMP_MIN_CAPACITY) {
        printf("buf is null or size %lu < 24\n", static_cast<unsigned long>(capacity));
        return;
    }
    *put_stamp(buf) = '\0';
}

int32_t Corvo_LogPrint(uint32_t level, uint32_t outputMask, const char* format, ...) {
    if (Corvo_GetLogOutputForceInit() != 0 && !Corvo_GetLogCentorWorkingFlag()) {
        return 0;
    }
    if (level < g_log_level.load(std::memory_order_relaxed)) {
        return 0;
    }
    char line[LOG_LINE_SIZE];
    char* const text = put_stamp(line);
    const size_t capacity = LOG_TEXT_CAPACITY - static_cast<size_t>(text - line);
    va_list arguments;
    va_start(arguments, format);
    const int formatted = vsnprintf(text, capacity, format, arguments);
    va_end(arguments);

    if (formatted < 0) {
        *text = '\0';
    }
    const size_t textLength = static_cast<size_t>(text - line) + strlen(text);
    line[textLength] = '\n';
    line[textLength + 1] = '\0';
    const uint32_t length = static_cast<uint32_t>(textLength + 2);
    if ((outputMask & LOG_OUTPUT_CONSOLE) != 0) {
        fputs(line, stdout);
        Corvo_LogProducerSend(level, line, length);
    }
    if ((outputMask & LOG_OUTPUT_AUX) != 0) {
        Corvo_LogAuxSink(level, line, length);
    }
    return 0;
}
