#include "log/log_producer.h"

#include <nanomsg/nn.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <bit>

#include "kt_mmc.h"

namespace {

constexpr int32_t NO_SOCKET = -1;
constexpr size_t NAME_SIZE = 64;                       // bytes, terminator included
constexpr useconds_t SUBSCRIBERS_CONNECT_US = 100000;  // earlier lines would reach no subscriber

// The signal thread may log while the main thread is still opening the producer. The socket is
// therefore stored only after the topic has been written.
std::atomic<int32_t> g_producer_socket{NO_SOCKET};
char g_log_topic[NAME_SIZE];

uint32_t open_and_bind(const char* address, int32_t* socket) {
    uint32_t result = KT_mmcSocket(socket);
    if (result != LOG_PRODUCER_OK) {
        return result;
    }
    result = KT_mmcBindUrl(*socket, address);
    if (result != LOG_PRODUCER_OK) {
        KT_mmcClose(*socket);
    }
    return result;
}

}  // namespace

uint32_t Corvo_LogProducerInit(uint32_t moduleMask) {
    if (moduleMask == 0) {
        return LOG_PRODUCER_MISSING_ARGUMENT;
    }
    const int number = static_cast<int>(std::bit_width(moduleMask));
    int32_t socket = g_producer_socket.load();
    if (socket >= 0) {
        printf("log producer sock has exist %d\n", socket);
        return LOG_PRODUCER_ALREADY_OPEN;
    }
    char address[NAME_SIZE] = {};
    snprintf(address, sizeof(address), CORVO_LOG_PUB_ADDRESS CORVO_LOG_NUMBER_FORMAT, number);
    const uint32_t result = open_and_bind(address, &socket);
    if (result != LOG_PRODUCER_OK) {
        Corvo_LogProducerUnInit();
        return result;
    }
    snprintf(g_log_topic, sizeof(g_log_topic), CORVO_LOG_PUB_TOPIC CORVO_LOG_NUMBER_FORMAT, number);
    g_producer_socket.store(socket, std::memory_order_release);
    usleep(SUBSCRIBERS_CONNECT_US);
    return LOG_PRODUCER_OK;
}

void Corvo_LogProducerUnInit() {
    const int32_t socket = g_producer_socket.exchange(NO_SOCKET);
    if (socket >= 0) {
        KT_mmcClose(socket);
    }
    printf("Corvo_LogProducerUnInit\n");
}

uint32_t Corvo_LogProducerSend(uint32_t level, const char* line, uint32_t length) {
    const int32_t socket = g_producer_socket.load(std::memory_order_acquire);
    if (socket < 0) {
        return LOG_PRODUCER_SEND_FAILED;
    }
    const LogRecord head = {level, length};
    uint32_t size = 0;
    KT_mmcTopicMsgSize(g_log_topic, static_cast<uint32_t>(sizeof(head)) + length, &size);
    void* message = nn_allocmsg(size, 0);
    if (message == nullptr) {
        return LOG_PRODUCER_NO_MEMORY;
    }
    char* const bytes = static_cast<char*>(message);
    uint32_t result = KT_mmcPutTopic(g_log_topic, bytes, size);
    if (result == LOG_PRODUCER_OK) {
        char* const record = bytes + strlen(g_log_topic) + strlen(CORVO_LOG_TOPIC_SEPARATOR);
        memcpy(record, &head, sizeof(head));
        memcpy(record + sizeof(head), line, length);
        result = KT_mmcSendMsg(socket, &message);
    }
    if (result != LOG_PRODUCER_OK) {
        nn_freemsg(message);
    }
    return result;
}
