// The client role: calls, signals, and the thread that reads the replies.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include "base/alternate_stack.h"
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

// What the reader thread knows of its connection.
struct Connection {
    RecordReader reader;
    int64_t madeAtMs;        // on the monotonic clock
    bool answered;           // a record has come over it
    int32_t failedAttempts;  // to reach a server, since the last connection that lived
};

int64_t monotonic_ms() {
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

// Tries until all but the attempts that have failed already are spent. Returns whether the server
// was reached; gives up early when the endpoint is being closed. The socket comes non-blocking, or
// a server that accepts nobody would hold an attempt for ever once its backlog is full; connected,
// it blocks.
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

// Callers wait on the endpoint lock meanwhile: a record written to a dead connection would be lost.
int32_t SystemCall_Dbus_Method_Reconnect_Daemon(SystemCallDbusInfo* info, Connection* connection) {
    DBUS_INFO("server socket is closed, reconnect daemon");
    const corvo::ScopedLock lock(info->lock);
    if (info->serverName[0] == '\0') {
        return DBUS_OK;
    }
    // A server that dies takes connections until its very end. One that is lost at once,
    // unanswered, reached such a server: it is an attempt that failed, and there may be no better
    // one for a while.
    if (!connection->answered && monotonic_ms() - connection->madeAtMs < DBUS_CONNECT_PAUSE_MS) {
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
    connection->madeAtMs = monotonic_ms();
    connection->answered = false;
    return DBUS_OK;
}

void hand_to_caller(SystemCallDbusInfo* info, const SystemCallDbusMsg& reply) {
    SystemCall_Dbus_Method_Msg_Result(info, &reply);
    SystemCall_Dbus_Method_Wakeup(info, &reply);
}

// Deals with a read that brought no byte. Returns whether the reader goes on.
bool go_on_after_empty_read(const char* operation, SystemCallDbusInfo* info, Connection* connection,
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
    // A server that is killed, or dies with a record unread or a connection not yet accepted,
    // leaves a reset where one that closes leaves an end.
    if (byteCount < 0 && reason != ECONNRESET) {
        DBUS_ERROR_AS(operation, "read socket data failed exit this thread, ret:%zd errno:%d (%s)",
                      byteCount, reason, strerror(reason));
        return false;
    }
    DBUS_ERROR_AS(operation, "disconnect with server, reconnect, ret:%zd errno:%d (%s)", byteCount,
                  reason, strerror(reason));
    // What was gathered of a record belongs to the connection that is gone.
    connection->reader = {};
    return SystemCall_Dbus_Method_Reconnect_Daemon(info, connection) == DBUS_OK;
}

void* SystemCall_Dbus_Method_Thread(void* argument) {
    const corvo::AlternateStack crashStack;
    SystemCallDbusInfo* const info = static_cast<SystemCallDbusInfo*>(argument);
    dbus_name_thread("DbusProcess");
    Connection connection = {};
    connection.madeAtMs = monotonic_ms();
    bool goOn = true;
    while (goOn) {
        // Only this thread replaces the socket, so it may read it without the lock.
        ssize_t byteCount = 0;
        switch (record_read(&connection.reader, info->connectionSocket, &byteCount)) {
            case RECORD_COMPLETE:
                connection.answered = true;
                hand_to_caller(info, connection.reader.record);
                break;
            case RECORD_INCOMPLETE:
                break;
            case RECORD_BAD_HEAD:
                DBUS_ERROR("read result head is invalid, ret = %zd head:%x", byteCount,
                           connection.reader.badHead);
                break;
            case RECORD_END:
            case RECORD_FAILED:
                goOn = go_on_after_empty_read(__func__, info, &connection, byteCount);
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

// Whether the endpoint and the data's length are fit to be sent; says so when not.
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

// Whether nobody is left at the other end. -1 is not: writing to it fails at once.
bool hung_up(int fd) {
    pollfd connection = {.fd = fd, .events = 0, .revents = 0};
    return poll(&connection, 1, 0) > 0 && (connection.revents & (POLLHUP | POLLERR)) != 0;
}

// Writes the record, under the endpoint lock. The reader may not have noticed yet that the server
// has gone: what was written to it would be lost though a new one listens already, so the reader is
// given its time to connect anew. Returns what record_write() does.
ssize_t write_record(SystemCallDbusInfo* info, const SystemCallDbusMsg& record) {
    const int64_t deadline = monotonic_ms() + SYSTEM_CALL_DBUS_CONNECT_MS;
    while (true) {
        {
            const corvo::ScopedLock lock(info->lock);
            if (!info->reading || !hung_up(info->connectionSocket) || monotonic_ms() >= deadline) {
                return record_write(info->connectionSocket, record);
            }
        }
        usleep(REPLACE_PAUSE_US);
    }
}

// Starts the reader with every signal blocked that can be: what they do to the process is not
// decided here, and a thread that takes one may end it. Faults stay open; they are the thread's
// own.
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
        // Taken behind a reconnection, which ends early, so that it is the new socket that is shut.
        const corvo::ScopedLock lock(info->lock);
        if (info->connectionSocket == 0) {
            return;  // no client role, or it never opened
        }
        shutdown(info->connectionSocket, SHUT_RDWR);  // ends the reader's read
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
    // The entry is there before the record goes out, or a quick reply would find nobody.
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
