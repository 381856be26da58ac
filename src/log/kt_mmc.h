// Thin layer over nanomsg (nn_socket(3), nn_bind(3), nn_send(3)) that converts its results to
// LogProducerResult. Each function returns LOG_PRODUCER_OK or one of the codes named with it.
#ifndef LOG_KT_MMC_H
#define LOG_KT_MMC_H

#include <stdint.h>

// Opens a publish socket. Failures: LOG_PRODUCER_MISSING_ARGUMENT, LOG_PRODUCER_SOCKET_FAILED.
uint32_t KT_mmcSocket(int32_t* socket);

// Binds a socket to an address. Failures: LOG_PRODUCER_BIND_FAILED; a line is printed.
uint32_t KT_mmcBindUrl(int32_t socket, const char* url);

// Closes a socket. Failures: LOG_PRODUCER_CLOSE_FAILED.
uint32_t KT_mmcClose(int32_t socket);

// Sends a message that nn_allocmsg(3) allocated, without copying it. After a success nanomsg owns
// the message, after a failure the caller still does. Failures: LOG_PRODUCER_NULL_MESSAGE,
// LOG_PRODUCER_SEND_FAILED.
uint32_t KT_mmcSendMsg(int32_t socket, void* const* message);

// Sets *size to the size, in bytes, of a message with this topic and payload. Failures:
// LOG_PRODUCER_MISSING_ARGUMENT.
uint32_t KT_mmcTopicMsgSize(const char* topic, uint32_t payloadSize, uint32_t* size);

// Writes the topic, the separator and, if it fits, a NUL to the start of a buffer of capacity
// bytes. Failures: LOG_PRODUCER_MISSING_ARGUMENT, LOG_PRODUCER_BUFFER_TOO_SMALL.
uint32_t KT_mmcPutTopic(const char* topic, char* buffer, uint32_t capacity);

#endif  // LOG_KT_MMC_H
