// Fuzzes the server with bytes from a client that arrive in pieces of any size: reading of
// connections and records, handlers, and replies.
//
// Starting real threads for the connection and for each record, and the pause before each reply,
// would take a hundred times as long as the code under test. Therefore each thread's body runs
// synchronously where the server starts the thread, the pause is omitted, and the socket calls are
// stubs: the input is the only connection. The tests of dbus cover real threads, under the thread
// sanitizer.
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <stdio.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "dbus/dbus_socket_common.h"
#include "endpoint.h"
#include "fuzz_input.h"

namespace {

constexpr size_t ENTRIES = 2;
constexpr int LISTENER = 1000;  // this and the next number are not those of open descriptors
constexpr int CONNECTION = 1001;

FuzzInput g_input;
bool g_serving = false;  // true while the server's code runs, false in the fuzzer's own code
bool g_accepted;
bool g_closed;
size_t g_written;  // bytes of replies
size_t g_methods;  // number of handlers that were called

int32_t echo(const void* in, uint32_t inLen, void* out, uint32_t outCap) {
    fuzz_expect(inLen <= outCap && outCap == SYSTEM_CALL_DBUS_DATA_SIZE);
    memcpy(out, in, inLen);
    ++g_methods;
    return static_cast<int32_t>(inLen);
}

void take_signal(const void* data, uint32_t len) {
    fuzz_expect(data != nullptr && len <= SYSTEM_CALL_DBUS_DATA_SIZE);
}

}  // namespace

extern "C" {

// Stubs for the functions that the server calls. The fuzzer in the same program calls some of them
// too, and then gets the real ones.
int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                          void* argument);
int __real_pthread_join(pthread_t thread, void** result);
ssize_t __real_read(int fd, void* bytes, size_t size);
int __real_close(int fd);

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                          void* argument) {
    if (!g_serving) {
        return __real_pthread_create(thread, attributes, body, argument);
    }
    body(argument);
    return 0;
}

int __wrap_pthread_join(pthread_t thread, void** result) {
    return g_serving ? 0 : __real_pthread_join(thread, result);
}

int __wrap_socket(int /*domain*/, int /*type*/, int /*protocol*/) {
    return LISTENER;
}

int __wrap_bind(int fd, const sockaddr* /*address*/, socklen_t /*size*/) {
    fuzz_expect(fd == LISTENER);
    return 0;
}

int __wrap_listen(int fd, int /*backlog*/) {
    fuzz_expect(fd == LISTENER);
    return 0;
}

// Accepts the only client. The next call makes the server end.
int __wrap_accept4(int fd, sockaddr* /*address*/, socklen_t* /*size*/, int /*flags*/) {
    fuzz_expect(fd == LISTENER);
    if (!g_accepted) {
        g_accepted = true;
        return CONNECTION;
    }
    errno = EINVAL;
    return -1;
}

// Returns the next piece of the input. A byte before each piece determines the piece's size.
ssize_t __wrap_read(int fd, void* bytes, size_t size) {
    if (!g_serving) {
        return __real_read(fd, bytes, size);
    }
    fuzz_expect(fd == CONNECTION && !g_closed && size > 0);
    if (g_input.size == 0) {
        return 0;
    }
    const size_t piece = 1U + g_input.byte() * 8U;
    return static_cast<ssize_t>(g_input.bytes(bytes, std::min(size, piece)));
}

ssize_t __wrap_send(int fd, const void* bytes, size_t size, int /*flags*/) {
    fuzz_expect(fd == CONNECTION && !g_closed);
    // Copy the reply, so that the sanitizers check every byte of it.
    static uint8_t taken[sizeof(SystemCallDbusMsg)];
    fuzz_expect(size <= sizeof(taken));
    memcpy(taken, bytes, size);
    g_written += size;
    return static_cast<ssize_t>(size);
}

int __wrap_shutdown(int /*fd*/, int /*how*/) {
    return 0;
}

int __wrap_close(int fd) {
    if (!g_serving) {
        return __real_close(fd);
    }
    fuzz_expect(fd == LISTENER || (fd == CONNECTION && !g_closed));
    g_closed = g_closed || fd == CONNECTION;
    return 0;
}

int __wrap_usleep(useconds_t /*time*/) {
    return 0;
}

// Stubs for naming the threads, which do not exist, and for the socket's file.
int __wrap_prctl(int /*operation*/, ...) {
    return 0;
}
int __wrap_fchmod(int /*fd*/, mode_t /*mode*/) {
    return 0;
}
int __wrap_unlink(const char* path) {
    fuzz_expect(path != nullptr);
    return 0;
}
int __wrap_lstat(const char* path, struct stat* /*status*/) {
    fuzz_expect(path != nullptr);
    errno = ENOENT;
    return -1;
}

}  // extern "C"

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    SystemCallDbusInfo* const info = SystemCall_DbusInfo_Alloc(ENTRIES);
    snprintf(info->name, sizeof(info->name), "fuzz");
    SystemCall_DbusInterface_Set_Method(info->interfaces[0], "system_call", echo);
    snprintf(info->interfaces[1]->name, SYSTEM_CALL_DBUS_NAME_SIZE, "told");
    snprintf(info->interfaces[1]->signalMarker, SYSTEM_CALL_DBUS_MARKER_SIZE, "signal");
    info->interfaces[1]->signalHandler = take_signal;

    g_input = {data, size};
    g_accepted = g_closed = false;
    g_written = g_methods = 0;
    g_serving = true;
    fuzz_expect(SystemCall_Dbus_Register(info) == DBUS_OK);  // serves the connection to its end
    fuzz_expect(g_accepted && g_closed && info->connections == nullptr && info->serverThreads == 0);
    fuzz_expect(g_written == g_methods * sizeof(SystemCallDbusMsg));
    SystemCall_Dbus_UnRegister(info);
    g_serving = false;
    SystemCall_DbusInfo_Free(info);
    return 0;
}
