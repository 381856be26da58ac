#include "faults.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/msg.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <iterator>

#include "base/ignore_result.h"
#include "base/monotonic_clock.h"
#include "base/scoped_lock.h"
#include "base/unique_fd.h"

Devices devices = {};

extern "C" FILE* __real_fopen64(const char* path, const char* mode);
extern "C" int __real_open64(const char* path, int flags, unsigned mode);
extern "C" int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                                     void* (*body)(void*), void* given);

namespace {

constexpr size_t MOST_FAULTS = 8;

struct Counter {
    char call[24];
    int calls;
};

pthread_mutex_t g_mutex = PTHREAD_MUTEX_INITIALIZER;  // guards the variables below
Fault g_faults[MOST_FAULTS] = {};
Counter g_counters[40];
char g_opened[4096];
char g_waits[512];

struct Place {
    char path[64];
    off_t at;
};
// The first byte that the storage loses. Reads return the wrong byte only after the page cache was
// dropped.
Place g_weak_byte;

thread_local bool g_record_unflushed = false;

Counter& counter_of(const char* call) {
    Counter* counter = g_counters;
    while (counter->call[0] != '\0' && strcmp(counter->call, call) != 0) {
        ++counter;
    }
    snprintf(counter->call, sizeof(counter->call), "%s", call);
    return *counter;
}

// Counts the call and returns the fault that is set for it.
Fault met_by(const char* call, int amount) {
    Fault met = {call, 0, NONE, 0};
    const corvo::ScopedLock lock(g_mutex);
    const int ordinal = counter_of(call).calls += amount;
    for (const Fault& fault : g_faults) {
        if (fault.call != nullptr && strcmp(fault.call, call) == 0 &&
            (fault.ordinal == ordinal || (fault.ordinal < 0 && -fault.ordinal <= ordinal))) {
            met = fault;
        }
    }
    return met;
}

// Each step is smaller than a guard page, so it cannot skip one. NOLINTNEXTLINE(misc-no-recursion)
int use_up_stack(int steps) {
    volatile char frame[1024];
    frame[0] = static_cast<char>(steps);
    return steps == 0 ? 0 : use_up_stack(steps - 1) + frame[0];
}

[[noreturn]] void cut_power() {
    kill(getpid(), SIGKILL);
    abort();
}

// Counts the call and returns the fault that is set for it, with errno set. CRASH, OVERFLOW and CUT
// do not return.
Fault next(const char* call, int amount = 1) {
    const Fault met = met_by(call, amount);
    if (met.effect == CRASH) {
        abort();
    }
    if (met.effect == OVERFLOW) {
        use_up_stack(1 << 30);
    }
    if (met.effect == CUT) {
        cut_power();
    }
    errno = met.effect > 0 ? met.effect : errno;
    return met;
}

bool fails(const char* call) {
    return next(call).effect > 0;
}

void change() {
    if (g_record_unflushed) {
        fputs("the outcome record is not flushed\n", stderr);
        abort();
    }
    next("change");
}

const char* real_path(const char* path) {
    const corvo::ScopedLock lock(g_mutex);
    const size_t length = strlen(g_opened);
    snprintf(g_opened + length, sizeof(g_opened) - length, "%s ", path);
    return strcmp(path, "/proc/mtd") == 0 ? "/tmp/proc_mtd" : path;
}

// Returns the descriptor's file and its position in it.
Place place_of(int fd) {
    Place place = {};
    char link[32];
    snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
    corvo::ignore_result(readlink(link, place.path, sizeof(place.path) - 1));
    place.at = syscall(SYS_lseek, fd, 0, SEEK_CUR);  // not lseek(): this call must not be counted
    return place;
}

bool is_record(int fd) {
    return strcmp(place_of(fd).path, "/config/ota_data.dat") == 0;
}

// Returns whether these are image data for a partition. Aborts if image data or the outcome record
// are not written synchronously.
bool is_image(int fd, const char* data, size_t size) {
    const Place target = place_of(fd);
    // Erasing writes zeros.
    const bool image = (strstr(target.path, "/dev/block/") == target.path ||
                        strstr(target.path, "/dev/mtd") == target.path) &&
                       std::any_of(data, data + size, [](char c) { return c != 0; });
    if ((image || is_record(fd)) && (fcntl(fd, F_GETFL) & O_DSYNC) == 0) {
        fprintf(stderr, "%s is not written synchronously\n", target.path);
        abort();
    }
    return image;
}

// Returns the descriptor. If its page cache is dropped, reads of its file return the content of the
// storage from now on.
int advised(int fd, int advice) {
    if (advice == POSIX_FADV_DONTNEED && strcmp(g_weak_byte.path, place_of(fd).path) == 0) {
        const corvo::UniqueFd file(__real_open64(g_weak_byte.path, O_RDWR | O_CLOEXEC, 0));
        char byte = 0;
        corvo::ignore_result(pread(file.get(), &byte, 1, g_weak_byte.at));
        byte = static_cast<char>(byte ^ 1);
        corvo::ignore_result(pwrite(file.get(), &byte, 1, g_weak_byte.at));
        g_weak_byte = {};
    }
    return fd;
}

void note_wait(int64_t ms) {
    const corvo::ScopedLock lock(g_mutex);
    const size_t length = strlen(g_waits);
    snprintf(g_waits + length, sizeof(g_waits) - length, " %d", static_cast<int>((ms + 99) / 100));
}

void* wait_for_ever(void* /*argument*/) {
    while (true) {
        pause();
    }
}

__attribute__((constructor)) void read_faults() {
    const char* text = getenv(FAULTS_VARIABLE);
    pthread_t thread = {};
    if (text != nullptr && __real_pthread_create(&thread, nullptr, wait_for_ever, nullptr) == 0) {
        pthread_detach(thread);
    }
    static char names[MOST_FAULTS][32];
    int length = 0;
    for (size_t i = 0; text != nullptr && i < MOST_FAULTS; ++i, text += length) {
        Fault& fault = g_faults[i];
        if (sscanf(text, "%31[^:]:%d:%d:%zu %n", names[i], &fault.ordinal, &fault.effect,
                   &fault.count, &length) != 4) {
            break;
        }
        fault.call = names[i];
    }
}

__attribute__((destructor)) void report() {
    if (getenv(FAULTS_VARIABLE) == nullptr) {
        return;
    }
    int descriptors = 0;
    for (int fd = 0; fd < 1024; ++fd) {
        descriptors += fcntl(fd, F_GETFD) >= 0 ? 1 : 0;
    }
    const int calls = g_faults[0].call == nullptr ? 0 : Faults::calls(g_faults[0].call);
    FILE* const file = __real_fopen64(FAULTS_REPORT, "w");
    fprintf(file, "%d %d%s", calls, descriptors, g_waits);
    fclose(file);
}

}  // namespace

Faults::Faults(std::initializer_list<Fault> wanted) {
    const corvo::ScopedLock lock(g_mutex);
    std::copy(wanted.begin(), wanted.end(), g_faults);
    std::fill(std::begin(g_counters), std::end(g_counters), Counter{});
    g_opened[0] = '\0';
    g_waits[0] = '\0';
}

Faults::~Faults() {
    const corvo::ScopedLock lock(g_mutex);
    std::fill(std::begin(g_faults), std::end(g_faults), Fault{});
}

int Faults::calls(const char* call) {
    const corvo::ScopedLock lock(g_mutex);
    return counter_of(call).calls;
}

const char* Faults::opened() {
    static char copy[sizeof(g_opened)];
    const corvo::ScopedLock lock(g_mutex);
    memcpy(copy, g_opened, sizeof(copy));
    return copy;
}

// Defines the replacement of a call with this result type, parameters and arguments. `name`: the
// name for its faults; `changes`: whether the call changes something outside of the process.
#define CALL_AS(result, symbol, name, failure, changes, parameters, arguments) \
    result __real_##symbol parameters;                                         \
    result __wrap_##symbol parameters {                                        \
        if (changes) {                                                         \
            change();                                                          \
        }                                                                      \
        return fails(name) ? (failure) : __real_##symbol arguments;            \
    }
#define CALL(result, symbol, failure, changes, parameters, arguments) \
    CALL_AS(result, symbol, #symbol, failure, changes, parameters, arguments)
// For calls with a variant for large files ("64"): both names, because C libraries use different
// ones.
#define CALL_BOTH(result, symbol, failure, changes, parameters, arguments) \
    CALL(result, symbol, failure, changes, parameters, arguments)          \
    CALL_AS(result, symbol##64, #symbol, failure, changes, parameters, arguments)

extern "C" {

CALL_BOTH(int, open, -1, (flags & O_TRUNC) != 0, (const char* path, int flags, unsigned mode),
          (real_path(path), flags, mode))
CALL_BOTH(FILE*, fopen, nullptr, false, (const char* path, const char* mode),
          (real_path(path), mode))
CALL_BOTH(off_t, lseek, -1, false, (int fd, off_t offset, int from), (fd, offset, from))
CALL_BOTH(int, fstat, -1, false, (int fd, struct stat* status), (fd, status))
int __real_fsync(int fd);
int __wrap_fsync(int fd) {
    g_record_unflushed = g_record_unflushed && !is_record(fd);
    change();
    return fails("fsync") ? -1 : __real_fsync(fd);
}
CALL(int, fdatasync, -1, true, (int fd), (fd))
CALL(int, remove, -1, true, (const char* path), (path))
CALL(int, msgctl, -1, true, (int id, int command, msqid_ds* data), (id, command, data))
CALL(ssize_t, msgrcv, -1, false, (int id, void* to, size_t size, long type, int flags),
     (id, to, size, type, flags))
CALL(int, socket, -1, false, (int domain, int type, int protocol), (domain, type, protocol))
CALL(int, connect, -1, false, (int fd, const sockaddr* peer, socklen_t size), (fd, peer, size))
CALL(int, bind, -1, true, (int fd, const sockaddr* peer, socklen_t size), (fd, peer, size))
CALL(int, listen, -1, true, (int fd, int backlog), (fd, backlog))
CALL(int, accept4, -1, false, (int fd, sockaddr* address, socklen_t* size, int flags),
     (fd, address, size, flags))
CALL(int, msgget, -1, false, (key_t key, int flags), (key, flags))
CALL(key_t, ftok, -1, false, (const char* path, int project), (path, project))
CALL(DIR*, opendir, nullptr, false, (const char* path), (path))
CALL_BOTH(int, posix_fadvise, errno, false, (int fd, off_t offset, off_t size, int advice),
          (advised(fd, advice), offset, size, advice))
CALL(void, sync, void(), true, (), ())
CALL(void*, calloc, nullptr, false, (size_t count, size_t size), (count, size))
CALL(int, pthread_create, errno, false,
     (pthread_t * thread, const pthread_attr_t* attributes, void* (*body)(void*), void* given),
     (thread, attributes, body, given))

int __real_ioctl(int fd, unsigned long request, void* argument);
int __wrap_ioctl(int fd, unsigned long request, void* argument) {
    change();
    if (fails("ioctl")) {
        return -1;
    }
    return devices.ioctl != nullptr ? devices.ioctl(fd, request, argument)
                                    : __real_ioctl(fd, request, argument);
}

ssize_t __real_read(int fd, void* data, size_t size);
ssize_t __wrap_read(int fd, void* data, size_t size) {
    const Fault met = next("read");
    return met.effect > 0
               ? -1
               : __real_read(fd, data, met.effect == SHORT ? std::min(met.count, size) : size);
}

// The variants of these calls in a hardened program (_FORTIFY_SOURCE).
int __wrap___open_2(const char* path, int flags) {
    return __wrap_open(path, flags, 0);
}
int __wrap___open64_2(const char* path, int flags) {
    return __wrap_open64(path, flags, 0);
}
ssize_t __wrap___read_chk(int fd, void* data, size_t size, size_t /*room*/) {
    return __wrap_read(fd, data, size);
}

ssize_t __real_send(int fd, const void* data, size_t size, int flags);
ssize_t __wrap_send(int fd, const void* data, size_t size, int flags) {
    change();
    const Fault met = next("send");
    size_t moved = met.effect == SHORT ? std::min(met.count, size) : size;
    if (devices.send != nullptr) {
        moved = devices.send(fd, data, moved);
    }
    return met.effect > 0 ? -1 : __real_send(fd, data, moved, flags);
}

ssize_t __real_write(int fd, const void* data, size_t size);
ssize_t __wrap_write(int fd, const void* data, size_t size) {
    change();
    const Fault met = next("write");
    if (met.effect > 0) {
        return -1;
    }
    if (met.effect == TEAR) {
        __real_write(fd, data, size / 2);
        cut_power();
    }
    char stored[40960];  // the largest transfer
    if (size > sizeof(stored)) {
        abort();
    }
    const size_t moved = met.effect == SHORT ? std::min(met.count, size) : size;
    memcpy(stored, data, moved);
    if (is_image(fd, stored, moved) && next("image").effect == FLIP &&
        g_weak_byte.path[0] == '\0') {
        g_weak_byte = place_of(fd);
        g_weak_byte.at += static_cast<off_t>(moved) - 1;
    }
    g_record_unflushed = g_record_unflushed || is_record(fd);
    if (devices.write != nullptr) {
        devices.write(fd, stored, moved);
    }
    return __real_write(fd, stored, moved);
}

// Pauses of polls and retries are only shortened, not removed.
int __real_usleep(unsigned microseconds);
int __wrap_usleep(unsigned microseconds) {
    next("usleep", static_cast<int>(microseconds));
    return __real_usleep(microseconds / devices.hurry);
}

unsigned __wrap_sleep(unsigned seconds) {
    next("sleep", static_cast<int>(seconds));
    __real_usleep(seconds * 1000);
    return 0;
}

int __wrap_nanosleep(const timespec* wanted, timespec* /*left*/) {
    const auto microseconds =
        static_cast<unsigned>(wanted->tv_sec * 1000000 + wanted->tv_nsec / 1000);
    return __real_usleep(microseconds / devices.hurry);
}

int __real_select(int count, fd_set* in, fd_set* out, fd_set* bad, timeval* timeout);
int __wrap_select(int count, fd_set* in, fd_set* out, fd_set* bad, timeval* timeout) {
    next("tick", static_cast<int>(timeout->tv_usec / 1000));
    *timeout = {.tv_sec = 0, .tv_usec = 1000};
    return fails("select") ? -1 : __real_select(count, in, out, bad, timeout);
}

int __real_pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                  const timespec* deadline);
int __wrap_pthread_cond_timedwait(pthread_cond_t* condition, pthread_mutex_t* mutex,
                                  const timespec* deadline) {
    const int64_t nowMs = corvo::monotonic_ms();
    int64_t endMs = int64_t{deadline->tv_sec} * 1000 + deadline->tv_nsec / 1000000;
    note_wait(endMs - nowMs);
    const Fault met = next("pthread_cond_timedwait");
    if (met.effect == SHORT) {
        endMs = std::min(endMs, nowMs + static_cast<int64_t>(met.count));
    }
    const timespec end = {.tv_sec = static_cast<time_t>(endMs / 1000),
                          .tv_nsec = static_cast<long>(endMs % 1000 * 1000000)};
    return __real_pthread_cond_timedwait(condition, mutex, met.effect == SHORT ? &end : deadline);
}

// Saves the coverage counters however the program ends.
void __gcov_dump() __attribute__((weak));
[[noreturn]] void __real__exit(int status);
void __wrap__exit(int status) {
    if (__gcov_dump != nullptr) {
        __gcov_dump();
    }
    __real__exit(status);
}
}
