// Subscribes to the service's log lines, as the camera's log centre does.
#ifndef OTACTL_LOG_STREAM_H
#define OTACTL_LOG_STREAM_H

#include <string>

enum class StreamEvent {
    MESSAGE,  // a message was received
    QUIET,    // no message was received within the time limit
    BROKEN,   // nanomsg reported an error; the stream is unusable
};

class LogStream {
  public:
    LogStream() = default;
    ~LogStream();
    LogStream(const LogStream&) = delete;
    LogStream& operator=(const LogStream&) = delete;

    // Subscribes at the address. Does not wait for the service: nanomsg connects and reconnects in
    // the background. Returns false, with the reason in `error`, when the address is not valid.
    bool open(const std::string& address, std::string& error);

    // Returns whether the service is connected now.
    [[nodiscard]] bool connected() const;

    // Blocks until the service is connected, at most timeoutMs milliseconds. All messages that are
    // published after that are received. Returns whether the service is connected.
    [[nodiscard]] bool wait_connected(int timeoutMs) const;

    // Waits for the next message, at most timeoutMs milliseconds (negative: without limit).
    StreamEvent receive(std::string& message, int timeoutMs) const;

  private:
    int socket_ = -1;
};

#endif  // OTACTL_LOG_STREAM_H
