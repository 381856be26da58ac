#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <sstream>

#include "base/monotonic_clock.h"
#include "cli/error_line.h"
#include "otactl/commands.h"
#include "otactl/log_line.h"
#include "otactl/log_stream.h"
#include "otactl/progress.h"
#include "package/partition.h"
#include "package/request.h"

namespace {

constexpr int QUIET_MS = 200;
constexpr int64_t RECEIVE_LIMIT_MS = 15000;  // the service retries a failed receive after 5 s
constexpr int64_t LOST_LIMIT_MS = 2000;
constexpr int BAR_WIDTH = 30;

void draw_bar(const Progress& progress) {
    const int percent = progress_percent(progress);
    const auto filled = static_cast<size_t>(percent * BAR_WIDTH / 100);
    printf("\r\033[K[%s%s] %3d%% of the steps, %s", std::string(filled, '#').c_str(),
           std::string(BAR_WIDTH - filled, '-').c_str(), percent, current_step(progress).c_str());
    fflush(stdout);
}

void show(const Progress& progress, const std::string& time, const std::string& text,
          bool terminal) {
    if (text.empty()) {
        return;
    }
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        printf("%s%s  %s\n", terminal ? "\r\033[K" : "", time.c_str(), printable(line).c_str());
    }
    if (terminal) {
        draw_bar(progress);
    }
    fflush(stdout);
}

std::string size_text(uint64_t bytes) {
    constexpr uint64_t KIB = 1024;
    constexpr uint64_t MIB = KIB * KIB;
    if (bytes % MIB == 0) {
        return std::to_string(bytes / MIB) + " MiB";
    }
    return bytes % KIB == 0 ? std::to_string(bytes / KIB) + " KiB"
                            : std::to_string(bytes) + " bytes";
}

// Returns the size of a module's image in bytes; 0 when it cannot be read.
uint64_t image_size(const OtaPackageEntry& entry, const OtaMessage& request) {
    if (request.packageType == OTA_PACKAGE_TYPE_FILES) {
        struct stat status = {};
        const std::string path = request.packageDir + std::string(entry.fileName);
        return stat(path.c_str(), &status) == 0 ? static_cast<uint64_t>(status.st_size) : 0;
    }
    for (int32_t i = 0; i < request.moduleCount; ++i) {
        if (request.moduleTypes[i] == entry.moduleType) {
            return request.moduleInfo[i].size;
        }
    }
    return 0;
}

// The service logs that a module failed, but no reason. The most frequent reason, an image larger
// than its partition, can be determined here.
std::string failure_reason(const OtaPackageEntry& entry, const OtaMessage& request) {
    const uint64_t image = image_size(entry, request);
    const int64_t partition = partition_size(entry, open_partition(entry));
    if (partition < 0 || image <= static_cast<uint64_t>(partition)) {
        return "";
    }
    return " (image " + size_text(image) + ", partition " +
           size_text(static_cast<uint64_t>(partition)) + ")";
}

int exit_of(const Progress& progress) {
    if (!progress.restarting) {
        print_error(OTACTL, "the service disappeared before the end of the upgrade");
        return OTACTL_NO_SERVICE;
    }
    if (progress.verdict == Verdict::NONE) {
        print_error(OTACTL, "the upgrade ended without a verdict: the request was not valid");
    }
    return progress.verdict == Verdict::SUCCESS ? OTACTL_OK : OTACTL_FAILED;
}

}  // namespace

int follow_upgrade(LogStream& log, const std::vector<const OtaPackageEntry*>& modules,
                   const OtaMessage& request, int queue, long messageType) {
    const bool terminal = isatty(STDOUT_FILENO) == 1;
    Progress progress = start_progress(modules, request.packageType == OTA_PACKAGE_TYPE_FILES);
    const int64_t posted = corvo::monotonic_ms();
    int64_t lastSeen = posted;
    std::string message;
    while (!progress.restarting) {
        const StreamEvent event = log.receive(message, QUIET_MS);
        const int64_t now = corvo::monotonic_ms();
        if (event == StreamEvent::MESSAGE) {
            lastSeen = now;
            PublishedLine published = {};
            LogLine line = {};
            if (parse_log_message(message, published) && parse_log_line(published.line, line)) {
                const bool failedBefore = progress.failed != nullptr;
                std::string text = advance_progress(progress, line.text);
                if (progress.failed != nullptr && !failedBefore) {
                    text += failure_reason(*progress.failed, request);
                }
                show(progress, time_of_day(line.stamp), text, terminal);
            }
            continue;
        }
        if (log.connected()) {
            lastSeen = now;
        }
        if (event == StreamEvent::BROKEN || now - lastSeen > LOST_LIMIT_MS) {
            break;
        }
        if (!progress.taken && now - posted > RECEIVE_LIMIT_MS) {
            break;
        }
    }
    if (terminal) {
        printf("\n");
        fflush(stdout);
    }
    if (!progress.taken && withdraw_request(queue, messageType)) {
        print_error(OTACTL, "the service did not receive the request, which is withdrawn");
        return OTACTL_NO_SERVICE;
    }
    return exit_of(progress);
}
