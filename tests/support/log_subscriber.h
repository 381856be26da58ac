// A subscriber of the service's log.
#ifndef TESTS_SUPPORT_LOG_SUBSCRIBER_H
#define TESTS_SUPPORT_LOG_SUBSCRIBER_H

#include <nanomsg/nn.h>
#include <nanomsg/pubsub.h>

#include <string>

constexpr char LOG_SOCKET[] = "/tmp/corvo_log_pub_ipc010";

class LogSubscriber {
  public:
    explicit LogSubscriber(const std::string& topic = "") : socket_(nn_socket(AF_SP, NN_SUB)) {
        nn_setsockopt(socket_, NN_SUB, NN_SUB_SUBSCRIBE, topic.data(), topic.size());
        nn_connect(socket_, ("ipc://" + std::string(LOG_SOCKET)).c_str());
    }
    ~LogSubscriber() { nn_close(socket_); }
    LogSubscriber(const LogSubscriber&) = delete;
    LogSubscriber& operator=(const LogSubscriber&) = delete;

    [[nodiscard]] bool is_connected() const {
        return nn_get_statistic(socket_, NN_STAT_CURRENT_CONNECTIONS) > 0;
    }
    // The next record; "" when there is none for that long.
    [[nodiscard]] std::string next(int patienceMs) const {
        char record[2048];
        nn_setsockopt(socket_, NN_SOL_SOCKET, NN_RCVTIMEO, &patienceMs, sizeof(patienceMs));
        const int size = nn_recv(socket_, record, sizeof(record), 0);
        return size < 0 ? "" : std::string(record, static_cast<size_t>(size));
    }

  private:
    int socket_;
};

#endif  // TESTS_SUPPORT_LOG_SUBSCRIBER_H
