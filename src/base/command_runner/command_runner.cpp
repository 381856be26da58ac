#include "command_runner/command_runner.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <memory>
#include <mutex>
#include <system_error>
#include <thread>

#include "base/monotonic_clock.h"
#include "base/standard_descriptors.h"
#include "base/unique_fd.h"

namespace {

constexpr int KILL_GRACE_MS = 2000;  // for a process that is stuck in the kernel
constexpr int EXIT_CANNOT_RUN = 127;
constexpr int EXIT_SIGNAL_BASE = 128;

// Readable from the call of stop_commands() on; never reset. It is opened before main(), so closed
// standard descriptors must be occupied here. Otherwise it could become the standard output, which
// commands would then find closed, and what this process prints could set it.
const int g_stop_event = [] {
    corvo::occupy_standard_descriptors();
    return eventfd(0, EFD_CLOEXEC);
}();
std::atomic<int> g_stop_grace_ms{0};

// One command, shared by the calling thread and the thread that waits for the command to end.
struct Running {
    pid_t pid = 0;
    corvo::UniqueFd ended;  // an eventfd, readable when the shell has been reaped
    std::mutex mutex;
    bool reaped = false;  // guarded by mutex
    int waitStatus = 0;   // guarded by mutex
};

// The signals that have a handler or are ignored. The new process resets only these, because with
// the thread sanitizer sigaction() may wait for a lock, which another thread held during fork().
sigset_t handled_signals() {
    sigset_t handled;
    sigemptyset(&handled);
    for (int number = 1; number < NSIG; ++number) {
        struct sigaction action = {};
        if (sigaction(number, nullptr, &action) == 0 && action.sa_handler != SIG_DFL) {
            sigaddset(&handled, number);
        }
    }
    return handled;
}

// close_from() and become_command() run between fork() and exec() in a process with many threads,
// so they may use system calls only.
void close_from(unsigned first, unsigned descriptorLimit) {
#ifdef SYS_close_range
    if (syscall(SYS_close_range, first, ~0U, 0) == 0) {
        return;
    }
#endif
    for (unsigned fd = first; fd < descriptorLimit; ++fd) {
        close(static_cast<int>(fd));
    }
}

[[noreturn]] void become_command(const char* command, int standardInput, int standardOutput,
                                 const sigset_t& handled, unsigned descriptorLimit) {
    setpgid(0, 0);
    struct sigaction defaults = {};
    defaults.sa_handler = SIG_DFL;
    for (int number = 1; number < NSIG; ++number) {
        if (sigismember(&handled, number) == 1) {
            sigaction(number, &defaults, nullptr);
        }
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    dup2(standardInput, STDIN_FILENO);
    if (standardOutput >= 0) {
        dup2(standardOutput, STDOUT_FILENO);
    }
    close_from(STDERR_FILENO + 1, descriptorLimit);
    execl("/bin/sh", "sh", "-c", command, static_cast<char*>(nullptr));
    _exit(EXIT_CANNOT_RUN);
}

void wait_for_end(const std::shared_ptr<Running>& running) {
    siginfo_t info = {};
    while (waitid(P_PID, static_cast<id_t>(running->pid), &info, WEXITED | WNOWAIT) < 0 &&
           errno == EINTR) {
    }
    {
        // Reap under the mutex, so that kill_group() cannot signal a process id that the kernel has
        // given to another process in the meantime.
        const std::lock_guard<std::mutex> lock(running->mutex);
        waitpid(running->pid, &running->waitStatus, 0);
        running->reaped = true;
    }
    eventfd_write(running->ended.get(), 1);
}

void kill_group(Running& running) {
    const std::lock_guard<std::mutex> lock(running.mutex);
    if (!running.reaped) {
        kill(-running.pid, SIGKILL);
    }
}

bool is_reaped(Running& running) {
    const std::lock_guard<std::mutex> lock(running.mutex);
    return running.reaped;
}

// Reads from the pipe and appends to output. Bytes that do not fit are discarded, so that the
// command does not block on a full pipe. Returns false at the end of the stream.
bool read_some(int pipe, std::span<char> output, size_t& length) {
    std::array<char, 4096> chunk;
    const ssize_t n = read(pipe, chunk.data(), chunk.size());
    if (n < 0) {
        return errno == EAGAIN || errno == EINTR;
    }
    const size_t kept = std::min(static_cast<size_t>(n), output.size() - length);
    memcpy(output.data() + length, chunk.data(), kept);
    length += kept;
    return n > 0;
}

// Reads the rest of the output after the shell has ended. A background child may write without end,
// so this stops when output is full, and does not wait.
void drain(int pipe, std::span<char> output, size_t& length) {
    while (length < output.size()) {
        const ssize_t n = read(pipe, output.data() + length, output.size() - length);
        if (n <= 0) {
            return;
        }
        length += static_cast<size_t>(n);
    }
}

int status_of(int waitStatus) {
    return WIFSIGNALED(waitStatus) ? EXIT_SIGNAL_BASE + WTERMSIG(waitStatus)
                                   : WEXITSTATUS(waitStatus);
}

CommandResult supervise(Running& running, int limitMs, int pipe, std::span<char> output) {
    CommandResult result = {.started = true, .killed = false, .status = 0, .outputLength = 0};
    int64_t deadline = corvo::monotonic_ms() + limitMs;
    std::array<pollfd, 3> events = {{{.fd = running.ended.get(), .events = POLLIN, .revents = 0},
                                     {.fd = pipe, .events = POLLIN, .revents = 0},
                                     {.fd = g_stop_event, .events = POLLIN, .revents = 0}}};
    pollfd& ended = events[0];
    pollfd& readable = events[1];
    pollfd& stopping = events[2];
    while (ended.revents == 0) {
        const int64_t left = deadline - corvo::monotonic_ms();
        if (left <= 0 && result.killed) {
            break;  // stuck in the kernel even after SIGKILL; reported as killed
        }
        if (left <= 0) {
            result.killed = true;
            kill_group(running);
            deadline = corvo::monotonic_ms() + KILL_GRACE_MS;
            continue;
        }
        if (poll(events.data(), events.size(), static_cast<int>(left)) < 0) {
            continue;
        }
        if (readable.revents != 0 && !read_some(pipe, output, result.outputLength)) {
            readable.fd = -1;
        }
        if (stopping.revents != 0) {
            deadline = std::min(deadline, corvo::monotonic_ms() + g_stop_grace_ms);
            stopping.fd = -1;
        }
    }
    if (readable.fd >= 0) {
        drain(pipe, output, result.outputLength);
    }
    const std::lock_guard<std::mutex> lock(running.mutex);
    result.status = running.reaped ? status_of(running.waitStatus) : EXIT_SIGNAL_BASE + SIGKILL;
    return result;
}

}  // namespace

CommandResult run_command(const char* command, int limitMs, std::span<char> output) {
    const CommandResult notStarted = {};
    corvo::UniqueFd readEnd;
    corvo::UniqueFd writeEnd;
    if (!output.empty()) {
        int ends[2] = {};
        if (pipe2(ends, O_CLOEXEC) != 0) {
            return notStarted;
        }
        readEnd.reset(ends[0]);
        writeEnd.reset(ends[1]);
        fcntl(readEnd.get(), F_SETFL, O_NONBLOCK);
    }
    const corvo::UniqueFd nothing(open("/dev/null", O_RDONLY | O_CLOEXEC));
    const auto running = std::make_shared<Running>();
    running->ended.reset(eventfd(0, EFD_CLOEXEC));
    if (!nothing.valid() || !running->ended.valid()) {
        return notStarted;
    }
    rlimit descriptors = {};
    getrlimit(RLIMIT_NOFILE, &descriptors);
    const sigset_t handled = handled_signals();

    running->pid = fork();
    if (running->pid < 0) {
        return notStarted;
    }
    if (running->pid == 0) {
        become_command(command, nothing.get(), writeEnd.get(), handled,
                       static_cast<unsigned>(std::min<rlim_t>(descriptors.rlim_cur, 65536)));
    }
    // Both processes call setpgid(), so that the group exists whichever runs first.
    setpgid(running->pid, running->pid);
    writeEnd.reset();
    std::thread waiter;
    try {
        waiter = std::thread(wait_for_end, running);
    } catch (const std::system_error&) {
        kill_group(*running);
        waitpid(running->pid, nullptr, 0);
        return notStarted;
    }
    const CommandResult result = supervise(*running, limitMs, readEnd.get(), output);
    // A thread that is still ending may hold a lock of a run-time library. If the next fork()
    // copies the lock, nobody releases it in the new process. A command that is stuck in the kernel
    // is not waited for.
    if (is_reaped(*running)) {
        waiter.join();
    } else {
        waiter.detach();
    }
    return result;
}

void stop_commands(int graceMs) {
    g_stop_grace_ms = graceMs;
    eventfd_write(g_stop_event, 1);
}
