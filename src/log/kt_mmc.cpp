#include "kt_mmc.h"

#include <errno.h>
#include <nanomsg/nn.h>
#include <nanomsg/pubsub.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>

#include "log/log_producer.h"

namespace {

// Returns whether nanomsg may bind to the address. If the path of the socket is a directory,
// nanomsg would abort the process; if it is a file, nanomsg would delete it. Only a socket, left by
// an earlier run, may be replaced.
bool may_bind(const char* url) {
    constexpr char IPC_SCHEME[] = "ipc://";
    constexpr size_t SCHEME_LENGTH = sizeof(IPC_SCHEME) - 1;
    struct stat status = {};
    if (strncmp(url, IPC_SCHEME, SCHEME_LENGTH) != 0 || lstat(url + SCHEME_LENGTH, &status) != 0 ||
        S_ISSOCK(status.st_mode)) {
        return true;
    }
    errno = EADDRINUSE;
    return false;
}

}  // namespace

uint32_t KT_mmcSocket(int32_t* socket) {
    if (socket == nullptr) {
        return LOG_PRODUCER_MISSING_ARGUMENT;
    }
    const int opened = nn_socket(AF_SP, NN_PUB);
    if (opened < 0) {
        return LOG_PRODUCER_SOCKET_FAILED;
    }
    *socket = opened;
    return LOG_PRODUCER_OK;
}

uint32_t KT_mmcBindUrl(int32_t socket, const char* url) {
    const int result = may_bind(url) ? nn_bind(socket, url) : -1;
    if (result < 0) {
        printf("KT_mmcBindUrl error %d erron %d(%s) socket %d url %s\n", result, nn_errno(),
               nn_strerror(nn_errno()), socket, url);
        return LOG_PRODUCER_BIND_FAILED;
    }
    return LOG_PRODUCER_OK;
}

uint32_t KT_mmcClose(int32_t socket) {
    return nn_close(socket) < 0 ? LOG_PRODUCER_CLOSE_FAILED : LOG_PRODUCER_OK;
}

uint32_t KT_mmcSendMsg(int32_t socket, void* const* message) {
    if (message == nullptr || *message == nullptr) {
        return LOG_PRODUCER_NULL_MESSAGE;
    }
    return nn_send(socket, message, NN_MSG, 0) < 0 ? LOG_PRODUCER_SEND_FAILED : LOG_PRODUCER_OK;
}

uint32_t KT_mmcTopicMsgSize(const char* topic, uint32_t payloadSize, uint32_t* size) {
    if (topic == nullptr || size == nullptr) {
        return LOG_PRODUCER_MISSING_ARGUMENT;
    }
    *size = static_cast<uint32_t>(strlen(topic) + strlen(CORVO_LOG_TOPIC_SEPARATOR)) + payloadSize;
    return LOG_PRODUCER_OK;
}

uint32_t KT_mmcPutTopic(const char* topic, char* buffer, uint32_t capacity) {
    if (topic == nullptr || buffer == nullptr) {
        return LOG_PRODUCER_MISSING_ARGUMENT;
    }
    const size_t topicLength = strlen(topic);
    const size_t length = topicLength + strlen(CORVO_LOG_TOPIC_SEPARATOR);
    if (capacity < length) {
        return LOG_PRODUCER_BUFFER_TOO_SMALL;
    }
    char* const separator = std::copy_n(topic, topicLength, buffer);
    // Also copies the separator's terminating NUL if the buffer has room for it.
    std::copy_n(CORVO_LOG_TOPIC_SEPARATOR,
                std::min<size_t>(capacity - topicLength, sizeof(CORVO_LOG_TOPIC_SEPARATOR)),
                separator);
    return LOG_PRODUCER_OK;
}
