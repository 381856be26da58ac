// The server role: one thread accepts connections, one thread per connection reads records, and one
// thread per record runs the handler and replies.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <algorithm>

#include "base/ignore_result.h"
#include "base/owned.h"
#include "base/scoped_lock.h"
#include "base/unique_fd.h"
#include "dbus/dbus_socket_common.h"
#include "endpoint.h"
#include "record_stream.h"

#define DBUS_SOURCE DBUS_TRANSPORT
#include "dbus_print.h"

// One accepted connection. The last thread that uses the connection closes its socket. If the
// socket were closed earlier, its descriptor could be reused for another client before a slow
// handler writes its reply.
struct DbusConnection {
    int fd;
    int32_t references;    // number of threads that use it; guarded by the endpoint lock
    DbusConnection* next;  // guarded by the endpoint lock
};

namespace {

constexpr int LISTEN_BACKLOG = 5;
constexpr useconds_t REPLY_PAUSE_US = 1000;
constexpr int32_t NO_HANDLER_RESULT = -1;

// The argument of a connection thread.
struct ListenArgs {
    SystemCallDbusInfo* info;
    DbusConnection* connection;
};

// The argument of a message thread.
struct RWProcessArgs {
    SystemCallDbusInfo* info;
    DbusConnection* connection;
    SystemCallDbusMsg record;
};

// Counts one more thread that uses the connection and the endpoint. The endpoint lock must be held.
void retain_connection(SystemCallDbusInfo* info, DbusConnection* connection) {
    ++connection->references;
    ++info->serverThreads;
}

// Reverses retain_connection(). The last thread closes and frees the connection. Takes the endpoint
// lock. After this call a thread must not use the endpoint, which may have been freed.
void release_connection(SystemCallDbusInfo* info, DbusConnection* connection) {
    const corvo::ScopedLock lock(info->lock);
    if (--connection->references == 0) {
        DbusConnection** link = &info->connections;
        while (*link != connection) {
            link = &(*link)->next;
        }
        *link = connection->next;
        close(connection->fd);
        free(connection);
    }
    if (--info->serverThreads == 0) {
        pthread_cond_broadcast(&info->serverIdle);
    }
}

int start_detached(void* (*body)(void*), void* argument) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_t thread = {};
    const int started = pthread_create(&thread, &attributes, body, argument);
    pthread_attr_destroy(&attributes);
    return started;
}

const SystemCallDbusInterface* find_interface(const SystemCallDbusInfo& info,
                                              const SystemCallDbusMsg& record, int32_t* index) {
    for (int32_t i = 0; i < info.interfaceCount; ++i) {
        const SystemCallDbusInterface& entry = *info.interfaces[i];
        const char* const marker =
            record.type == SYSTEM_CALL_DBUS_TYPE_SIGNAL ? entry.signalMarker : entry.methodMarker;
        if (marker[0] != '\0' && strcmp(entry.name, record.method) == 0) {
            *index = i;
            return &entry;
        }
    }
    return nullptr;
}

void name_message_thread(const SystemCallDbusInterface& entry, int32_t index) {
    const size_t length = strlen(entry.name);
    if (length > THREAD_NAME_SIZE - 1) {
        dbus_name_thread(entry.name + length - (THREAD_NAME_SIZE - 1));
        return;
    }
    char name[THREAD_NAME_SIZE] = {};
    snprintf(name, sizeof(name), "DBUS-%d", index);
    dbus_name_thread(name);
}

void run_method(const char* operation, const RWProcessArgs& args,
                const SystemCallDbusInterface& entry) {
    const SystemCallDbusMsg& call = args.record;
    SystemCallDbusMsg reply = {};
    reply.head = SYSTEM_CALL_DBUS_HEAD;
    reply.id = call.id;
    memcpy(reply.sender, call.destination, sizeof(reply.sender));
    memcpy(reply.destination, call.sender, sizeof(reply.destination));
    reply.type = SYSTEM_CALL_DBUS_TYPE_METHOD;
    memcpy(reply.method, call.method, sizeof(reply.method));
    reply.ret = NO_HANDLER_RESULT;
    if (entry.methodHandler != nullptr) {
        reply.ret =
            entry.methodHandler(call.data, call.len, reply.data, SYSTEM_CALL_DBUS_DATA_SIZE);
        usleep(REPLY_PAUSE_US);
    }
    reply.len =
        reply.ret >= 0 ? std::min(static_cast<uint32_t>(reply.ret), SYSTEM_CALL_DBUS_DATA_SIZE) : 0;
    const corvo::ScopedLock lock(args.info->lock);
    const ssize_t written = record_write(args.connection->fd, reply);
    if (written <= 0) {
        DBUS_ERROR_AS(operation, "write result failed, ret:%zd errno:%d (%s)", written, errno,
                      strerror(errno));
    }
}

void* SystemCall_Dbus_ReadWrite_Process(void* argument) {
    const corvo::OwnedBlock<RWProcessArgs> args(static_cast<RWProcessArgs*>(argument));
    dbus_name_thread("DbusProcess");
    int32_t index = 0;
    const SystemCallDbusInterface* const entry = find_interface(*args->info, args->record, &index);
    if (entry != nullptr) {
        name_message_thread(*entry, index);
        if (args->record.type != SYSTEM_CALL_DBUS_TYPE_SIGNAL) {
            run_method(__func__, *args, *entry);
        } else if (entry->signalHandler != nullptr) {
            entry->signalHandler(args->record.data, args->record.len);
        }
    }
    release_connection(args->info, args->connection);
    return nullptr;
}

// Starts a thread that handles the record. If the thread cannot be started, drops the record.
void start_message_thread(const char* operation, corvo::OwnedBlock<RWProcessArgs> args) {
    SystemCallDbusInfo* const info = args->info;
    DbusConnection* const connection = args->connection;
    {
        const corvo::ScopedLock lock(info->lock);
        retain_connection(info, connection);
    }
    const int started = start_detached(SystemCall_Dbus_ReadWrite_Process, args.get());
    if (started == 0) {
        corvo::ignore_result(args.release());  // now owned by the thread
        return;
    }
    struct sysinfo system = {};
    sysinfo(&system);
    DBUS_ERROR_AS(
        operation,
        "daemon create pthread failed: %s, Uptime : %ld, Free RAM : %ld, Total RAM : %ld, "
        "Process count : %d",
        strerror(started), static_cast<long>(system.uptime), static_cast<long>(system.freeram),
        static_cast<long>(system.totalram), system.procs);
    release_connection(info, connection);
}

// Reads the connection until it ends, and starts a message thread for each whole record.
void serve_connection(const char* operation, SystemCallDbusInfo* info, DbusConnection* connection) {
    RecordReader reader = {};
    while (true) {
        auto args = corvo::allocate_zeroed<RWProcessArgs>();
        if (args == nullptr) {
            DBUS_ERROR_AS(operation, "malloc RWProcessArgs failed");
            shutdown(connection->fd, SHUT_RDWR);
            return;
        }
        ssize_t byteCount = 0;
        const RecordReadResult result = record_read(&reader, connection->fd, &byteCount);
        if (result == RECORD_COMPLETE) {
            args->info = info;
            args->connection = connection;
            args->record = reader.record;
            start_message_thread(operation, std::move(args));
        } else if (result == RECORD_BAD_HEAD) {
            DBUS_ERROR_AS(operation, "read msg head is invalid, ret = %zd head:%x", byteCount,
                          reader.badHead);
        } else if (result != RECORD_INCOMPLETE) {
            const int reason = errno;
            if (info->stopping) {
                return;
            }
            if (reason == EINTR) {
                DBUS_WARN_AS(operation, "read socket data interrupt ret:%zd errno:%d (%s)",
                             byteCount, reason, strerror(reason));
                continue;
            }
            DBUS_ERROR_AS(operation,
                          "read socket data failed exit this thread, ret:%zd errno:%d (%s)",
                          byteCount, reason, strerror(reason));
            DBUS_ERROR_AS(operation, "maybe client is close");
            return;
        }
    }
}

void* SystemCall_Dbus_ReadWrite_Thread(void* argument) {
    ListenArgs args = {};
    {
        const corvo::OwnedBlock<ListenArgs> block(static_cast<ListenArgs*>(argument));
        args = *block;
    }
    dbus_name_thread(args.info->name);
    serve_connection(__func__, args.info, args.connection);
    release_connection(args.info, args.connection);
    return nullptr;
}

// Starts the thread of an accepted connection. If the thread cannot be started, closes the
// connection. Returns false only when no memory is available.
bool start_connection_thread(const char* operation, SystemCallDbusInfo* info, corvo::UniqueFd fd) {
    auto args = corvo::allocate_zeroed<ListenArgs>();
    auto connection = corvo::allocate_zeroed<DbusConnection>();
    if (args == nullptr || connection == nullptr) {
        DBUS_ERROR_AS(operation, "malloc ListenArgs failed");
        return false;
    }
    connection->fd = fd.release();
    args->info = info;
    args->connection = connection.get();
    {
        const corvo::ScopedLock lock(info->lock);
        connection->next = info->connections;
        info->connections = connection.get();
        retain_connection(info, connection.get());
        if (info->stopping) {
            shutdown(connection->fd, SHUT_RDWR);  // accepted while the endpoint is being closed
        }
    }
    DbusConnection* const shared = connection.release();
    const int started = start_detached(SystemCall_Dbus_ReadWrite_Thread, args.get());
    if (started != 0) {
        DBUS_ERROR_AS(operation, "connection thread not started: %s", strerror(started));
        release_connection(info, shared);
        return true;
    }
    corvo::ignore_result(args.release());  // now owned by the thread
    return true;
}

void* SystemCall_Dbus_Listen_Thread(void* argument) {
    SystemCallDbusInfo* const info = static_cast<SystemCallDbusInfo*>(argument);
    dbus_name_thread(info->name);
    bool keepAccepting = true;
    while (keepAccepting) {
        corvo::UniqueFd fd(accept4(info->listenSocket, nullptr, nullptr, SOCK_CLOEXEC));
        if (fd.valid()) {
            keepAccepting = start_connection_thread(__func__, info, std::move(fd));
            continue;
        }
        if (!info->stopping) {
            DBUS_ERROR("Cannot accept client connect request");
        }
        keepAccepting = false;
    }
    // Refuse further clients: a refused client retries or reports a failure, but a client in the
    // backlog would wait forever.
    shutdown(info->listenSocket, SHUT_RDWR);
    return nullptr;
}

// Removes the file at the endpoint's path, but only if it is a socket: another type of file was not
// created by this endpoint.
void remove_socket_file(const char* path) {
    struct stat status = {};
    if (lstat(path, &status) == 0 && S_ISSOCK(status.st_mode)) {
        unlink(path);
    }
}

}  // namespace

int32_t dbus_server_open(SystemCallDbusInfo* info) {
    corvo::UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd.valid()) {
        DBUS_ERROR_AS(DBUS_REGISTER, "Cannot create communication socket");
        return DBUS_SOCKET_FAILED;
    }
    const sockaddr_un address = dbus_server_address(info->name);
    // bind(2) fails if an earlier run has left its socket file. unlink(2) removes a symbolic link
    // but never its target, and it does not remove a directory.
    unlink(address.sun_path);
    // bind(2) creates the file with this mode, so that only the owner can connect, whatever the
    // umask is.
    corvo::ignore_result(fchmod(fd.get(), S_IRUSR | S_IWUSR));
    if (bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        DBUS_ERROR_AS(DBUS_REGISTER, "Cannot bind server socket (%s)", address.sun_path);
        return DBUS_BIND_FAILED;
    }
    if (listen(fd.get(), LISTEN_BACKLOG) != 0) {
        DBUS_ERROR_AS(DBUS_REGISTER, "Cannot listen the client connect request\n");
        remove_socket_file(address.sun_path);
        return DBUS_LISTEN_FAILED;
    }
    info->listenSocket = fd.get();
    const int started =
        pthread_create(&info->listenThread, nullptr, SystemCall_Dbus_Listen_Thread, info);
    if (started != 0) {
        DBUS_ERROR_AS(DBUS_REGISTER, "Cannot start the listen thread: %s", strerror(started));
        info->listenSocket = 0;
        remove_socket_file(address.sun_path);
        return DBUS_NO_MEMORY;
    }
    corvo::ignore_result(fd.release());  // now owned by the endpoint
    snprintf(info->socketPath, sizeof(info->socketPath), "%s", address.sun_path);
    return DBUS_OK;
}

void dbus_server_close(SystemCallDbusInfo* info) {
    if (info->listenSocket == 0) {
        return;  // no server role, or opening it failed
    }
    shutdown(info->listenSocket, SHUT_RDWR);  // makes accept4(2) return
    pthread_join(info->listenThread, nullptr);
    {
        const corvo::ScopedLock lock(info->lock);
        for (const DbusConnection* c = info->connections; c != nullptr; c = c->next) {
            shutdown(c->fd, SHUT_RDWR);
        }
        while (info->serverThreads != 0) {
            pthread_cond_wait(&info->serverIdle, &info->lock);
        }
    }
    close(info->listenSocket);
    info->listenSocket = 0;
    if (info->socketPath[0] != '\0') {
        remove_socket_file(info->socketPath);
        info->socketPath[0] = '\0';
    }
}
