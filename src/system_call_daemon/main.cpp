// The system-call daemon: runs shell commands on behalf of other processes of the camera, as the
// server endpoint "system.call.daemon" of the socket transport.
//
// The method "system_call" replies with the command's exit status in decimal, "popen_call" with at
// most 1024 bytes of its output. At the method's time limit a command is killed together with all
// processes in its process group. The reply is then 137, or the output so far.
#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <algorithm>
#include <span>
#include <string>

#include "base/signal_set.h"
#include "base/unique_fd.h"
#include "cli/command_line.h"
#include "cli/error_line.h"
#include "command_runner/command_runner.h"
#include "dbus/dbus_socket_common.h"
#include "dbus/system_call.h"

namespace {

constexpr const char* PROGRAM = "system_call_daemon";
constexpr int LIMIT_MAX_MS = 3600000;
constexpr int STOP_GRACE_MS = 2000;  // for commands that are running when the daemon ends
constexpr int PROBES = 100;
constexpr int PROBE_MS = 1000;

struct Settings {
    // Killing a command that writes the boot environment or unmounts a disk does more harm than a
    // late reply, so this is far above the clients' time-outs.
    int systemLimitMs = 60000;
    // Below the clients' default time-out, so that they still receive the output of a command that
    // hangs.
    int popenLimitMs = SYSTEM_CALL_DBUS_DEFAULT_TIMEOUT_MS - 1000;
    bool verbose = false;
};

Settings g_settings;  // set before the first handler runs, never changed afterwards

std::string command_of(const void* in, uint32_t inLen) {
    const auto* text = static_cast<const char*>(in);
    return {text, strnlen(text, std::min(inLen, SYSTEM_CALL_DBUS_DATA_SIZE))};
}

void report(const char* method, const std::string& command, const CommandResult& result) {
    if (!result.started) {
        printf("%s: cannot start: %s\n", method, command.c_str());
    } else if (g_settings.verbose || result.killed) {
        printf("%s: %s%d: %s\n", method,
               result.killed ? "killed at the time limit, status " : "status ", result.status,
               command.c_str());
    }
}

int32_t handle_system_call(const void* in, uint32_t inLen, void* out, uint32_t outCap) {
    const std::string command = command_of(in, inLen);
    const CommandResult result = run_command(command.c_str(), g_settings.systemLimitMs, {});
    report(SYSTEM_CALL_METHOD, command, result);
    if (!result.started) {
        return DBUS_CALL_FAILED;
    }
    return snprintf(static_cast<char*>(out), outCap, "%d", result.status);
}

int32_t handle_popen_call(const void* in, uint32_t inLen, void* out, uint32_t outCap) {
    const std::string command = command_of(in, inLen);
    const CommandResult result = run_command(command.c_str(), g_settings.popenLimitMs,
                                             std::span(static_cast<char*>(out), outCap));
    report(POPEN_CALL_METHOD, command, result);
    return result.started ? static_cast<int32_t>(result.outputLength) : DBUS_CALL_FAILED;
}

// Checks for a running daemon, since a second one would replace the socket of the first. A full
// backlog (EAGAIN) also means a running daemon. After the death of a daemon, a command that it was
// just starting can keep the socket open for a moment and then closes it, hence the repeated
// probes.
bool daemon_is_running() {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof(address.sun_path), SYSTEM_CALL_DBUS_SOCKET_FORMAT,
             SYSTEM_CALL_DAEMON_NAME);
    const auto* const generic = reinterpret_cast<const sockaddr*>(&address);
    for (int i = 0; i < PROBES; ++i) {
        const corvo::UniqueFd probe(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
        if (connect(probe.get(), generic, sizeof(address)) != 0) {
            return errno == EAGAIN;
        }
        pollfd connection = {.fd = probe.get(), .events = 0, .revents = 0};
        if (poll(&connection, 1, PROBE_MS) == 0) {
            return true;
        }
    }
    return true;  // another program listens on the socket and closes every connection
}

int serve(const sigset_t& endSignals) {
    SystemCallDbusInfo* endpoint = SystemCall_DbusInfo_Alloc(2);
    if (endpoint == nullptr) {
        return EXIT_FAILURE;
    }
    snprintf(endpoint->name, sizeof(endpoint->name), "%s", SYSTEM_CALL_DAEMON_NAME);
    SystemCall_DbusInterface_Set_Method(endpoint->interfaces[0], SYSTEM_CALL_METHOD,
                                        handle_system_call);
    SystemCall_DbusInterface_Set_Method(endpoint->interfaces[1], POPEN_CALL_METHOD,
                                        handle_popen_call);
    if (SystemCall_Dbus_Register(endpoint) != DBUS_OK) {
        SystemCall_DbusInfo_Free(endpoint);
        return EXIT_FAILURE;
    }
    printf("%s: ready\n", PROGRAM);
    int signal = 0;
    sigwait(&endSignals, &signal);
    printf("%s: stopping on signal %d\n", PROGRAM, signal);
    stop_commands(STOP_GRACE_MS);
    SystemCall_Dbus_UnRegister(endpoint);
    SystemCall_DbusInfo_Free(endpoint);
    return EXIT_SUCCESS;
}

}  // namespace

static int program(int argc, char** argv) {
    CLI::App app("Runs shell commands for the camera's other processes.", PROGRAM);
    app.add_option("--system-limit", g_settings.systemLimitMs,
                   "Kill a system_call command after MS milliseconds")
        ->option_text("MS [60000]")
        ->check(CLI::Range(1, LIMIT_MAX_MS));
    app.add_option("--popen-limit", g_settings.popenLimitMs,
                   "Kill a popen_call command after MS milliseconds")
        ->option_text("MS [9000]")
        ->check(CLI::Range(1, LIMIT_MAX_MS));
    app.add_flag("--verbose", g_settings.verbose, "Print a line for every command");
    if (const auto status = parse_command_line(app, argc, argv)) {
        return *status;
    }

    // Files that commands create, such as the upgrade's pid file, must not be writable by others.
    umask(umask(0) | S_IWGRP | S_IWOTH);
    setvbuf(stdout, nullptr, _IOLBF, 0);
    // Block the signals before any thread is created, so that only sigwait() in serve() gets them.
    const sigset_t endSignals = corvo::signal_set({SIGINT, SIGTERM, SIGHUP, SIGQUIT});
    pthread_sigmask(SIG_BLOCK, &endSignals, nullptr);
    // If the parent ignored SIGCHLD, this process would inherit that and lose every exit status.
    signal(SIGCHLD, SIG_DFL);
    signal(SIGPIPE, SIG_IGN);

    if (daemon_is_running()) {
        print_error(PROGRAM, "another daemon is already running");
        return EXIT_FAILURE;
    }
    return serve(endSignals);
}

int main(int argc, char** argv) {
    return run_guarded(PROGRAM, [&] { return program(argc, argv); });
}
