#include "ota/ota_upgrade.h"

#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <unistd.h>

#include "dbus/system_call.h"
#include "log/log_front_end.h"
#include "ota/ota_data.h"
#include "ota/ota_package.h"
#include "ota/ota_result.h"
#include "ota_partition.h"
#include "ota_reboot.h"
#include "pal/pal_led.h"
#include "pal/pal_nv.h"
#include "pal/pal_ota.h"
#include "pal/pal_pmu.h"
#include "platform/plt.h"

namespace {

// The log lines of every step carry the name of the whole procedure.
constexpr const char* HANDLER = "upgrade_handler";

constexpr const char* AUTO_FLASH_FLAG_PATH = "/tmp/autoflash";
constexpr const char* PID_FILE_PATH = "/tmp/corvo_upgrade.pid";
constexpr const char* PACKAGE_DISK_PATH = "/media/mmcblk0p1";

constexpr int32_t COMMAND_TIMEOUT_MS = 1000;
constexpr int32_t DEFAULT_TIMEOUT = -1;    // the system-call client's default
constexpr unsigned TERMINATE_PAUSE_S = 2;  // time for applications to exit after SIGTERM
constexpr unsigned SHUTDOWN_PAUSE_S = 5;
constexpr unsigned REBOOT_PAUSE_S = 1;
constexpr int32_t OTHER_SLOT = -1;  // the boot slot that is not running

constexpr size_t COMMAND_SIZE = 128;         // bytes
constexpr size_t UNMOUNT_COMMAND_SIZE = 64;  // bytes
constexpr size_t PATH_SIZE = 128;            // bytes; a longer path is truncated

constexpr const char* APPLICATIONS[] = {
    "corvo_lumo", "record_lumo", "ai_lumo",    "push_muxer_corvo",
    "KvsLumo",    "log_lumo",    "embdb_lumo", "lumo_daemon.sh",
};

struct Path {
    char text[PATH_SIZE];
};

// The result of one row of the package table.
enum class RowResult {
    SKIPPED,  // the request does not name the row, or its image file does not exist
    WRITTEN,
    FAILED,
};

// The state of one upgrade.
struct UpgradeRun {
    const OtaMessage& message;
    bool autoFlash;
    int32_t attempted;
    int32_t succeeded;
    const OtaPackageTable* tables;
    uint32_t tableCount;
};

// The precision of "%.*s" keeps the copy inside a field of the request that is not NUL-terminated.
Path package_path(const OtaMessage& message, const char* fileName, size_t fileNameSize,
                  const char* suffix) {
    Path path = {};
    Plt_SNPrintf(path.text, sizeof(path.text), "%.*s%.*s%s",
                 static_cast<int>(sizeof(message.packageDir)), message.packageDir,
                 static_cast<int>(fileNameSize), fileName, suffix);
    return path;
}

Path image_path(const OtaMessage& message, const OtaPackageEntry& entry) {
    return package_path(message, entry.fileName, sizeof(entry.fileName), "");
}

Path checksum_path(const OtaMessage& message, const OtaPackageEntry& entry) {
    return package_path(message, entry.fileName, sizeof(entry.fileName), ".md5");
}

Path combined_path(const OtaMessage& message) {
    return package_path(message, message.packageFile, sizeof(message.packageFile), "");
}

bool exists(const char* path) {
    return access(path, F_OK) == 0;
}

void write_pid_file() {
    char command[COMMAND_SIZE] = {};
    snprintf(command, sizeof(command), "echo %d > %s", static_cast<int>(getpid()), PID_FILE_PATH);
    system_call(command, COMMAND_TIMEOUT_MS);
}

void kill_applications(int signo) {
    for (const char* application : APPLICATIONS) {
        char command[COMMAND_SIZE] = {};
        snprintf(command, sizeof(command), "killall -%d %s", signo, application);
        system_call(command, COMMAND_TIMEOUT_MS);
    }
}

void stop_applications() {
    UPGRADE_LOG_AS(HANDLER, "ota kill process start");
    kill_applications(SIGTERM);
    sleep(TERMINATE_PAUSE_S);
    kill_applications(SIGKILL);
    // Writes the amount of memory that is available for flashing to the daemon's output.
    system_call("cat /proc/meminfo", COMMAND_TIMEOUT_MS);
    UPGRADE_LOG_AS(HANDLER, "ota kill process end");
}

void prepare(UpgradeRun* run) {
    OTA_LoadDataNv();
    if (exists(AUTO_FLASH_FLAG_PATH)) {
        UPGRADE_LOG_AS(HANDLER, "auto flash flag is set");
        run->autoFlash = true;
    }
    UPGRADE_LOG_AS(HANDLER, "ota hal init start");
    // Recorded before any image is written, so that an upgrade that is interrupted before its end,
    // for example by a power cut, counts as not succeeded.
    OTA_SetDataNv(OTA_DATA_KEY_RESULT, OTA_RESULT_NOT_SUCCEEDED);
    PAL_OTA_Init();
    PAL_LED_Init();
    PAL_NV_Init();
    UPGRADE_LOG_AS(HANDLER, "ota hal init end");
    PAL_Pmu_Init(0);
    // This device has no watchdog to arm, but programs that read the log expect these two lines.
    UPGRADE_LOG_AS(HANDLER, "watchdog init start");
    UPGRADE_LOG_AS(HANDLER, "watchdog init end");
    OTA_GetPackageTables(0, &run->tables, &run->tableCount);
    UPGRADE_LOG_AS(HANDLER, "package type:%d", run->message.packageType);
}

// Returns OTA_FAILED when the request is invalid and nothing must be written.
int32_t check_request(const UpgradeRun& run) {
    const OtaMessage& message = run.message;
    if (message.moduleCount > OTA_MSG_MAX_MODULES) {
        UPGRADE_LOG_AS(HANDLER, "moduleCount %d is invalid", message.moduleCount);
        return OTA_FAILED;
    }
    if (run.autoFlash || message.packageType == OTA_PACKAGE_TYPE_COMBINED) {
        return OTA_OK;
    }
    for (int32_t i = 0; i < message.moduleCount; ++i) {
        const uint32_t moduleType = message.moduleTypes[i];
        if (moduleType == 0) {
            continue;
        }
        UPGRADE_LOG_AS(HANDLER, "rece msg form queue,moduleType %d", static_cast<int>(moduleType));
        const OtaPackageEntry* const entry =
            OTA_LumoFindModuleByMoudleType(static_cast<uint8_t>(moduleType));
        if (entry == nullptr) {
            UPGRADE_LOG_AS(HANDLER, "moduleType %d no find", static_cast<int>(moduleType));
            return OTA_FAILED;
        }
        const Path path = image_path(message, *entry);
        if (!exists(path.text)) {
            UPGRADE_LOG_AS(HANDLER, "ota file %s no exist", path.text);
            OTA_SetDataNv(OTA_DATA_KEY_RESULT, OTA_RESULT_NOT_SUCCEEDED);
        }
    }
    return OTA_OK;
}

// The platform's codes for a row.
struct HalTarget {
    uint32_t moduleType;
    uint32_t storageType;
};

// Logs that a row is about to be written from `source`. Returns the platform's codes for the row.
HalTarget announce(const OtaPackageEntry& entry, const char* source) {
    const HalTarget target = {.moduleType = OTA_GetHalModuleType(entry.moduleType),
                              .storageType = OTA_GetHalStorageType(entry.flashType)};
    UPGRADE_LOG_AS(HANDLER, "upgrade %s start, moudle type:%d, flash type:%d", source,
                   static_cast<int>(target.moduleType), static_cast<int>(target.storageType));
    return target;
}

RowResult row_result(int32_t written) {
    return written == OTA_OK ? RowResult::WRITTEN : RowResult::FAILED;
}

// Writes a row's image file, if the file exists and the request names the row.
RowResult write_from_file(const OtaMessage& message, const OtaPackageEntry& entry) {
    const Path path = image_path(message, entry);
    if (!exists(path.text) || OTA_CheckNeedUpgrade(&entry, &message) != OTA_OK) {
        return RowResult::SKIPPED;
    }
    const HalTarget target = announce(entry, path.text);
    return row_result(upgrade_upgradePartition(target.moduleType, entry.partitionName, path.text,
                                               target.storageType));
}

// Writes a row's part of the combined package, if the request names the row.
RowResult write_from_package(const OtaMessage& message, const OtaPackageEntry& entry) {
    if (OTA_CheckNeedUpgrade(&entry, &message) != OTA_OK) {
        return RowResult::SKIPPED;
    }
    const HalTarget target = announce(entry, entry.partitionName);
    uint64_t offset = 0;
    uint64_t size = 0;
    get_partition_info_by_msg(&entry, &message, &offset, &size);
    const Path path = combined_path(message);
    return row_result(UPGRADE_UpgradePartitionByOffset(
        target.moduleType, entry.partitionName, target.storageType, path.text, offset, size));
}

// Writes the table's rows in order and stops at the first one that fails.
void write_table(UpgradeRun* run, const OtaPackageTable& table) {
    UPGRADE_LOG_AS(HANDLER, "upgrade module length %d", table.entryCount);
    const bool files = run->message.packageType == OTA_PACKAGE_TYPE_FILES;
    for (int32_t row = 0; row < table.entryCount; ++row) {
        const OtaPackageEntry& entry = table.entries[row];
        switch (files ? write_from_file(run->message, entry)
                      : write_from_package(run->message, entry)) {
            case RowResult::SKIPPED:
                break;
            case RowResult::WRITTEN:
                ++run->attempted;
                ++run->succeeded;
                break;
            case RowResult::FAILED:
                ++run->attempted;
                UPGRADE_LOG_AS(HANDLER, "ota %s failed", entry.partitionName);
                return;
        }
    }
}

void log_deleted(const char* path) {
    CORVO_LOG_AS(HANDLER, LOG_LEVEL_ORDINARY, LOG_OUTPUT_CONSOLE, LOG_EVENT_FILE_DELETED,
                 "delete file %s", path);
}

void delete_package(const UpgradeRun& run) {
    if (run.message.packageType != OTA_PACKAGE_TYPE_FILES) {
        const Path path = combined_path(run.message);
        remove(path.text);
        log_deleted(path.text);
        return;
    }
    for (uint32_t t = 0; t < run.tableCount; ++t) {
        for (int32_t row = 0; row < run.tables[t].entryCount; ++row) {
            const OtaPackageEntry& entry = run.tables[t].entries[row];
            const Path image = image_path(run.message, entry);
            log_deleted(image.text);
            remove(image.text);
            const Path checksum = checksum_path(run.message, entry);
            remove(checksum.text);
            log_deleted(checksum.text);
        }
    }
}

void conclude(const UpgradeRun& run) {
    if (run.attempted != run.succeeded) {
        UPGRADE_EVENT_AS(HANDLER, LOG_EVENT_FAILED, "UPGRADE_LUMO_UGRADE_FAILED");
        OTA_SetDataNv(OTA_DATA_KEY_RESULT, OTA_RESULT_NOT_SUCCEEDED);
        OTA_SetDataNv(OTA_DATA_KEY_STATE, OTA_STATE_FAILURE);
        return;
    }
    UPGRADE_EVENT_AS(HANDLER, LOG_EVENT_SUCCEEDED, "UPGRADE_LUMO_UGRADE_SUCCESS");
    OTA_SetDataNv(OTA_DATA_KEY_RESULT, OTA_RESULT_SUCCEEDED);
    OTA_SetDataNv(OTA_DATA_KEY_STATE,
                  run.autoFlash ? OTA_STATE_AUTO_FLASH_SUCCESS : OTA_STATE_SUCCESS);
    UPGRADE_LOG_AS(HANDLER, "otaPackageTableSize:%d, moduleLen:%d",
                   static_cast<int>(run.tableCount), run.tables[0].entryCount);
    const int32_t switched = PAL_OTA_AB_SWITCH(OTHER_SLOT, 0);
    UPGRADE_LOG_AS(HANDLER, "AB switch end, ret=%d", switched);
    delete_package(run);
}

[[noreturn]] void shut_down(int queueId) {
    PAL_OTA_DeInit();
    sleep(SHUTDOWN_PAUSE_S);
    msgctl(queueId, IPC_RMID, nullptr);
    UPGRADE_LOG_AS(HANDLER, "umount disk");
    char command[UNMOUNT_COMMAND_SIZE] = {};
    snprintf(command, sizeof(command), "umount %s", PACKAGE_DISK_PATH);
    system_call(command, DEFAULT_TIMEOUT);
    UPGRADE_LOG_AS(HANDLER, "Restart the system");
    sleep(REBOOT_PAUSE_S);
    ota_reboot();
    exit(EXIT_SUCCESS);
}

}  // namespace

void upgrade_handler(int queueId, const OtaMessage& message) {
    UpgradeRun run = {.message = message,
                      .autoFlash = false,
                      .attempted = 0,
                      .succeeded = 0,
                      .tables = nullptr,
                      .tableCount = 0};
    write_pid_file();
    stop_applications();
    prepare(&run);
    if (check_request(run) == OTA_OK) {
        for (uint32_t t = 0; t < run.tableCount; ++t) {
            write_table(&run, run.tables[t]);
        }
        conclude(run);
        sync();
    }
    shut_down(queueId);
}
