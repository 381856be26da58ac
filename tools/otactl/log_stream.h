// Subscribes to the service's log lines, as the camera's log centre does.
#ifndef TOOLS_OTACTL_LOG_STREAM_H
#define TOOLS_OTACTL_LOG_STREAM_H

#include <string>

enum class StreamEvent {
    MESSAGE,  // one was received
    QUIET,    // none came within the time
    BROKEN,   // nanomsg refuses to go on
};

class LogStream {
  public:
    LogStream() = default;
    ~LogStream();
    LogStream(const LogStream&) = delete;
    LogStream& operator=(const LogStream&) = delete;

    // Subscribes at the address. Does not wait for the service: nanomsg connects, and connects
    // again, by itself. Returns false, with the reason in error, when the address is none.
    bool open(const std::string& address, std::string& error);

    // Whether the service is at the other end now.
    [[nodiscard]] bool connected() const;

    // Blocks until the service is at the other end, at most timeoutMs milliseconds. What is
    // published after that is received. Returns whether it is.
    [[nodiscard]] bool wait_connected(int timeoutMs) const;

    // Blocks for the next message, at most timeoutMs milliseconds (negative: for ever).
    StreamEvent receive(std::string& message, int timeoutMs) const;

  private:
    int socket_ = -1;
};

#endif  // TOOLS_OTACTL_LOG_STREAM_H
