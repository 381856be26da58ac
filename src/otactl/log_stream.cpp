#include "otactl/log_stream.h"

#include <errno.h>
#include <nanomsg/nn.h>
#include <nanomsg/pubsub.h>
#include <string.h>
#include <unistd.h>

#include "log/log_producer.h"

namespace {

constexpr int RECONNECT_MS =
    10;  // the service logs its first line 100 ms after it starts to publish
constexpr useconds_t CONNECT_POLL_US = 10000;
// Each side considers the connection established when it has received the other side's greeting.
// This is the time allowed for our greeting to reach the service.
constexpr useconds_t SETTLE_US = 50000;

bool set_option(int socket, int level, int option, int value) {
    return nn_setsockopt(socket, level, option, &value, sizeof(value)) == 0;
}

}  // namespace

LogStream::~LogStream() {
    if (socket_ >= 0) {
        nn_close(socket_);
    }
}

bool LogStream::open(const std::string& address, std::string& error) {
    socket_ = nn_socket(AF_SP, NN_SUB);
    if (socket_ < 0 || !set_option(socket_, NN_SOL_SOCKET, NN_RECONNECT_IVL, RECONNECT_MS) ||
        nn_setsockopt(socket_, NN_SUB, NN_SUB_SUBSCRIBE, CORVO_LOG_PUB_TOPIC,
                      strlen(CORVO_LOG_PUB_TOPIC)) != 0 ||
        nn_connect(socket_, address.c_str()) < 0) {
        error = nn_strerror(nn_errno());
        return false;
    }
    return true;
}

bool LogStream::connected() const {
    const auto connections =
        static_cast<int64_t>(nn_get_statistic(socket_, NN_STAT_CURRENT_CONNECTIONS));
    return connections > 0;
}

bool LogStream::wait_connected(int timeoutMs) const {
    const int attempts = timeoutMs * 1000 / static_cast<int>(CONNECT_POLL_US);
    for (int i = 0; i < attempts; ++i) {
        if (connected()) {
            usleep(SETTLE_US);
            return true;
        }
        usleep(CONNECT_POLL_US);
    }
    return false;
}

StreamEvent LogStream::receive(std::string& message, int timeoutMs) const {
    set_option(socket_, NN_SOL_SOCKET, NN_RCVTIMEO, timeoutMs);
    void* body = nullptr;
    const int size = nn_recv(socket_, &body, NN_MSG, 0);
    if (size < 0) {
        const int fault = nn_errno();
        return fault == ETIMEDOUT || fault == EAGAIN || fault == EINTR ? StreamEvent::QUIET
                                                                       : StreamEvent::BROKEN;
    }
    message.assign(static_cast<const char*>(body), static_cast<size_t>(size));
    nn_freemsg(body);
    return StreamEvent::MESSAGE;
}
