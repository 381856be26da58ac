#include "agent/camera_state.h"

#include <errno.h>
#include <limits.h>
#include <signal.h>
#include <string.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <array>

#include "command_runner/command_runner.h"
#include "ota/ota_data.h"
#include "package/content.h"
#include "package/files.h"
#include "package/modules.h"
#include "package/partition.h"
#include "package/request.h"

namespace {

constexpr char SLOT_COMMAND[] = "fw_printenv -n bootsystem 2> /dev/null";
constexpr int SLOT_LIMIT_MS = 10000;
constexpr int FITNESS_LIMIT_MS = 60000;
constexpr size_t RECORD_SIZE_MAX = 64;  // bytes
constexpr size_t SMALL_TEXT_MAX = 128;  // bytes
constexpr char BOOT_ID_PATH[] = "/proc/sys/kernel/random/boot_id";
constexpr char UPTIME_PATH[] = "/proc/uptime";
constexpr char SERVICE_PID_PATH[] = "/tmp/corvo_upgrade.pid";
constexpr size_t PROCESS_STATUS_MAX = 16384;  // bytes
constexpr char SERVICE_NAME[] = "corvo_upgrade";

// Returns the first line of a small file; empty when it cannot be read.
std::string first_line(const std::string& path) {
    std::string text;
    if (!read_small_file(path, SMALL_TEXT_MAX, FileKind::REGULAR, text).ok()) {
        return "";
    }
    return text.substr(0, text.find('\n'));
}

// Whether all user and group ids of a process are root's. A process name alone proves nothing: any
// user may start a program under any name, even a set-user-ID program of root. Such a process keeps
// the group of the user who started it.
bool is_root_alone(const std::string& processStatus) {
    return processStatus.find("\nUid:\t0\t0\t0\t0\n") != std::string::npos &&
           processStatus.find("\nGid:\t0\t0\t0\t0\n") != std::string::npos;
}

// Whether the process runs the service's program. Only root can read the path of a root process's
// program. For the agent's user the name and root's ids must suffice: no process of another user
// can have both.
bool runs_service_program(const std::string& process) {
    char path[PATH_MAX];
    const ssize_t length = readlink((process + "exe").c_str(), path, sizeof(path));
    if (length < 0) {
        return errno == EACCES;
    }
    const std::string program(path, static_cast<size_t>(length));
    return program.substr(program.rfind('/') + 1).starts_with(SERVICE_NAME);
}

bool is_service(int64_t processId) {
    const std::string process = "/proc/" + std::to_string(processId) + "/";
    std::string status;
    return processId > 0 &&
           read_small_file(process + "status", PROCESS_STATUS_MAX, FileKind::REGULAR, status)
               .ok() &&
           status.starts_with(std::string("Name:\t") + SERVICE_NAME + '\n') &&
           is_root_alone(status) && runs_service_program(process);
}

// Returns the process id in the service's pid file, or -1 when no valid pid file exists. Any user
// may create a file with this name in /tmp, or a link to a file of root, so the file must belong to
// root. Only root can replace root's file, so it is still the checked one when it is read.
int64_t upgrading_process() {
    struct stat status = {};
    if (lstat(SERVICE_PID_PATH, &status) != 0 || !S_ISREG(status.st_mode) || status.st_uid != 0) {
        return -1;
    }
    const int64_t processId = strtoll(first_line(SERVICE_PID_PATH).c_str(), nullptr, 10);
    return status.st_nlink == 1 || is_service(processId) ? processId : -1;
}

bool queue_status(msqid_ds& status) {
    int queue = -1;
    return open_request_queue(queue).ok() && msgctl(queue, IPC_STAT, &status) == 0;
}

PackageStatus check_partition(const ManifestModule& module) {
    const OtaPackageEntry* const entry = find_module(module.name);
    if (entry == nullptr) {
        return package_fault(PACKAGE_DIFFERENT, "unknown partition " + module.name);
    }
    const corvo::UniqueFd partition = open_running_partition(*entry);
    Sha256Stream digest;
    int64_t taken = -1;
    if (partition.valid()) {
        taken = read_pieces(partition.get(), module.size, [&digest](std::span<const char> bytes) {
            digest.update(bytes);
            return true;
        });
    }
    if (taken != static_cast<int64_t>(module.size)) {
        // The partition is smaller than the image if the reading ended early without an error.
        const int error = taken < 0 ? errno : ENODATA;
        return package_fault(PACKAGE_UNREADABLE,
                             "partition " + module.name + " cannot be read: " + strerror(error));
    }
    return digest.take() == module.sha256
               ? PackageStatus{}
               : package_fault(PACKAGE_DIFFERENT,
                               "partition " + module.name + " does not contain the image");
}

}  // namespace

char boot_slot() {
    std::array<char, 16> output = {};
    const CommandResult result = run_command(SLOT_COMMAND, SLOT_LIMIT_MS, output);
    const bool known = result.started && result.status == 0 && result.outputLength > 0 &&
                       (output[0] == 'A' || output[0] == 'B');
    return known ? output[0] : '?';
}

std::string outcome_record() {
    std::string record;
    return read_small_file(OTA_DATA_PATH, RECORD_SIZE_MAX, FileKind::REGULAR, record).ok() ? record
                                                                                           : "";
}

std::string kernel_boot_id() {
    return first_line(BOOT_ID_PATH);
}

uint64_t seconds_since_start() {
    const std::string line = first_line(UPTIME_PATH);
    return line.empty() ? UINT64_MAX : strtoull(line.c_str(), nullptr, 10);
}

QueueUse queue_use(int64_t processId) {
    msqid_ds status = {};
    if (!queue_status(status)) {
        return QueueUse::NO_QUEUE;
    }
    // The process id of a sender in another pid namespace is 0. The time of its message is not 0.
    if (status.msg_lspid == 0 && status.msg_stime == 0) {
        return QueueUse::UNUSED;
    }
    return status.msg_lspid == processId ? QueueUse::BY_US : QueueUse::BY_OTHERS;
}

std::string queue_mark() {
    msqid_ds status = {};
    return queue_status(status)
               ? std::to_string(status.msg_lspid) + ' ' + std::to_string(status.msg_stime)
               : "";
}

bool upgrade_has_begun() {
    return upgrading_process() >= 0;
}

bool service_is_busy(int64_t sender) {
    msqid_ds status = {};
    if (queue_status(status) && status.msg_lspid == sender && status.msg_qnum == 0 &&
        is_service(status.msg_lrpid)) {
        return true;
    }
    return is_service(upgrading_process());
}

bool take_request_back(long messageType) {
    int queue = -1;
    return open_request_queue(queue).ok() && withdraw_request(queue, messageType);
}

PackageStatus check_partitions(const Manifest& manifest) {
    for (const ManifestModule& module : manifest.modules) {
        PackageStatus status = check_partition(module);
        if (!status.ok()) {
            return status;
        }
    }
    return {};
}

bool camera_is_fit(const std::string& command, std::string& message) {
    if (command.empty()) {
        return true;
    }
    std::array<char, 256> output = {};
    const CommandResult result = run_command(command.c_str(), FITNESS_LIMIT_MS, output);
    if (result.started && !result.killed && result.status == 0) {
        return true;
    }
    message.assign(output.data(), result.outputLength);
    message.resize(std::min(message.find('\n'), message.size()));
    if (!result.started || result.killed) {
        message = result.killed ? "the fitness command timed out"
                                : "the fitness command cannot be started";
    } else if (message.empty()) {
        message = "the fitness command refuses (exit status " + std::to_string(result.status) + ")";
    }
    return false;
}

uint64_t free_space(int folder) {
    struct statvfs status = {};
    return fstatvfs(folder, &status) == 0 ? uint64_t{status.f_bavail} * status.f_frsize : 0;
}
