#include "agent/sleep.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/eventfd.h>

#include <string>
#include <vector>

#include "base/ignore_result.h"
#include "base/owned.h"
#include "base/signal_set.h"
#include "command_runner/command_runner.h"

namespace {

constexpr char SELF[] = "/proc/self/exe";
constexpr char OWN_DESCRIPTORS[] = "/proc/self/fd";
// The variable contains "PROCESS DESCRIPTOR" of the lock for the program that the sleeper starts;
// the descriptor is -1 when no lock is held. The sleeper keeps the process id, so that a variable
// that was inherited from another process is recognised.
constexpr char LOCK_VARIABLE[] = "CORVO_AGENT_LOCK";

std::atomic<bool> g_stop;
corvo::UniqueFd g_wake;  // an eventfd(2) that ends the sleep

void wake(int signal) {
    const int error = errno;
    if (signal != SIGHUP) {
        g_stop = true;
        stop_commands(0);  // a fitness command may run for up to a minute
    }
    const uint64_t one = 1;
    corvo::ignore_result(write(g_wake.get(), &one, sizeof(one)));
    errno = error;
}

// Returns the path of this program's file; empty when unknown.
std::string own_program() {
    char path[PATH_MAX];
    const ssize_t length = readlink(SELF, path, sizeof(path));
    return length < 0 ? std::string() : std::string(path, static_cast<size_t>(length));
}

void close_at_exec(int kept) {
    const corvo::OwnedDirectory descriptors(opendir(OWN_DESCRIPTORS));
    while (const dirent* entry = descriptors ? readdir(descriptors.get()) : nullptr) {
        const int fd = atoi(entry->d_name);
        if (fd > STDERR_FILENO && fd != kept) {
            fcntl(fd, F_SETFD, FD_CLOEXEC);
        }
    }
}

}  // namespace

std::atomic<bool>& catch_signals() {
    g_wake.reset(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    struct sigaction action = {};
    action.sa_handler = wake;
    for (const int signal : WAKING_SIGNALS) {
        sigaction(signal, &action, nullptr);
    }
    action.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &action, nullptr);
    const sigset_t signals = corvo::signal_set(WAKING_SIGNALS);
    sigprocmask(SIG_UNBLOCK, &signals, nullptr);
    return g_stop;
}

bool sleep_inside(uint32_t milliseconds) {
    pollfd woken = {.fd = g_wake.get(), .events = POLLIN, .revents = 0};
    // The result is not needed: a signal that interrupts the call makes the descriptor readable.
    corvo::ignore_result(poll(&woken, 1, static_cast<int>(milliseconds)));
    uint64_t count = 0;
    return read(g_wake.get(), &count, sizeof(count)) > 0;
}

void sleep_outside(const AgentProcess& process, uint32_t milliseconds) {
    std::string program = own_program();
    std::string sleeper = program.substr(0, program.rfind('/') + 1) + SLEEPER;
    // The agent's file may have been replaced since its start; its path is not valid then.
    if (access(program.c_str(), X_OK) != 0 || access(sleeper.c_str(), X_OK) != 0) {
        return;
    }
    sigset_t before;
    const sigset_t signals = corvo::signal_set(WAKING_SIGNALS);
    sigprocmask(SIG_BLOCK, &signals, &before);
    pollfd woken = {.fd = g_wake.get(), .events = POLLIN, .revents = 0};
    std::string time = std::to_string(poll(&woken, 1, 0) > 0 ? 0 : milliseconds);
    std::vector<char*> arguments = {sleeper.data(), time.data(), program.data()};
    for (char** argument = process.arguments + 1; *argument != nullptr; ++argument) {
        arguments.push_back(*argument);
    }
    arguments.push_back(nullptr);

    if (!g_stop) {
        close_at_exec(process.lock.get());
        if (process.lock.valid()) {
            fcntl(process.lock.get(), F_SETFD, 0);
        }
        const std::string lock =
            std::to_string(getpid()) + ' ' + std::to_string(process.lock.get());
        setenv(LOCK_VARIABLE, lock.c_str(), 1);
        execv(sleeper.c_str(), arguments.data());
        unsetenv(LOCK_VARIABLE);
        if (process.lock.valid()) {
            fcntl(process.lock.get(), F_SETFD, FD_CLOEXEC);
        }
    }
    sigprocmask(SIG_SETMASK, &before, nullptr);
}

AgentProcess wake_up(char** arguments) {
    AgentProcess process = {.arguments = arguments, .lock = {}, .slept = false};
    const char* const lock = getenv(LOCK_VARIABLE);
    int sleeper = 0;
    int fd = -1;
    if (lock != nullptr && sscanf(lock, "%d %d", &sleeper, &fd) == 2 && sleeper == getpid()) {
        process.slept = true;
        // fcntl() fails if the descriptor is not open.
        if (fd > STDERR_FILENO && fcntl(fd, F_SETFD, FD_CLOEXEC) == 0) {
            process.lock.reset(fd);
        }
    }
    unsetenv(LOCK_VARIABLE);
    return process;
}
