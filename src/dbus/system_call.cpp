#include "dbus/system_call.h"

#include <errno.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/sysinfo.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <string_view>

#include "base/owned.h"
#include "base/scoped_lock.h"
#include "base/unique_fd.h"
#include "endpoint.h"

#define DBUS_SOURCE "system_call"
#include "dbus_print.h"

namespace {

constexpr int DAEMON_CHECKS = 1000;
constexpr useconds_t DAEMON_CHECK_PAUSE_US = 10000;  // about 10 s for all checks
constexpr useconds_t SETTLE_US = 10000;
constexpr size_t COMMAND_MAX = SYSTEM_CALL_DBUS_DATA_SIZE - 1;  // leaves one byte for the NUL
constexpr size_t OWNER_NAME_SIZE = 256;

#define REBOOT_COMMAND "reboot"

pthread_mutex_t g_client_mutex = PTHREAD_MUTEX_INITIALIZER;
SystemCallDbusInfo* g_endpoint = nullptr;
// Callers read this flag without the mutex; it is set only after the endpoint is registered.
std::atomic<int> g_initialised{0};

// The record that system_call_reboot_unlocked() sends. snprintf() and rand() are not safe in a
// signal handler, so name_client() fills in the id and the sender in advance.
SystemCallDbusMsg g_reboot_call = {.head = SYSTEM_CALL_DBUS_HEAD,
                                   .id = 0,
                                   .sender = "",
                                   .destination = SYSTEM_CALL_DAEMON_NAME,
                                   .type = SYSTEM_CALL_DBUS_TYPE_METHOD,
                                   .method = SYSTEM_CALL_METHOD,
                                   .ret = 0,
                                   .len = sizeof(REBOOT_COMMAND) - 1,
                                   .data = REBOOT_COMMAND};

// Chooses the name of the client's endpoint. Called even if the daemon is not found later, so that
// g_reboot_call is complete in any case.
void name_client() {
    snprintf(g_reboot_call.sender, sizeof(g_reboot_call.sender), "system.call.%d", rand());
    g_reboot_call.id = rand();
}

bool wait_for_daemon() {
    for (int check = 0; check < DAEMON_CHECKS; ++check) {
        if (systemCall_Check_DbusDaemon() == 1) {
            return true;
        }
        usleep(DAEMON_CHECK_PAUSE_US);
    }
    return false;
}

int32_t open_client(const char* operation, SystemCallDbusInfo* endpoint) {
    memcpy(endpoint->name, g_reboot_call.sender, sizeof(endpoint->name));
    snprintf(endpoint->serverName, sizeof(endpoint->serverName), "%s", SYSTEM_CALL_DAEMON_NAME);
    if (!wait_for_daemon()) {
        DBUS_ERROR_AS(operation, "Please run system_call_daemon first");
        return DBUS_CALL_FAILED;
    }
    const int32_t result = SystemCall_Dbus_Register(endpoint);
    if (result != DBUS_OK) {
        DBUS_ERROR_AS(operation, "SystemCall_Dbus_Register system_call_client error, ret:%d",
                      result);
    }
    return result;
}

// Returns whether the first word of the command, without its directory, is "reboot".
bool is_reboot(const char* cmd) {
    if (cmd == nullptr) {
        return false;
    }
    std::string_view word(cmd);
    word.remove_prefix(std::min(word.find_first_not_of(' '), word.size()));
    word.remove_suffix(word.size() - std::min(word.find(' '), word.size()));
    const size_t slash = word.rfind('/');
    if (slash != std::string_view::npos) {
        word.remove_prefix(slash + 1);
    }
    return word == REBOOT_COMMAND;
}

void announce_reboot(const char* operation) {
    char name[OWNER_NAME_SIZE] = "unknown";
    const corvo::OwnedFile comm(fopen("/proc/self/comm", "re"));
    if (comm != nullptr) {
        if (fgets(name, sizeof(name), comm.get()) == nullptr) {
            snprintf(name, sizeof(name), "read_error");
        }
        name[strcspn(name, "\n")] = '\0';
    }
    DBUS_ERROR_AS(operation, "reboot is caused by pid=%d (%s)", static_cast<int>(getpid()), name);
}

int32_t leading_integer(const char* text) {
    const long long value = strtoll(text, nullptr, 10);
    return static_cast<int32_t>(std::clamp<long long>(value, INT32_MIN, INT32_MAX));
}

// Implements system_call() and prints under its name. `sent` as in SystemCall_Dbus_Call_Method().
int32_t run_command(const char* cmd, int32_t timeoutMs, bool* sent) {
    constexpr const char* OPERATION = "system_call";
    if (is_reboot(cmd)) {
        announce_reboot(OPERATION);
    }
    char text[SYSTEM_CALL_DBUS_DATA_SIZE + 1] = {};
    int32_t result = call_dbus_method(SYSTEM_CALL_METHOD, cmd, text, SYSTEM_CALL_DBUS_DATA_SIZE,
                                      timeoutMs, sent);
    if (result >= 0) {
        result = leading_integer(text);
    }
    DBUS_INFO_AS(OPERATION, "SystemCall_Dbus_Call_Method systemcall ret:%d cmd:%s", result,
                 cmd == nullptr ? "(null)" : cmd);
    return result;
}

// Connects to the daemon; safe in a signal handler. Retries only while the daemon's backlog is
// full, because a busy daemon will accept those connections. Any other failure would only be
// repeated.
bool connect_unlocked(int fd) {
    // snprintf() is not safe in a signal handler, so the path is a compile-time constant.
    constexpr char PATH[] = "/tmp/" SYSTEM_CALL_DAEMON_SOCKET_PREFIX;
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, PATH, sizeof(PATH));
    for (int32_t attempt = 0; attempt < DBUS_CONNECT_ATTEMPTS; ++attempt) {
        if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
            return true;
        }
        if (errno != EAGAIN) {
            return false;
        }
        usleep(DBUS_CONNECT_PAUSE_MS * 1000);
    }
    return false;
}

}  // namespace

int32_t systemCall_Check_DbusDaemon() {
    const corvo::OwnedDirectory directory(opendir("/tmp"));
    if (directory == nullptr) {
        DBUS_ERROR("opendir() error: /tmp/");
        return DBUS_DIRECTORY_FAILED;
    }
    constexpr std::string_view prefix = SYSTEM_CALL_DAEMON_SOCKET_PREFIX;
    while (const dirent* entry = readdir(directory.get())) {
        if (strncmp(entry->d_name, prefix.data(), prefix.size()) == 0) {
            return 1;
        }
    }
    return 0;
}

int32_t system_call_init() {
    const corvo::ScopedLock lock(g_client_mutex);
    if (g_initialised.load() != 0) {
        return DBUS_OK;
    }
    name_client();
    SystemCallDbusInfo* const endpoint = SystemCall_DbusInfo_Alloc(0);
    if (endpoint == nullptr) {
        DBUS_ERROR("SystemCall_DbusInfo_Alloc error");
        return DBUS_NO_MEMORY;
    }
    const int32_t result = open_client(__func__, endpoint);
    if (result != DBUS_OK) {
        SystemCall_DbusInfo_Free(endpoint);
        return result;
    }
    g_endpoint = endpoint;
    g_initialised.store(1);
    usleep(SETTLE_US);
    return DBUS_OK;
}

int32_t system_call_exit() {
    const corvo::ScopedLock lock(g_client_mutex);
    if (g_initialised.load() != 0) {
        g_initialised.store(0);
        SystemCall_Dbus_UnRegister(g_endpoint);
        SystemCall_DbusInfo_Free(g_endpoint);
        g_endpoint = nullptr;
    }
    return DBUS_OK;
}

int32_t call_dbus_method(const char* method, const char* input, void* output,
                         uint32_t outputCapacity, int32_t timeoutMs, bool* sent) {
    if (sent != nullptr) {
        *sent = false;
    }
    if (g_initialised.load() == 0) {
        DBUS_ERROR("please run system_call_init first");
        return DBUS_CALL_FAILED;
    }
    const size_t length = input == nullptr ? 0 : strlen(input);
    if (input == nullptr || length > COMMAND_MAX) {
        // A truncated command would be a different command, so it is rejected instead.
        DBUS_ERROR("%s command of %zu characters refused, at most %zu are possible", method, length,
                   COMMAND_MAX);
        return DBUS_INVALID_ARGUMENT;
    }
    const int32_t result = SystemCall_Dbus_Call_Method(g_endpoint, SYSTEM_CALL_DAEMON_NAME, method,
                                                       input, static_cast<uint32_t>(length), output,
                                                       outputCapacity, timeoutMs, sent);
    if (result < 0) {
        struct sysinfo system = {};
        sysinfo(&system);
        DBUS_ERROR(
            "SystemCall_Dbus_Call_Method %s %s failed, ret:%d, uptime:%ld, freeram:%ld, "
            "totalram:%ld, procs:%d\n",
            method, input, result, static_cast<long>(system.uptime),
            static_cast<long>(system.freeram), static_cast<long>(system.totalram), system.procs);
    }
    return result;
}

int32_t system_call(const char* cmd, int32_t timeoutMs) {
    return run_command(cmd, timeoutMs, nullptr);
}

int32_t popen_call(const char* cmd, void* output, int32_t outputSize, int32_t timeoutMs) {
    char text[SYSTEM_CALL_DBUS_DATA_SIZE + 1] = {};
    const int32_t result =
        call_dbus_method(POPEN_CALL_METHOD, cmd, text, SYSTEM_CALL_DBUS_DATA_SIZE, timeoutMs);
    if (result >= 0 && outputSize > 0) {
        const uint32_t size = static_cast<uint32_t>(outputSize);
        memcpy(output, text, std::min(size, SYSTEM_CALL_DBUS_DATA_SIZE));
    }
    return result;
}

bool system_call_reboot(int32_t timeoutMs) {
    bool sent = false;
    run_command(REBOOT_COMMAND, timeoutMs, &sent);
    return sent;
}

int32_t system_call_reboot_unlocked() {
    const corvo::UniqueFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd.valid()) {
        return DBUS_SOCKET_FAILED;
    }
    if (!connect_unlocked(fd.get())) {
        return DBUS_CONNECT_FAILED;
    }
    const ssize_t sent =
        send(fd.get(), &g_reboot_call, sizeof(g_reboot_call), MSG_NOSIGNAL | MSG_DONTWAIT);
    return sent == static_cast<ssize_t>(sizeof(g_reboot_call)) ? DBUS_OK : DBUS_WRITE_FAILED;
}
