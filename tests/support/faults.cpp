#include "faults.h"

#include <errno.h>
#include <stdio.h>
#include <sys/select.h>
#include <sys/stat.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <optional>

// None of these is ever destroyed: calls are wrapped to the very end of the process.
Devices& devices = *new Devices;

namespace {

std::mutex mutex;
std::vector<Fault>& faults = *new std::vector<Fault>;
std::map<std::string, int>& counts = *new std::map<std::string, int>;
std::string& openedPaths = *new std::string;

// Counts the call; returns the fault that it meets, with errno set.
std::optional<Fault> next_call(const char* call, int amount = 1) {
    const std::lock_guard lock(mutex);
    const int ordinal = counts[call] += amount;
    for (const Fault& fault : faults) {
        if (fault.call == call && (fault.ordinal == 0 || fault.ordinal == ordinal)) {
            errno = fault.error;
            return fault;
        }
    }
    return std::nullopt;
}

const char* real_path(const char* path) {
    const std::lock_guard lock(mutex);
    openedPaths += path + std::string(" ");
    return path == std::string("/proc/mtd") ? "/tmp/proc_mtd" : path;
}

// The bytes that a transfer of this size moves; none when it fails.
std::optional<size_t> moved(const char* call, size_t size) {
    const std::optional<Fault> fault = next_call(call);
    if (fault && fault->error != 0) {
        return std::nullopt;
    }
    return fault ? std::min(fault->count, size) : size;
}

timeval* tick(timeval* timeout) {
    *timeout = {.tv_sec = 0, .tv_usec = 1000};
    return timeout;
}

}  // namespace

Faults::Faults(std::vector<Fault> wanted) {
    const std::lock_guard lock(mutex);
    faults = std::move(wanted);
    counts.clear();
    openedPaths.clear();
}

Faults::~Faults() {
    const std::lock_guard lock(mutex);
    faults.clear();
}

int Faults::calls(const std::string& call) {
    const std::lock_guard lock(mutex);
    return counts[call];
}

std::string Faults::opened() {
    const std::lock_guard lock(mutex);
    return openedPaths;
}

// A call of this result and these parameters, passed on as these arguments.
#define WRAP(name, call, failed, result, parameters, arguments)      \
    result __real_##name parameters;                                 \
    result __wrap_##name parameters {                                \
        return next_call(call) ? (failed) : __real_##name arguments; \
    }
// Calls that have a form for large files have both names: C libraries differ in which they use.
#define WRAP_BOTH(name, failed, result, parameters, arguments) \
    WRAP(name, #name, failed, result, parameters, arguments)   \
    WRAP(name##64, #name, failed, result, parameters, arguments)

extern "C" {
WRAP_BOTH(open, -1, int, (const char* path, int flags, unsigned mode),
          (real_path(path), flags, mode))
WRAP_BOTH(fopen, nullptr, FILE*, (const char* path, const char* mode), (real_path(path), mode))
WRAP_BOTH(lseek, -1, off_t, (int fd, off_t offset, int from), (fd, offset, from))
WRAP_BOTH(fstat, -1, int, (int fd, struct stat* status), (fd, status))
WRAP(fdatasync, "fdatasync", -1, int, (int fd), (fd))
WRAP(select, "select", -1, int, (int fds, fd_set* in, fd_set* out, fd_set* bad, timeval* timeout),
     (fds, in, out, bad, tick(timeout)))

int __wrap_usleep(unsigned microseconds) {
    next_call("usleep", static_cast<int>(microseconds));
    return 0;
}

int __real_ioctl(int fd, unsigned long request, void* argument);
int __wrap_ioctl(int fd, unsigned long request, void* argument) {
    if (next_call("ioctl")) {
        return -1;
    }
    return devices.ioctl ? devices.ioctl(request, argument) : __real_ioctl(fd, request, argument);
}

ssize_t __real_read(int fd, void* data, size_t size);
ssize_t __wrap_read(int fd, void* data, size_t size) {
    const auto count = moved("read", size);
    return count ? __real_read(fd, data, *count) : -1;
}

ssize_t __real_write(int fd, const void* data, size_t size);
ssize_t __wrap_write(int fd, const void* data, size_t size) {
    const auto count = moved("write", size);
    if (!count) {
        return -1;
    }
    std::string bytes(static_cast<const char*>(data), *count);
    if (devices.write) {
        devices.write(fd, bytes);
    }
    return __real_write(fd, bytes.data(), bytes.size());
}
}
