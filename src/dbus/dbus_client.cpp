// The client role: calls, signals, and the thread that reads the replies.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "base/alternate_stack.h"
#include "base/monotonic_clock.h"
#include "base/scoped_lock.h"
#include "base/unique_fd.h"
#include "dbus/dbus_socket_common.h"
#include "endpoint.h"
#include "pending_calls.h"
#include "record_stream.h"

#define DBUS_SOURCE DBUS_TRANSPORT
#include "dbus_print.h"

namespace {

constexpr useconds_t REPLACE_PAUSE_US = 1000;

// The state of the connection, used only by the reader thread.
struct Connection {
    RecordReader reader;
    int64_t madeAtMs;        // time of connecting, on the monotonic clock
    bool answered;           // a whole record has been received
    int32_t failedAttempts;  // attempts to connect that failed since the last usable connection
};

// Tries to connect until DBUS_CONNECT_ATTEMPTS attempts have failed, including the *failedAttempts
// earlier ones, or until the endpoint is being closed. Returns whether the socket is connected. The
// socket must be non-blocking, because connect(2) would otherwise block forever when the backlog of
// a server that does not accept is full. Once connected, it is made blocking.
bool connect_with_retries(const SystemCallDbusInfo& info, int fd, int32_t* failedAttempts) {
    const sockaddr_un address = dbus_server_address(info.serverName);
    for (; *failedAttempts < DBUS_CONNECT_ATTEMPTS && !info.stopping; ++*failedAttempts) {
        if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
            fcntl(fd, F_SETFL, 0);
            return true;
        }
        usleep(DBUS_CONNECT_PAUSE_MS * 1000);
    }
    return false;
}

// Reconnects to the server. Holds the endpoint lock meanwhile, so that callers wait for the new
// connection: a record written to the lost one would never arrive.
int32_t SystemCall_Dbus_Method_Reconnect_Daemon(SystemCallDbusInfo* info, Connection* connection) {
    DBUS_INFO("server socket is closed, reconnect daemon");
    const corvo::ScopedLock lock(info->lock);
    if (info->serverName[0] == '\0') {
        return DBUS_OK;
    }
    // A server that is terminating still accepts connections until it ends. A connection that is
    // lost soon and without a reply probably reached such a server. It counts as a failed attempt,
    // and the pause gives a new server time to start.
    if (!connection->answered &&
        corvo::monotonic_ms() - connection->madeAtMs < DBUS_CONNECT_PAUSE_MS) {
        ++connection->failedAttempts;
        usleep(DBUS_CONNECT_PAUSE_MS * 1000);
    } else {
        connection->failedAttempts = 0;
    }
    if (info->connectionSocket > 0) {
        close(info->connectionSocket);
    }
    info->connectionSocket = -1;
    corvo::UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd.valid()) {
        DBUS_DEBUG("Cannot create communication socket, errno:%d (%s)", errno, strerror(errno));
        return DBUS_SOCKET_FAILED;
    }
    if (!connect_with_retries(*info, fd.get(), &connection->failedAttempts)) {
        if (!info->stopping) {
            DBUS_ERROR("Cannot reconnect to the server (%s) timeout", info->serverName);
        }
        return DBUS_CONNECT_FAILED;
    }
    info->connectionSocket = fd.release();
    connection->madeAtMs = corvo::monotonic_ms();
    connection->answered = false;
    return DBUS_OK;
}

void pass_to_caller(SystemCallDbusInfo* info, const SystemCallDbusMsg& reply) {
    SystemCall_Dbus_Method_Msg_Result(info, &reply);
    SystemCall_Dbus_Method_Wakeup(info, &reply);
}

// Handles a read that returned no bytes: reconnects if the connection is lost. Returns whether the
// reader thread continues.
bool handle_empty_read(const char* operation, SystemCallDbusInfo* info, Connection* connection,
                       ssize_t byteCount) {
    const int reason = errno;
    if (info->stopping) {
        return false;
    }
    if (reason == EINTR) {
        DBUS_WARN_AS(operation, "read socket data interrupt ret:%zd errno:%d (%s)", byteCount,
                     reason, strerror(reason));
        return true;
    }
    // ECONNRESET is a lost connection as well: it replaces the end of file when the server ends
    // with unread records or before it has accepted the connection.
    if (byteCount < 0 && reason != ECONNRESET) {
        DBUS_ERROR_AS(operation, "read socket data failed exit this thread, ret:%zd errno:%d (%s)",
                      byteCount, reason, strerror(reason));
        return false;
    }
    DBUS_ERROR_AS(operation, "disconnect with server, reconnect, ret:%zd errno:%d (%s)", byteCount,
                  reason, strerror(reason));
    // Discard the part of a record that was read from the lost connection.
    connection->reader = {};
    return SystemCall_Dbus_Method_Reconnect_Daemon(info, connection) == DBUS_OK;
}

void* SystemCall_Dbus_Method_Thread(void* argument) {
    const corvo::AlternateStack crashStack;
    SystemCallDbusInfo* const info = static_cast<SystemCallDbusInfo*>(argument);
    dbus_name_thread("DbusProcess");
    Connection connection = {};
    connection.madeAtMs = corvo::monotonic_ms();
    bool keepReading = true;
    while (keepReading) {
        // Only this thread replaces the socket, so it may read it without the lock.
        ssize_t byteCount = 0;
        switch (record_read(&connection.reader, info->connectionSocket, &byteCount)) {
            case RECORD_COMPLETE:
                connection.answered = true;
                pass_to_caller(info, connection.reader.record);
                break;
            case RECORD_INCOMPLETE:
                break;
            case RECORD_BAD_HEAD:
                DBUS_ERROR("read result head is invalid, ret = %zd head:%x", byteCount,
                           connection.reader.badHead);
                break;
            case RECORD_END:
            case RECORD_FAILED:
                keepReading = handle_empty_read(__func__, info, &connection, byteCount);
                break;
        }
    }
    info->reading = false;
    return nullptr;
}

SystemCallDbusMsg new_record(const SystemCallDbusInfo& info, const char* destination,
                             SystemCallDbusMsgType type, const char* method, const void* data,
                             uint32_t dataLen) {
    SystemCallDbusMsg record = {};
    record.head = SYSTEM_CALL_DBUS_HEAD;
    record.type = type;
    snprintf(record.sender, sizeof(record.sender), "%s", info.name);
    snprintf(record.destination, sizeof(record.destination), "%s", destination);
    snprintf(record.method, sizeof(record.method), "%s", method);
    if (data != nullptr && dataLen != 0) {
        memcpy(record.data, data, dataLen);
        record.len = dataLen;
    }
    return record;
}

// Returns whether the endpoint has a client role and the data is short enough to be sent. If not,
// prints the reason.
bool may_send(const char* operation, const SystemCallDbusInfo* info, const char* destination,
              const char* method, uint32_t dataLen) {
    if (info == nullptr) {
        DBUS_ERROR_AS(operation, "dbusInfo is NULL, %s %s not sent", destination, method);
        return false;
    }
    if (info->serverName[0] == '\0') {
        DBUS_ERROR_AS(operation, "%s is no client, %s %s not sent", info->name, destination,
                      method);
        return false;
    }
    if (dataLen > SYSTEM_CALL_DBUS_DATA_SIZE) {
        DBUS_ERROR_AS(operation, "%s %s data of %u bytes is too long, at most %u", destination,
                      method, dataLen, SYSTEM_CALL_DBUS_DATA_SIZE);
        return false;
    }
    return true;
}

// Returns whether the peer has closed the connection. False for a descriptor of -1, because writing
// to it fails immediately.
bool hung_up(int fd) {
    pollfd connection = {.fd = fd, .events = 0, .revents = 0};
    return poll(&connection, 1, 0) > 0 && (connection.revents & (POLLHUP | POLLERR)) != 0;
}

// Writes the record while holding the endpoint lock. If the server has closed the connection but
// the reader thread has not noticed yet, waits for the reader to reconnect, at most
// SYSTEM_CALL_DBUS_CONNECT_MS. Otherwise the record would be lost although a new server may already
// be listening. Returns the result of record_write().
ssize_t write_record(SystemCallDbusInfo* info, const SystemCallDbusMsg& record) {
    const int64_t deadline = corvo::monotonic_ms() + SYSTEM_CALL_DBUS_CONNECT_MS;
    while (true) {
        {
            const corvo::ScopedLock lock(info->lock);
            if (!info->reading || !hung_up(info->connectionSocket) ||
                corvo::monotonic_ms() >= deadline) {
                return record_write(info->connectionSocket, record);
            }
        }
        usleep(REPLACE_PAUSE_US);
    }
}

// Starts the reader thread with all signals blocked, so that the process's other threads handle
// them. Signals for faults stay unblocked, because they are raised by the thread itself.
int start_reader(SystemCallDbusInfo* info) {
    sigset_t blocked;
    sigset_t before;
    sigfillset(&blocked);
    for (const int fault : {SIGSEGV, SIGABRT, SIGBUS, SIGFPE, SIGILL}) {
        sigdelset(&blocked, fault);
    }
    pthread_sigmask(SIG_BLOCK, &blocked, &before);
    info->reading = true;
    const int started =
        pthread_create(&info->methodThread, nullptr, SystemCall_Dbus_Method_Thread, info);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    return started;
}

}  // namespace

int32_t dbus_client_open(SystemCallDbusInfo* info) {
    corvo::UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd.valid()) {
        DBUS_ERROR_AS(DBUS_REGISTER, "Cannot create communication socket, errno:%d (%s)", errno,
                      strerror(errno));
        return DBUS_SOCKET_FAILED;
    }
    int32_t failedAttempts = 0;
    if (!connect_with_retries(*info, fd.get(), &failedAttempts)) {
        DBUS_ERROR_AS(DBUS_REGISTER, "Cannot connect to the server (%s) timeout", info->serverName);
        return DBUS_CONNECT_FAILED;
    }
    info->connectionSocket = fd.release();
    const int started = start_reader(info);
    if (started != 0) {
        DBUS_ERROR_AS(DBUS_REGISTER, "Cannot start the reader thread: %s", strerror(started));
        close(info->connectionSocket);
        info->connectionSocket = 0;
        return DBUS_NO_MEMORY;
    }
    return DBUS_OK;
}

void dbus_client_close(SystemCallDbusInfo* info) {
    {
        // The lock waits for a reconnection in progress, which ends early because `stopping` is
        // set. So this shuts down the newest socket.
        const corvo::ScopedLock lock(info->lock);
        if (info->connectionSocket == 0) {
            return;  // no client role, or opening it failed
        }
        shutdown(info->connectionSocket, SHUT_RDWR);  // makes the reader's read(2) return
    }
    pthread_join(info->methodThread, nullptr);
    if (info->connectionSocket > 0) {
        close(info->connectionSocket);
    }
    info->connectionSocket = 0;
}

int32_t SystemCall_Dbus_Call_Method(SystemCallDbusInfo* info, const char* destination,
                                    const char* method, const void* data, uint32_t dataLen,
                                    void* result, uint32_t resultCapacity, int32_t timeoutMs,
                                    bool* sent) {
    if (sent != nullptr) {
        *sent = false;
    }
    if (!may_send(__func__, info, destination, method, dataLen)) {
        return DBUS_INVALID_ARGUMENT;
    }
    SystemCallDbusMsg call =
        new_record(*info, destination, SYSTEM_CALL_DBUS_TYPE_METHOD, method, data, dataLen);
    call.id = rand();
    // Add the entry before writing the record, or a quick reply would find no entry.
    const int32_t pushed = SystemCall_Dbus_Method_Msg_Push(info, &call);
    if (pushed != DBUS_OK) {
        DBUS_ERROR("SystemCall_Dbus_Method_Msg_Push failed, ret = %d", pushed);
        return pushed;
    }
    SystemCallDbusMsg reply = {};
    const ssize_t written = write_record(info, call);
    if (sent != nullptr) {
        *sent = written > 0;
    }
    if (written == 0) {
        DBUS_ERROR("write 0 buffer");
    }
    if (written < 0) {
        DBUS_ERROR("%s %s write failed, ret = %zd", destination, method, written);
        SystemCall_Dbus_Method_Msg_Pop(info, &call, &reply);
        return DBUS_WRITE_FAILED;
    }
    const int32_t waited = SystemCall_Dbus_Method_Wait(info, &call, timeoutMs);
    if (waited < 0) {
        DBUS_ERROR("%s %s wait failed, ret = %d", destination, method, waited);
        return waited;
    }
    if (waited == METHOD_WAIT_TIMED_OUT) {
        DBUS_WARN("%s %s Wait Timeout", destination, method);
    }
    if (SystemCall_Dbus_Method_Msg_Pop(info, &call, &reply) != METHOD_POP_REPLIED) {
        DBUS_ERROR("%s %s failed (ret = %d)", destination, method, DBUS_CALL_FAILED);
        return DBUS_CALL_FAILED;
    }
    if (result != nullptr) {
        memcpy(result, reply.data, reply.len < resultCapacity ? reply.len : resultCapacity);
    }
    return reply.ret;
}

int32_t SystemCall_Dbus_Send_Signal(SystemCallDbusInfo* info, const char* destination,
                                    const char* signal, const void* data, uint32_t dataLen) {
    if (!may_send(__func__, info, destination, signal, dataLen)) {
        return DBUS_INVALID_ARGUMENT;
    }
    const SystemCallDbusMsg record =
        new_record(*info, destination, SYSTEM_CALL_DBUS_TYPE_SIGNAL, signal, data, dataLen);
    const ssize_t written = write_record(info, record);
    if (written < 0) {
        DBUS_ERROR("%s %s write failed, ret = %zd", destination, signal, written);
        return DBUS_WRITE_FAILED;
    }
    return static_cast<int32_t>(written);
}
