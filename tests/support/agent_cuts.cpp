// Replaces those calls of the agent that change something outside of the process, and kills the
// agent before the one whose number is in the environment variable CORVO_CUT; with -1, right after
// the request to the service; with -2, right before the request; with -3, before a package's
// manifest is removed. A request to the server counts twice: before it is sent, and when its answer
// has arrived. Waiting takes no time: the monotonic clock advances by itself.
#include <curl/curl.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/msg.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <atomic>

extern "C" {
void __gcov_dump() __attribute__((weak));
void __gcov_reset() __attribute__((weak));
}

namespace {

// Saves the coverage counters, because a process that is killed does not.
void keep_counts() {
    if (__gcov_dump != nullptr) {
        __gcov_dump();
        __gcov_reset();
    }
}

constexpr long NS_PER_S = 1000000000;
constexpr long HURRY = 50;

std::atomic<int> g_changes{0};
std::atomic<long> g_skippedNs{0};

const char* const g_cut = getenv("CORVO_CUT");
constexpr int AFTER_THE_REQUEST = -1;
constexpr int BEFORE_THE_REQUEST = -2;
constexpr int BEFORE_FILES_GO = -3;
// While the request is being withdrawn: if the first file exists, it is renamed to the second one,
// and the agent waits until the test removes that.
constexpr char WITHDRAWS_LATE[] = "/run/late";
constexpr char WITHDRAWS[] = "/run/withdraws";
// With this file the kernel has no random numbers yet.
constexpr char UNSEEDED[] = "/run/unseeded";

void pass(int place) {
    if (g_cut != nullptr && place == atoi(g_cut)) {
        keep_counts();
        kill(getpid(), SIGKILL);
        abort();
    }
}

void change() {
    pass(++g_changes);
}

}  // namespace

#define CHANGING(result, symbol, parameters, arguments) \
    result __real_##symbol parameters;                  \
    result __wrap_##symbol parameters {                 \
        change();                                       \
        return __real_##symbol arguments;               \
    }

extern "C" {

CHANGING(int, rename, (const char* from, const char* to), (from, to))
CHANGING(int, renameat, (int old, const char* from, int folder, const char* to),
         (old, from, folder, to))
CHANGING(int, unlink, (const char* path), (path))
CHANGING(int, mkdir, (const char* path, mode_t mode), (path, mode))
CHANGING(int, mkdirat, (int folder, const char* path, mode_t mode), (folder, path, mode))
CHANGING(int, ftruncate64, (int fd, off_t size), (fd, size))
CHANGING(int, fsync, (int fd), (fd))
CHANGING(int, fdatasync, (int fd), (fd))
CHANGING(ssize_t, write, (int fd, const void* data, size_t size), (fd, data, size))
// CORVO_SLOW in the environment: the number of bytes whose download takes a second of the agent's
// clock.
ssize_t __real_pwrite64(int fd, const void* data, size_t size, off_t at);
ssize_t __wrap_pwrite64(int fd, const void* data, size_t size, off_t at) {
    change();
    if (const char* const bytesPerS = getenv("CORVO_SLOW")) {
        g_skippedNs += static_cast<long>(size) * NS_PER_S / atol(bytesPerS);
    }
    return __real_pwrite64(fd, data, size, at);
}

int __real_unlinkat(int folder, const char* path, int flags);
int __wrap_unlinkat(int folder, const char* path, int flags) {
    change();
    if (strcmp(path, "package.manifest") == 0 && faccessat(folder, path, F_OK, 0) == 0) {
        pass(BEFORE_FILES_GO);
    }
    return __real_unlinkat(folder, path, flags);
}

int __real_nanosleep(const timespec* span, timespec* left);
ssize_t __real_msgrcv(int id, void* data, size_t size, long type, int flags);
ssize_t __wrap_msgrcv(int id, void* data, size_t size, long type, int flags) {
    const timespec span = {.tv_sec = 0, .tv_nsec = NS_PER_S / 100};
    if (__real_rename(WITHDRAWS_LATE, WITHDRAWS) == 0) {
        while (access(WITHDRAWS, F_OK) == 0) {
            __real_nanosleep(&span, nullptr);
        }
    }
    return __real_msgrcv(id, data, size, type, flags);
}

int __real_msgsnd(int id, const void* data, size_t size, int flags);
int __wrap_msgsnd(int id, const void* data, size_t size, int flags) {
    change();
    pass(BEFORE_THE_REQUEST);
    const int result = __real_msgsnd(id, data, size, flags);
    pass(AFTER_THE_REQUEST);
    return result;
}

ssize_t __real_getrandom(void* data, size_t size, unsigned flags);
ssize_t __wrap_getrandom(void* data, size_t size, unsigned flags) {
    if ((flags & GRND_NONBLOCK) != 0 && access(UNSEEDED, F_OK) == 0) {
        errno = EAGAIN;
        return -1;
    }
    return __real_getrandom(data, size, flags);
}

CURLcode __real_curl_easy_perform(CURL* handle);
CURLcode __wrap_curl_easy_perform(CURL* handle) {
    change();
    const CURLcode code = __real_curl_easy_perform(handle);
    change();
    return code;
}

int __wrap_nanosleep(const timespec* span, timespec* left) {
    const long all = span->tv_sec * NS_PER_S + span->tv_nsec;
    const timespec hurried = {.tv_sec = 0, .tv_nsec = all / HURRY};
    g_skippedNs += all - hurried.tv_nsec;
    // Before the 1st, 2nd, 4th, 8th sleep and so on: the test may kill a process that waits, and
    // saving takes long, in particular for a process that is traced.
    static std::atomic<unsigned> sleeps{0};
    const unsigned number = ++sleeps;
    if ((number & (number - 1)) == 0) {
        keep_counts();
    }
    return __real_nanosleep(&hurried, left);
}

int __real_clock_gettime(clockid_t clock, timespec* now);
int __wrap_clock_gettime(clockid_t clock, timespec* now) {
    const int result = __real_clock_gettime(clock, now);
    if (clock == CLOCK_MONOTONIC) {
        const long all = now->tv_sec * NS_PER_S + now->tv_nsec + g_skippedNs;
        *now = {.tv_sec = all / NS_PER_S, .tv_nsec = all % NS_PER_S};
    }
    return result;
}
}
