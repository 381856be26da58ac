// The log function of the upgrade service. Each call prints one line of limited length on standard
// output and publishes it to the log centre; nanomsg allocates a message for that. The call never
// fails and takes no locks other than those inside the C library and nanomsg. Any thread may call
// it.
//
//   0523081502.417;main;120;0d737000;3;ota wait for ota message
//   time stamp    ;function;source line;module;level;text
#ifndef LOG_LOG_FRONT_END_H
#define LOG_LOG_FRONT_END_H

#include <stdint.h>

constexpr uint32_t LOG_LEVEL_DETAIL = 2;
constexpr uint32_t LOG_LEVEL_ORDINARY = 3;
constexpr uint32_t LOG_LEVEL_KEY_EVENT = 4;

// Output masks; combine them with |.
constexpr uint32_t LOG_OUTPUT_AUX = 1;      // pass the line to Corvo_LogAuxSink
constexpr uint32_t LOG_OUTPUT_CONSOLE = 2;  // print the line, then publish it

// The module identifier of the service, and the identifiers of its key events.
constexpr uint32_t LOG_MODULE_UPGRADE = 0x0D737000;
constexpr uint32_t LOG_EVENT_RECEIVED = LOG_MODULE_UPGRADE + 1;
constexpr uint32_t LOG_EVENT_FAILED = LOG_MODULE_UPGRADE + 2;
constexpr uint32_t LOG_EVENT_SUCCEEDED = LOG_MODULE_UPGRADE + 3;
constexpr uint32_t LOG_EVENT_FILE_DELETED = LOG_MODULE_UPGRADE + 4;

constexpr uint32_t LOG_LINE_SIZE = 512;          // bytes: stamp, text, newline, NUL
constexpr uint32_t LOG_TEXT_CAPACITY = 509;      // bytes for stamp, text and NUL
constexpr uint32_t LOG_STAMP_MIN_CAPACITY = 24;  // bytes; smaller buffers get no stamp

// Every format begins with this prefix, and every call passes its four values first: function name,
// source line, module identifier, level.
#define CORVO_LOG_PREFIX ";%s;%d;%08x;%d;"

// Logs a line with `operation` as its function name, which may differ from the function that
// contains the call. `text` is a printf() format without the prefix.
#define CORVO_LOG_AS(operation, level, mask, module, text, ...)                     \
    Corvo_LogPrint(level, mask, CORVO_LOG_PREFIX text, operation, __LINE__, module, \
                   static_cast<int>(level) __VA_OPT__(, ) __VA_ARGS__)
#define CORVO_LOG(level, mask, module, text, ...) \
    CORVO_LOG_AS(__func__, level, mask, module, text __VA_OPT__(, ) __VA_ARGS__)

// Logs an ordinary line of the service.
#define UPGRADE_LOG_AS(operation, text, ...)                                            \
    CORVO_LOG_AS(operation, LOG_LEVEL_ORDINARY, LOG_OUTPUT_CONSOLE, LOG_MODULE_UPGRADE, \
                 text __VA_OPT__(, ) __VA_ARGS__)
#define UPGRADE_LOG(text, ...) UPGRADE_LOG_AS(__func__, text __VA_OPT__(, ) __VA_ARGS__)

// Logs one of the key events of an upgrade.
#define UPGRADE_EVENT_AS(operation, event, text) \
    CORVO_LOG_AS(operation, LOG_LEVEL_KEY_EVENT, LOG_OUTPUT_CONSOLE | LOG_OUTPUT_AUX, event, text)
#define UPGRADE_EVENT(event, text) UPGRADE_EVENT_AS(__func__, event, text)

// Drops the line when the gate (see below) is closed or the level is below the threshold. Otherwise
// formats the line, truncates it to LOG_LINE_SIZE and sends it to the outputs that outputMask
// selects. Returns 0.
int32_t Corvo_LogPrint(uint32_t level, uint32_t outputMask, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// Sets the threshold (3 at start) below which lines are dropped, and prints it. Returns 0.
int32_t Corvo_SetLogLevel(uint32_t level);

// The gate: while the force-init flag is set and the working flag is clear, every line is dropped.
// Both flags are clear at start. The setters print the new value.
void Corvo_SetLogOutputForceInit(uint8_t flag);
uint8_t Corvo_GetLogOutputForceInit();
void Corvo_SetLogCentorWorkingFlag(uint8_t flag);
bool Corvo_GetLogCentorWorkingFlag();

// Receives the key events in addition to standard output. No program of this camera needs them, so
// the line is ignored. Returns 0.
int32_t Corvo_LogAuxSink(uint32_t level, const char* line, uint32_t length);

// Writes the local time as MMDDhhmmss.mmm, 14 characters and a NUL, to buf. capacity is the size of
// buf in bytes. If buf is null or capacity is below LOG_STAMP_MIN_CAPACITY, prints that and writes
// nothing to buf.
void ts_format_log(char* buf, uint32_t capacity);

#endif  // LOG_LOG_FRONT_END_H
