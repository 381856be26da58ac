// Publishes log lines to the camera's log centre over a nanomsg publish socket. Fire and forget: a
// line that cannot be sent is lost, and no subscriber can hold the service up.
//
// One message per line: the topic, "|", a LogRecord, then the line's bytes with its newline and
// NUL.
#ifndef LOG_LOG_PRODUCER_H
#define LOG_LOG_PRODUCER_H

#include <stddef.h>
#include <stdint.h>

// The module number, as three decimal digits, follows both.
#define CORVO_LOG_PUB_ADDRESS "ipc:///tmp/corvo_log_pub_ipc"
#define CORVO_LOG_PUB_TOPIC "/platform/v1/corvo/log"
#define CORVO_LOG_NUMBER_FORMAT "%03d"
#define CORVO_LOG_TOPIC_SEPARATOR "|"

// The service's module, as the one-bit mask that Corvo_LogProducerInit takes and as the number that
// stands in address and topic.
constexpr uint32_t CORVO_LOG_MODULE_MASK = 512;
constexpr int32_t CORVO_LOG_MODULE_NUMBER = 10;

// What stands between separator and line. Not aligned within the message.
struct LogRecord {
    uint32_t level;
    uint32_t length;  // bytes of the line, newline and NUL included
};
static_assert(sizeof(LogRecord) == 8);
static_assert(offsetof(LogRecord, length) == 4);

enum LogProducerResult : uint32_t {
    LOG_PRODUCER_OK = 0,
    LOG_PRODUCER_MISSING_ARGUMENT = 1,  // a module mask of 0, or no topic
    LOG_PRODUCER_NO_MEMORY = 3,         // the message could not be allocated
    LOG_PRODUCER_BUFFER_TOO_SMALL = 5,  // no room for topic and separator
    LOG_PRODUCER_ALREADY_OPEN = 6,
    LOG_PRODUCER_NULL_MESSAGE = 22,
    LOG_PRODUCER_SOCKET_FAILED = 100,
    LOG_PRODUCER_CLOSE_FAILED = 101,
    LOG_PRODUCER_BIND_FAILED = 103,
    LOG_PRODUCER_SEND_FAILED = 105,
};

// Opens the publish socket of the module whose number is the mask's bit length (512: 10) and waits
// 100 ms for subscribers. Call once; what other threads log before it is done is not published.
// Returns LOG_PRODUCER_OK, _MISSING_ARGUMENT, _ALREADY_OPEN, _SOCKET_FAILED or _BIND_FAILED.
uint32_t Corvo_LogProducerInit(uint32_t moduleMask);

// Closes the socket if it is open; no other thread may be logging.
void Corvo_LogProducerUnInit();

// Publishes one line of length bytes, newline and NUL included. Never blocks; any thread.
// Returns LOG_PRODUCER_OK, _NO_MEMORY, _BUFFER_TOO_SMALL or _SEND_FAILED (also while the producer
// is not open).
uint32_t Corvo_LogProducerSend(uint32_t level, const char* line, uint32_t length);

#endif  // LOG_LOG_PRODUCER_H
