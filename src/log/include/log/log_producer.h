// Publishes log lines to the camera's log centre over a nanomsg publish socket. A line that cannot
// be sent is lost, and a slow subscriber never blocks the service.
//
// Each line is one message: the topic, "|", a LogRecord, then the bytes of the line including its
// newline and NUL.
#ifndef LOG_LOG_PRODUCER_H
#define LOG_LOG_PRODUCER_H

#include <stddef.h>
#include <stdint.h>

// The address and the topic are both followed by the module number as three decimal digits.
#define CORVO_LOG_PUB_ADDRESS "ipc:///tmp/corvo_log_pub_ipc"
#define CORVO_LOG_PUB_TOPIC "/platform/v1/corvo/log"
#define CORVO_LOG_NUMBER_FORMAT "%03d"
#define CORVO_LOG_TOPIC_SEPARATOR "|"

// The module of the service: as the one-bit mask for Corvo_LogProducerInit, and as the number in
// the address and the topic.
constexpr uint32_t CORVO_LOG_MODULE_MASK = 512;
constexpr int32_t CORVO_LOG_MODULE_NUMBER = 10;

// The header between the separator and the line. Not aligned within the message.
struct LogRecord {
    uint32_t level;
    uint32_t length;  // bytes of the line, including newline and NUL
};
static_assert(sizeof(LogRecord) == 8);
static_assert(offsetof(LogRecord, length) == 4);

enum LogProducerResult : uint32_t {
    LOG_PRODUCER_OK = 0,
    LOG_PRODUCER_MISSING_ARGUMENT = 1,  // a pointer is null, or the module mask is 0
    LOG_PRODUCER_NO_MEMORY = 3,         // the message could not be allocated
    LOG_PRODUCER_BUFFER_TOO_SMALL = 5,  // the buffer cannot hold topic and separator
    LOG_PRODUCER_ALREADY_OPEN = 6,
    LOG_PRODUCER_NULL_MESSAGE = 22,
    LOG_PRODUCER_SOCKET_FAILED = 100,
    LOG_PRODUCER_CLOSE_FAILED = 101,
    LOG_PRODUCER_BIND_FAILED = 103,
    LOG_PRODUCER_SEND_FAILED = 105,
};

// Opens the publish socket of a module and waits 100 ms for subscribers to connect. The module's
// number is the bit length of the mask (512 is module 10). Call once. Lines that other threads log
// before the socket is open are not published.
// Returns LOG_PRODUCER_OK, _MISSING_ARGUMENT, _ALREADY_OPEN, _SOCKET_FAILED or _BIND_FAILED.
uint32_t Corvo_LogProducerInit(uint32_t moduleMask);

// Closes the socket if it is open. No other thread may log at the same time.
void Corvo_LogProducerUnInit();

// Publishes one line of length bytes, including its newline and NUL. Never blocks. Any thread may
// call it. Returns LOG_PRODUCER_OK, _NO_MEMORY, _BUFFER_TOO_SMALL or _SEND_FAILED (also while the
// producer is not open).
uint32_t Corvo_LogProducerSend(uint32_t level, const char* line, uint32_t length);

#endif  // LOG_LOG_PRODUCER_H
