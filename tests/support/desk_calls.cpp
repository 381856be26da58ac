// What stands behind the system calls of the service program in whole-upgrade tests: its fixed
// pauses take no time, and a plan in the environment says what goes wrong. Built into the program
// by the linker; like the service, it needs no C++ run-time library.
//
//   CORVO_CUT=N             the power is cut before the Nth operation that changes the world
//   outside CORVO_TEAR=N            the same in the middle of it, where it is a write
//   CORVO_FAULT=CALL:N:E    the Nth CALL fails with errno E; CALL:N+:E from the Nth on; E = 0: it
//                           moves one byte only
//   CORVO_CRASH=N           the Nth record sent ends in abort(), with the endpoint lock held
//   CORVO_HURRY=1           waits for replies end after 50 ms
//   CORVO_FLIP=N            the Nth write of image data to a partition stores a wrong bit; 0: each
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/msg.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

extern "C" int __real_open64(const char* path, int flags, mode_t mode);
extern "C" ssize_t __real_write(int fd, const void* data, size_t size);

namespace {

constexpr char PARTITIONS[] = "/dev/block/by-name/";

struct Plan {
    long cut;
    long tear;
    long flip;
    long crash;
    bool hurry;
    char call[16];
    int ordinal;
    bool onwards;
    int error;
};

std::atomic<long> g_changes{0};
std::atomic<long> g_writes{0};
std::atomic<long> g_image_writes{0};
std::atomic<long> g_sends{0};
std::atomic<int> g_struck{0};
std::atomic<int> g_calls{0};  // of the call that the plan names

long number_of(const char* name) {
    const char* const text = getenv(name);
    return text == nullptr ? -1 : strtol(text, nullptr, 10);
}

Plan g_plan;

__attribute__((constructor)) void read_plan() {
    g_plan.cut = number_of("CORVO_CUT");
    g_plan.tear = number_of("CORVO_TEAR");
    g_plan.flip = number_of("CORVO_FLIP");
    g_plan.crash = number_of("CORVO_CRASH");
    g_plan.hurry = number_of("CORVO_HURRY") > 0;
    const char* const fault = getenv("CORVO_FAULT");
    if (fault == nullptr) {
        return;
    }
    char plus[2] = "";
    if (sscanf(fault, "%15[^:]:%d:%d", g_plan.call, &g_plan.ordinal, &g_plan.error) != 3) {
        g_plan.onwards = sscanf(fault, "%15[^:]:%d%1[+]:%d", g_plan.call, &g_plan.ordinal, plus,
                                &g_plan.error) == 4;
    }
}

__attribute__((destructor)) void report() {
    int descriptors = 0;
    DIR* const directory = opendir("/proc/self/fd");
    while (readdir(directory) != nullptr) {
        ++descriptors;
    }
    closedir(directory);
    char text[32];
    const int length = snprintf(text, sizeof(text), "%d %d", g_struck.load(), descriptors);
    const int file = __real_open64("/tmp/desk_report", O_WRONLY | O_CREAT | O_TRUNC, 0644);
    __real_write(file, text, static_cast<size_t>(length));
    close(file);
}

[[noreturn]] void cut_power() {
    kill(getpid(), SIGKILL);
    abort();
}

// Counts an operation that changes the world outside.
void change() {
    if (++g_changes == g_plan.cut) {
        cut_power();
    }
}

// Whether this call is to go wrong. With an errno to set it is set.
bool struck(const char* call) {
    if (strcmp(g_plan.call, call) != 0) {
        return false;
    }
    const int number = ++g_calls;
    const bool now = number == g_plan.ordinal || (g_plan.onwards && number > g_plan.ordinal);
    if (now) {
        ++g_struck;
        errno = g_plan.error;
    }
    return now;
}

bool is_image_write(int fd, const void* data, size_t size) {
    char link[32];
    char path[64] = {};
    snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
    if (readlink(link, path, sizeof(path) - 1) < 0) {
        return false;
    }
    // Erasing writes zeros.
    static const char zeros[64] = {};
    return strncmp(path, PARTITIONS, sizeof(PARTITIONS) - 1) == 0 &&
           memcmp(data, zeros, size < sizeof(zeros) ? size : sizeof(zeros)) != 0;
}

}  // namespace

extern "C" {

// A call that fails as the plan says, or is the real one. `name` is what the plan calls it,
// `changes` whether it counts for a cut.
#define DESK_CALL(result, symbol, name, failure, changes, parameters, arguments) \
    result __real_##symbol parameters;                                           \
    result __wrap_##symbol parameters {                                          \
        if (changes) {                                                           \
            change();                                                            \
        }                                                                        \
        return struck(name) ? (failure) : __real_##symbol arguments;             \
    }

DESK_CALL(int, fsync, "fsync", -1, true, (int fd), (fd))
DESK_CALL(int, fdatasync, "fdatasync", -1, true, (int fd), (fd))
DESK_CALL(int, remove, "remove", -1, true, (const char* path), (path))
DESK_CALL(int, msgctl, "msgctl", -1, true, (int id, int command, msqid_ds* data),
          (id, command, data))
DESK_CALL(int, ioctl, "ioctl", -1, true, (int fd, unsigned long request, void* argument),
          (fd, request, argument))
DESK_CALL(int, socket, "socket", -1, false, (int domain, int type, int protocol),
          (domain, type, protocol))
DESK_CALL(int, connect, "connect", -1, false, (int fd, const sockaddr* address, socklen_t size),
          (fd, address, size))
DESK_CALL(ssize_t, msgrcv, "msgrcv", -1, false,
          (int id, void* to, size_t size, long type, int flags), (id, to, size, type, flags))
DESK_CALL(FILE*, fopen64, "fopen", nullptr, false, (const char* path, const char* mode),
          (path, mode))
DESK_CALL(off_t, lseek64, "lseek", -1, false, (int fd, off_t offset, int whence),
          (fd, offset, whence))
DESK_CALL(int, fstat64, "fstat", -1, false, (int fd, struct stat* status), (fd, status))
DESK_CALL(void*, calloc, "calloc", nullptr, false, (size_t count, size_t size), (count, size))
DESK_CALL(int, pthread_create, "pthread_create", g_plan.error, false,
          (pthread_t * thread, const pthread_attr_t* attributes, void* (*body)(void*), void* given),
          (thread, attributes, body, given))

int __wrap_open64(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(arguments, mode_t) : 0;
    va_end(arguments);
    if ((flags & O_TRUNC) != 0) {
        change();
    }
    return struck("open") ? -1 : __real_open64(path, flags, mode);
}

ssize_t __real_read(int fd, void* data, size_t size);
ssize_t __wrap_read(int fd, void* data, size_t size) {
    const bool now = struck("read");
    return now && g_plan.error != 0 ? -1 : __real_read(fd, data, now ? 1 : size);
}

ssize_t __real_send(int fd, const void* data, size_t size, int flags);
ssize_t __wrap_send(int fd, const void* data, size_t size, int flags) {
    change();
    if (++g_sends == g_plan.crash) {
        abort();
    }
    const bool now = struck("send");
    return now && g_plan.error != 0 ? -1 : __real_send(fd, data, now ? 1 : size, flags);
}

ssize_t __wrap_write(int fd, const void* data, size_t size) {
    change();
    if (++g_writes == g_plan.tear) {
        __real_write(fd, data, size / 2);
        cut_power();
    }
    if (g_plan.flip >= 0 && is_image_write(fd, data, size)) {
        const long number = ++g_image_writes;
        if (g_plan.flip == 0 || number == g_plan.flip) {
            static char spoilt[65536];
            memcpy(spoilt, data, size);
            spoilt[size - 1] = static_cast<char>(spoilt[size - 1] ^ 1);
            return __real_write(fd, spoilt, size);
        }
    }
    const bool now = struck("write");
    return now && g_plan.error != 0 ? -1 : __real_write(fd, data, now && size > 1 ? 1 : size);
}

// Polls and retries stay polls and retries, only quicker ones.
int __real_usleep(unsigned microseconds);
int __wrap_usleep(unsigned microseconds) {
    return __real_usleep(microseconds / 10);
}
unsigned __wrap_sleep(unsigned seconds) {
    __real_usleep(seconds * 1000);
    return 0;
}

int __real_pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                  const timespec* deadline);
int __wrap_pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                  const timespec* deadline) {
    timespec soon = {};
    clock_gettime(CLOCK_MONOTONIC, &soon);
    soon.tv_nsec += 50000000;
    soon.tv_sec += soon.tv_nsec / 1000000000;
    soon.tv_nsec %= 1000000000;
    return __real_pthread_cond_timedwait(condition, mutex, g_plan.hurry ? &soon : deadline);
}

// A program that is measured for coverage leaves its counts however it ends.
void __gcov_dump() __attribute__((weak));
[[noreturn]] void __real__exit(int status);
void __wrap__exit(int status) {
    if (__gcov_dump != nullptr) {
        __gcov_dump();
    }
    __real__exit(status);
}
}
