// Thin layer over nanomsg (nn_socket(3), nn_bind(3), nn_send(3)) that turns its results into the
// producer's codes. Results not named below are LOG_PRODUCER_OK.
#ifndef LOG_KT_MMC_H
#define LOG_KT_MMC_H

#include <stdint.h>

// Opens a publish socket. LOG_PRODUCER_MISSING_ARGUMENT, LOG_PRODUCER_SOCKET_FAILED.
uint32_t KT_mmcSocket(int32_t* socket);

// Binds a socket to an address. LOG_PRODUCER_BIND_FAILED, with a line printed.
uint32_t KT_mmcBindUrl(int32_t socket, const char* url);

// LOG_PRODUCER_CLOSE_FAILED.
uint32_t KT_mmcClose(int32_t socket);

// Sends a message of nn_allocmsg(3) without a copy: on success nanomsg owns it, else the caller
// does. LOG_PRODUCER_NULL_MESSAGE, LOG_PRODUCER_SEND_FAILED.
uint32_t KT_mmcSendMsg(int32_t socket, void* const* message);

// The size, in bytes, of a message with this topic and payload. LOG_PRODUCER_MISSING_ARGUMENT.
uint32_t KT_mmcTopicMsgSize(const char* topic, uint32_t payloadSize, uint32_t* size);

// Writes topic, separator and, where it still fits, a NUL to the start of a buffer of capacity
// bytes. LOG_PRODUCER_MISSING_ARGUMENT, LOG_PRODUCER_BUFFER_TOO_SMALL.
uint32_t KT_mmcPutTopic(const char* topic, char* buffer, uint32_t capacity);

#endif  // LOG_KT_MMC_H
