#include "log_by_hand.h"

#include <nanomsg/nn.h>
#include <nanomsg/pubsub.h>
#include <stdio.h>
#include <string.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

namespace {

constexpr char TOPIC[] = "/platform/v1/corvo/log010|";
constexpr size_t TOPIC_LENGTH = sizeof(TOPIC) - 1;

}  // namespace

int open_by_hand() {
    const int socket = nn_socket(AF_SP, NN_PUB);
    nn_bind(socket, "ipc:///tmp/by_hand");
    return socket;
}

void log_by_hand(int socket, const char* stamp, const char* function, int line, uint32_t module,
                 int level, const char* partition) {
    char text[512];
    const int length =
        snprintf(text, sizeof(text), "%s;%s;%d;%08x;%d;partition: %s upgrade success\n", stamp,
                 function, line, module, level, partition);
    if (write(STDOUT_FILENO, text, static_cast<size_t>(length)) != length) {
        return;
    }
    const uint32_t head[2] = {static_cast<uint32_t>(level), static_cast<uint32_t>(length + 1)};
    void* message = nn_allocmsg(TOPIC_LENGTH + sizeof(head) + head[1], 0);
    char* const bytes = static_cast<char*>(message);
    memcpy(bytes, TOPIC, TOPIC_LENGTH);
    memcpy(bytes + TOPIC_LENGTH, head, sizeof(head));
    memcpy(bytes + TOPIC_LENGTH + sizeof(head), text, head[1]);
    nn_send(socket, &message, NN_MSG, 0);
}

void log_by_hand_with_time(int socket, const char* function, int line, uint32_t module, int level,
                           const char* partition) {
    timeval now = {};
    gettimeofday(&now, nullptr);
    tm local = {};
    localtime_r(&now.tv_sec, &local);
    char stamp[64];
    snprintf(stamp, sizeof(stamp), "%02d%02d%02d%02d%02d.%03ld", local.tm_mon + 1, local.tm_mday,
             local.tm_hour, local.tm_min, local.tm_sec, static_cast<long>(now.tv_usec / 1000));
    log_by_hand(socket, stamp, function, line, module, level, partition);
}

int32_t empty_call(uint32_t /*level*/, uint32_t /*outputMask*/, const char* /*format*/, ...) {
    return 0;
}
