// The log call of the upgrade service: one bounded line per call, printed on standard output and
// published to the log centre, for which nanomsg allocates a message. Never fails, takes no lock of
// its own; any thread.
//
//   0523081502.417;main;120;0d737000;3;ota wait for ota message
//   time stamp    ;function;source line;module;level;text
#ifndef LOG_LOG_FRONT_END_H
#define LOG_LOG_FRONT_END_H

#include <stdint.h>

constexpr uint32_t LOG_LEVEL_DETAIL = 2;
constexpr uint32_t LOG_LEVEL_ORDINARY = 3;
constexpr uint32_t LOG_LEVEL_KEY_EVENT = 4;

// Output masks, to be combined.
constexpr uint32_t LOG_OUTPUT_AUX = 1;      // hand the line to Corvo_LogAuxSink
constexpr uint32_t LOG_OUTPUT_CONSOLE = 2;  // print the line, then publish it

// The service's module identifier, and those of its key events.
constexpr uint32_t LOG_MODULE_UPGRADE = 0x0D737000;
constexpr uint32_t LOG_EVENT_RECEIVED = LOG_MODULE_UPGRADE + 1;
constexpr uint32_t LOG_EVENT_FAILED = LOG_MODULE_UPGRADE + 2;
constexpr uint32_t LOG_EVENT_SUCCEEDED = LOG_MODULE_UPGRADE + 3;
constexpr uint32_t LOG_EVENT_FILE_DELETED = LOG_MODULE_UPGRADE + 4;

constexpr uint32_t LOG_LINE_SIZE = 512;          // bytes: stamp, text, newline, NUL
constexpr uint32_t LOG_TEXT_CAPACITY = 509;      // bytes for stamp and text with a NUL
constexpr uint32_t LOG_STAMP_MIN_CAPACITY = 24;  // bytes below which no stamp is written

// Every format begins with this prefix, and every call passes its four values first: function name,
// source line, module identifier, level.
#define CORVO_LOG_PREFIX ";%s;%d;%08x;%d;"

// Logs a line in the name of the operation that it tells of, which is not always the procedure that
// logs it; `text` is a format without the prefix.
#define CORVO_LOG_AS(operation, level, mask, module, text, ...)                     \
    Corvo_LogPrint(level, mask, CORVO_LOG_PREFIX text, operation, __LINE__, module, \
                   static_cast<int>(level) __VA_OPT__(, ) __VA_ARGS__)
#define CORVO_LOG(level, mask, module, text, ...) \
    CORVO_LOG_AS(__func__, level, mask, module, text __VA_OPT__(, ) __VA_ARGS__)

// An ordinary line of the service.
#define UPGRADE_LOG_AS(operation, text, ...)                                            \
    CORVO_LOG_AS(operation, LOG_LEVEL_ORDINARY, LOG_OUTPUT_CONSOLE, LOG_MODULE_UPGRADE, \
                 text __VA_OPT__(, ) __VA_ARGS__)
#define UPGRADE_LOG(text, ...) UPGRADE_LOG_AS(__func__, text __VA_OPT__(, ) __VA_ARGS__)

// One of the key events of an upgrade.
#define UPGRADE_EVENT_AS(operation, event, text) \
    CORVO_LOG_AS(operation, LOG_LEVEL_KEY_EVENT, LOG_OUTPUT_CONSOLE | LOG_OUTPUT_AUX, event, text)
#define UPGRADE_EVENT(event, text) UPGRADE_EVENT_AS(__func__, event, text)

// Drops the line when the gate is shut or its level is below the threshold; else formats it, cut to
// LOG_LINE_SIZE, and hands it to the sinks that the mask names. Returns 0.
int32_t Corvo_LogPrint(uint32_t level, uint32_t outputMask, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// Sets the threshold (3 at start) below which lines are dropped, and says so. Returns 0.
int32_t Corvo_SetLogLevel(uint32_t level);

// The gate: while the force-init flag is set and the working flag is not, every line is dropped.
// Both are clear at start. The setters say what they set.
void Corvo_SetLogOutputForceInit(uint8_t flag);
uint8_t Corvo_GetLogOutputForceInit();
void Corvo_SetLogCentorWorkingFlag(uint8_t flag);
bool Corvo_GetLogCentorWorkingFlag();

// Where key events go besides the console: a hook that accepts the line. Returns 0.
int32_t Corvo_LogAuxSink(uint32_t level, const char* line, uint32_t length);

// Writes the local time as MMDDhhmmss.mmm, 14 characters and a NUL, into buf of capacity bytes (at
// least LOG_STAMP_MIN_CAPACITY; below that, or without a buffer, it says so and writes nothing).
void ts_format_log(char* buf, uint32_t capacity);

#endif  // LOG_LOG_FRONT_END_H
