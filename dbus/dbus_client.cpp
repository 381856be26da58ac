// The client role: calls, signals, and the thread that reads the replies.
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "base/scoped_lock.h"
#include "base/unique_fd.h"
#include "dbus/dbus_socket_common.h"
#include "endpoint.h"
#include "pending_calls.h"
#include "record_stream.h"

#define DBUS_SOURCE "dbus/dbus_socket_common"
#include "dbus_print.h"

namespace {

// Returns whether the server was reached; gives up early when the endpoint is being closed. The
// socket comes non-blocking, or a server that accepts nobody would hold an attempt for ever once
// its backlog is full; connected, it blocks.
bool connect_with_retries(const SystemCallDbusInfo& info, int fd) {
    const sockaddr_un address = dbus_server_address(info.serverName);
    for (int32_t attempt = 0; attempt < DBUS_CONNECT_ATTEMPTS && !info.stopping; ++attempt) {
        if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
            fcntl(fd, F_SETFL, 0);
            return true;
        }
        usleep(DBUS_CONNECT_PAUSE_US);
    }
    return false;
}

// Callers wait on the endpoint lock meanwhile: a record written to a dead connection would be lost.
int32_t SystemCall_Dbus_Method_Reconnect_Daemon(SystemCallDbusInfo* info) {
    DBUS_INFO("server socket is closed, reconnect daemon");
    const corvo::ScopedLock lock(info->lock);
    if (info->serverName[0] == '\0') {
        return DBUS_OK;
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
    if (!connect_with_retries(*info, fd.get())) {
        if (!info->stopping) {
            DBUS_ERROR("Cannot reconnect to the server (%s) timeout", info->serverName);
        }
        return DBUS_CONNECT_FAILED;
    }
    info->connectionSocket = fd.release();
    return DBUS_OK;
}

void hand_to_caller(SystemCallDbusInfo* info, const SystemCallDbusMsg& reply) {
    SystemCall_Dbus_Method_Msg_Result(info, &reply);
    SystemCall_Dbus_Method_Wakeup(info, &reply);
}

// Deals with a read that brought no byte. Returns whether the reader goes on.
bool go_on_after_empty_read(SystemCallDbusInfo* info, RecordReader* reader, ssize_t byteCount) {
    const int reason = errno;
    if (info->stopping) {
        return false;
    }
    if (reason == EINTR) {
        DBUS_WARN("read socket data interrupt ret:%zd errno:%d (%s)", byteCount, reason,
                  strerror(reason));
        return true;
    }
    if (byteCount < 0) {
        DBUS_ERROR("read socket data failed exit this thread, ret:%zd errno:%d (%s)", byteCount,
                   reason, strerror(reason));
        return false;
    }
    DBUS_ERROR("disconnect with server, reconnect, ret:%zd errno:%d (%s)", byteCount, reason,
               strerror(reason));
    // What was gathered of a record belongs to the connection that is gone.
    *reader = {};
    return SystemCall_Dbus_Method_Reconnect_Daemon(info) == DBUS_OK;
}

void* SystemCall_Dbus_Method_Thread(void* argument) {
    SystemCallDbusInfo* const info = static_cast<SystemCallDbusInfo*>(argument);
    dbus_name_thread("DbusProcess");
    RecordReader reader = {};
    bool goOn = true;
    while (goOn) {
        // Only this thread replaces the socket, so it may read it without the lock.
        ssize_t byteCount = 0;
        switch (record_read(&reader, info->connectionSocket, &byteCount)) {
            case RECORD_COMPLETE:
                hand_to_caller(info, reader.record);
                break;
            case RECORD_INCOMPLETE:
                break;
            case RECORD_BAD_HEAD:
                DBUS_ERROR("read result head is invalid, ret = %zd head:%x", byteCount,
                           reader.badHead);
                break;
            case RECORD_END:
            case RECORD_FAILED:
                goOn = go_on_after_empty_read(info, &reader, byteCount);
                break;
        }
    }
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
bool may_send(const SystemCallDbusInfo* info, const char* destination, const char* method,
              uint32_t dataLen) {
    if (info == nullptr) {
        DBUS_ERROR("dbusInfo is NULL, %s %s not sent", destination, method);
        return false;
    }
    if (dataLen > SYSTEM_CALL_DBUS_DATA_SIZE) {
        DBUS_ERROR("%s %s data of %u bytes is too long, at most %u", destination, method, dataLen,
                   SYSTEM_CALL_DBUS_DATA_SIZE);
        return false;
    }
    return true;
}

ssize_t write_locked(SystemCallDbusInfo* info, const SystemCallDbusMsg& record) {
    const corvo::ScopedLock lock(info->lock);
    return record_write(info->connectionSocket, record);
}

}  // namespace

int32_t dbus_client_open(SystemCallDbusInfo* info) {
    corvo::UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd.valid()) {
        DBUS_ERROR("Cannot create communication socket, errno:%d (%s)", errno, strerror(errno));
        return DBUS_SOCKET_FAILED;
    }
    if (!connect_with_retries(*info, fd.get())) {
        DBUS_ERROR("Cannot connect to the server (%s) timeout", info->serverName);
        return DBUS_CONNECT_FAILED;
    }
    info->connectionSocket = fd.release();
    const int started =
        pthread_create(&info->methodThread, nullptr, SystemCall_Dbus_Method_Thread, info);
    if (started != 0) {
        DBUS_ERROR("Cannot start the reader thread: %s", strerror(started));
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
                                    void* result, uint32_t resultCapacity, int32_t timeoutMs) {
    if (!may_send(info, destination, method, dataLen)) {
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
    const ssize_t written = write_locked(info, call);
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
    if (!may_send(info, destination, signal, dataLen)) {
        return DBUS_INVALID_ARGUMENT;
    }
    const SystemCallDbusMsg record =
        new_record(*info, destination, SYSTEM_CALL_DBUS_TYPE_SIGNAL, signal, data, dataLen);
    const ssize_t written = write_locked(info, record);
    if (written < 0) {
        DBUS_ERROR("%s %s write failed, ret = %zd", destination, signal, written);
        return DBUS_WRITE_FAILED;
    }
    return static_cast<int32_t>(written);
}
