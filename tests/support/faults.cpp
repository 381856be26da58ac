#include "faults.h"

#include <errno.h>
#include <stdio.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <mutex>
#include <optional>

// None of these is ever destroyed: calls are wrapped to the very end of the process.
Devices& devices = *new Devices;

namespace {

std::mutex mutex;
bool active = false;
std::vector<Fault>& faults = *new std::vector<Fault>;
std::map<std::string, int>& counts = *new std::map<std::string, int>;
std::vector<std::string>& openedPaths = *new std::vector<std::string>;

// Counts the call; returns the fault that it meets, with errno set.
std::optional<Fault> next_call(const char* call) {
    const std::lock_guard lock(mutex);
    if (!active) {
        return std::nullopt;
    }
    const int ordinal = ++counts[call];
    for (const Fault& fault : faults) {
        if (fault.call == call && (fault.ordinal == 0 || fault.ordinal == ordinal)) {
            errno = fault.error;
            return fault;
        }
    }
    return std::nullopt;
}

std::string real_path(const char* path) {
    const std::lock_guard lock(mutex);
    openedPaths.emplace_back(path);
    const auto entry = devices.paths.find(path);
    return entry == devices.paths.end() ? path : entry->second;
}

timeval* shortened(timeval* timeout) {
    if (devices.tickUs > 0) {
        *timeout = {.tv_sec = 0, .tv_usec = devices.tickUs};
    }
    return timeout;
}

}  // namespace

Faults::Faults(std::vector<Fault> wanted) {
    const std::lock_guard lock(mutex);
    faults = std::move(wanted);
    counts.clear();
    openedPaths.clear();
    active = true;
}

Faults::~Faults() {
    const std::lock_guard lock(mutex);
    active = false;
}

int Faults::calls(const std::string& call) {
    const std::lock_guard lock(mutex);
    return counts[call];
}

std::vector<std::string> Faults::opened() {
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
          (real_path(path).c_str(), flags, mode))
WRAP_BOTH(fopen, nullptr, FILE*, (const char* path, const char* mode),
          (real_path(path).c_str(), mode))
WRAP_BOTH(lseek, -1, off_t, (int fd, off_t offset, int from), (fd, offset, from))
WRAP_BOTH(fstat, -1, int, (int fd, struct stat* status), (fd, status))
WRAP(fdatasync, "fdatasync", -1, int, (int fd), (fd))
WRAP(select, "select", -1, int, (int fds, fd_set* in, fd_set* out, fd_set* bad, timeval* timeout),
     (fds, in, out, bad, shortened(timeout)))
int __real_ioctl(int fd, unsigned long request, void* argument);
int __wrap_ioctl(int fd, unsigned long request, void* argument) {
    if (next_call("ioctl")) {
        return -1;
    }
    return devices.ioctl ? devices.ioctl(fd, request, argument)
                         : __real_ioctl(fd, request, argument);
}

ssize_t __real_read(int fd, void* data, size_t size);
ssize_t __wrap_read(int fd, void* data, size_t size) {
    const auto fault = next_call("read");
    if (fault && fault->error != 0) {
        return -1;
    }
    return __real_read(fd, data, fault ? std::min(fault->count, size) : size);
}

ssize_t __real_write(int fd, const void* data, size_t size);
ssize_t __wrap_write(int fd, const void* data, size_t size) {
    const auto fault = next_call("write");
    if (fault && fault->error != 0) {
        return -1;
    }
    std::string bytes(static_cast<const char*>(data), fault ? std::min(fault->count, size) : size);
    if (devices.write) {
        devices.write(fd, bytes);
    }
    return __real_write(fd, bytes.data(), bytes.size());
}
}
