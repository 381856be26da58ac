#include "commit/camera.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#include "base/ignore_result.h"
#include "base/monotonic_clock.h"
#include "base/standard_descriptors.h"
#include "cli/error_line.h"
#include "command_runner/command_runner.h"

namespace {

constexpr char COMMAND_LINE[] = "/proc/cmdline";
constexpr char BOOT_ID[] = "/proc/sys/kernel/random/boot_id";
constexpr size_t COMMAND_LINE_SIZE = 4096;  // the kernel's limit on most processors
constexpr int TOOL_LIMIT_MS = 10000;
constexpr int RESTART_LIMIT_MS = 60000;
// What a command may still use when the camera stops, the tools of the boot environment too.
constexpr int STOP_GRACE_MS = 3000;
constexpr int LOCK_ATTEMPTS = 100;
constexpr int LOCK_PAUSE_MS = 100;
constexpr size_t OUTPUT_SIZE = 256;
constexpr int64_t MS_PER_S = 1000;

// Only the variables that are needed, so that the size of the output does not depend on the
// environment; the status is that of fw_printenv.
constexpr char READ_COMMAND[] =
    "all=$(fw_printenv 2> /dev/null) || exit; printf '%s\\n' \"$all\" | "
    "grep -E '^(bootsystem|upgrade_available|bootcount|rolled_back|boot_loader_saved)='; :";

// Opened before main(), so it could become a standard descriptor, as the event in
// command_runner.cpp.
const int g_stop = [] {
    corvo::occupy_standard_descriptors();
    return eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
}();

Camera& camera_of(void* context) {
    return *static_cast<Camera*>(context);
}

std::string read_line(const char* path) {
    const corvo::UniqueFd file(open(path, O_RDONLY | O_CLOEXEC));
    std::array<char, COMMAND_LINE_SIZE> text;
    const ssize_t length = file.valid() ? read(file.get(), text.data(), text.size()) : -1;
    const std::string line(text.data(), length < 0 ? 0 : static_cast<size_t>(length));
    return line.substr(0, line.find('\n'));
}

// The device of the root file system, under the name that the boot loader passed or as a node.
char slot_of_root(const CommitSettings& settings, const std::string& line) {
    const char named =
        slot_on_command_line(line, "root=" + settings.rootA, "root=" + settings.rootB);
    if (named != NO_SLOT) {
        return named;
    }
    struct stat root = {};
    struct stat nodeA = {};
    struct stat nodeB = {};
    if (stat("/", &root) != 0) {
        return NO_SLOT;
    }
    const bool isA = stat(settings.rootA.c_str(), &nodeA) == 0 && S_ISBLK(nodeA.st_mode) &&
                     nodeA.st_rdev == root.st_dev;
    const bool isB = stat(settings.rootB.c_str(), &nodeB) == 0 && S_ISBLK(nodeB.st_mode) &&
                     nodeB.st_rdev == root.st_dev;
    return isA == isB ? NO_SLOT : isA ? 'A' : 'B';
}

char running_slot(void* context) {
    const CommitSettings& settings = camera_of(context).settings;
    const std::string line = read_line(COMMAND_LINE);
    return settings.slotFrom == "root-device"
               ? slot_of_root(settings, line)
               : slot_on_command_line(line, settings.wordA, settings.wordB);
}

void boot_id(void* /*context*/, char (&id)[BOOT_ID_SIZE]) {
    snprintf(id, sizeof(id), "%s", read_line(BOOT_ID).c_str());
}

// --- boot environment --------------------------------------------------------------------------

// A value that is longer than any of ours is cut off, and is then not equal to any of them.
void take_line(const std::string& line, BootEnvironment& environment) {
    for (size_t i = 0; i < BOOT_VARIABLES.size(); ++i) {
        const std::string name = std::string(BOOT_VARIABLES[i]) + '=';
        if (line.starts_with(name)) {
            snprintf(environment.values[i], BOOT_VALUE_SIZE, "%s", line.c_str() + name.size());
        }
    }
}

bool read_environment(void* /*context*/, BootEnvironment& environment) {
    std::array<char, OUTPUT_SIZE * 2> output;
    const CommandResult result = run_command(READ_COMMAND, TOOL_LIMIT_MS, output);
    if (!result.started || result.killed || result.status != 0 ||
        result.outputLength == output.size()) {
        return false;
    }
    environment = {};
    const std::string text(output.data(), result.outputLength);
    for (size_t begin = 0, end = 0; begin < text.size(); begin = end + 1) {
        end = std::min(text.find('\n', begin), text.size());
        take_line(text.substr(begin, end - begin), environment);
    }
    return true;
}

// libubootenv separates name and value by "=" and ignores a space. Older tools of U-Boot need the
// space, and take "NAME=VALUE" for the name of a variable, which they remove: after a power cut the
// environment would select no system. So the space comes first, and reading shows whether it was
// understood. A tool that was killed, because flash or processor were busy for too long, is started
// once more.
void store_environment(void* context, std::span<const BootValue> values) {
    for (const char* separator : {" ", "="}) {
        std::string command = "printf '%s\\n'";
        for (const BootValue& value : values) {
            command +=
                std::string(" '") + BOOT_VARIABLES[value.variable] + separator + value.value + '\'';
        }
        command += " | fw_setenv -s - > /dev/null 2>&1";
        if (run_command(command.c_str(), TOOL_LIMIT_MS, {}).killed) {
            print_error(COMMIT, "fw_setenv does not end in time");
            run_command(command.c_str(), TOOL_LIMIT_MS, {});
        }
        BootEnvironment environment;
        if (read_environment(context, environment) && has_values(environment, values)) {
            return;
        }
    }
}

// --- commands ----------------------------------------------------------------------------------

// The first line that a command printed.
std::string first_line(std::span<const char> output) {
    const std::string text(output.data(), output.size());
    return printable(text.substr(0, text.find('\n')));
}

bool check_health(void* context, int64_t limitMs, std::string& reason) {
    const CommitSettings& settings = camera_of(context).settings;
    const int64_t eachMs = std::min<int64_t>(limitMs, settings.healthTimeoutS * MS_PER_S);
    for (const std::string& command : settings.healthCommands) {
        std::array<char, OUTPUT_SIZE> output;
        const CommandResult result =
            run_command(("exec 2>&1\n" + command).c_str(), static_cast<int>(eachMs), output);
        if (result.started && !result.killed && result.status == 0) {
            continue;
        }
        reason = "health command \"" + printable(command) + "\": " +
                 (!result.started ? "cannot be started"
                  : result.killed ? "no result in " + std::to_string(eachMs / MS_PER_S) + " s"
                                  : "status " + std::to_string(result.status));
        const std::string line = first_line({output.data(), result.outputLength});
        reason += line.empty() ? "" : ": " + line;
        return false;
    }
    return true;
}

bool restart(void* context) {
    sync();
    const CommandResult result =
        run_command(camera_of(context).settings.restartCommand.c_str(), RESTART_LIMIT_MS, {});
    return result.started && !result.killed && result.status == 0;
}

// --- time and signals --------------------------------------------------------------------------

int64_t monotonic_ms(void* /*context*/) {
    return corvo::monotonic_ms();
}

bool wait_for_stop(void* /*context*/, int64_t milliseconds) {
    pollfd stop = {.fd = g_stop, .events = POLLIN, .revents = 0};
    // A signal that stops the camera interrupts the first call and makes the second one return.
    while (poll(&stop, 1, static_cast<int>(milliseconds)) < 0 && errno == EINTR) {
    }
    return stop.revents == 0;
}

void stop(int /*signal*/) {
    const int error = errno;
    stop_commands(STOP_GRACE_MS);
    const uint64_t one = 1;
    corvo::ignore_result(write(g_stop, &one, sizeof(one)));
    errno = error;
}

// --- lock --------------------------------------------------------------------------------------

// Mode 600, because a process of another user that can open the file can lock it for ever. Without
// a lock, in a folder that cannot be written, the program works too.
void lock(void* context) {
    Camera& camera = camera_of(context);
    const std::string path = camera.settings.stateFolder + "lock";
    camera.lock.reset(
        open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600));
    for (int attempt = 0; camera.lock.valid() && attempt < LOCK_ATTEMPTS; ++attempt) {
        if (flock(camera.lock.get(), LOCK_EX | LOCK_NB) == 0) {
            return;
        }
        usleep(LOCK_PAUSE_MS * static_cast<useconds_t>(MS_PER_S));
    }
}

void unlock(void* context) {
    camera_of(context).lock.reset();
}

void log_line(void* /*context*/, const std::string& line) {
    print_error(COMMIT, line);
}

}  // namespace

char slot_on_command_line(const std::string& line, const std::string& wordA,
                          const std::string& wordB) {
    const std::string words = ' ' + line + ' ';
    const bool isA = words.find(' ' + wordA + ' ') != std::string::npos;
    const bool isB = words.find(' ' + wordB + ' ') != std::string::npos;
    return isA == isB ? NO_SLOT : isA ? 'A' : 'B';
}

CommitPlatform platform_of(Camera& camera) {
    camera.folder.path = camera.settings.stateFolder.c_str();
    return {.context = &camera,
            .records = files_of(camera.folder),
            .running_slot = running_slot,
            .boot_id = boot_id,
            .read_environment = read_environment,
            .store_environment = store_environment,
            .check_health = check_health,
            .monotonic_ms = monotonic_ms,
            .wait = wait_for_stop,
            .restart = restart,
            .lock = lock,
            .unlock = unlock,
            .log = log_line};
}

void end_in_order_on_signals() {
    struct sigaction action = {};
    action.sa_handler = stop;
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGINT, &action, nullptr);
}
