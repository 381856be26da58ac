#include "ota_partition.h"

#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/unique_fd.h"
#include "log/log_front_end.h"
#include "ota/ota_result.h"
#include "pal/pal_ota.h"

namespace {

constexpr int32_t OPEN_READ_ONLY = 0;

char g_file_chunk[OTA_VERIFY_CHUNK];
char g_partition_chunk[OTA_VERIFY_CHUNK];

corvo::UniqueFd open_partition(const char* partitionName, uint32_t storageType) {
    int32_t fd = -1;
    PAL_OTA_OpenPartition(partitionName, OPEN_READ_ONLY, storageType, &fd);
    return corvo::UniqueFd(fd);
}

// Compares the next chunk of the file and of the partition. Returns the chunk's length in bytes.
// When they differ or one cannot be read, logs that and returns a negative value.
ssize_t compare_chunk(const char* operation, int partition, const char* partitionName, int file,
                      const char* filePath, off_t compared, off_t fileSize) {
    const ssize_t length = read(file, g_file_chunk, sizeof(g_file_chunk));
    // A length of 0 means that the file was truncated during the comparison.
    if (length <= 0) {
        UPGRADE_LOG_AS(operation, "failed to read from %s", filePath);
        return -1;
    }
    const ssize_t readBack = read(partition, g_partition_chunk, static_cast<size_t>(length));
    if (readBack < 0) {
        UPGRADE_LOG_AS(operation, "failed to read from %s", partitionName);
        return -1;
    }
    const bool same = readBack == length &&
                      memcmp(g_file_chunk, g_partition_chunk, static_cast<size_t>(length)) == 0;
    if (!same) {
        UPGRADE_LOG_AS(operation, "verify schedule: %ld.",
                       static_cast<long>(compared * 100 / fileSize));
        UPGRADE_LOG_AS(operation, "partition: %s read verify failed", partitionName);
        return -1;
    }
    return length;
}

}  // namespace

int32_t upgrade_verifyPartition(const char* partitionName, const char* filePath,
                                uint32_t storageType) {
    const corvo::UniqueFd partition = open_partition(partitionName, storageType);
    if (!partition.valid()) {
        UPGRADE_LOG("Could not open mtd device:%s for write.", partitionName);
        return OTA_FAILED;
    }
    // Drop the cached pages of the partition, which stay in memory while another process has the
    // device open. Otherwise the comparison could read the cache instead of the flash. A character
    // device has no page cache; the call then fails, which does no harm.
    posix_fadvise(partition.get(), 0, 0, POSIX_FADV_DONTNEED);

    const corvo::UniqueFd file(open(filePath, O_RDONLY | O_CLOEXEC));
    if (!file.valid()) {
        UPGRADE_LOG("failed to open %s.", filePath);
        return OTA_FAILED;
    }
    struct stat status = {};
    if (fstat(file.get(), &status) != 0) {
        UPGRADE_LOG("failed to get file status.");
        return OTA_FAILED;
    }
    off_t compared = 0;
    while (compared < status.st_size) {
        const ssize_t length = compare_chunk(__func__, partition.get(), partitionName, file.get(),
                                             filePath, compared, status.st_size);
        if (length < 0) {
            return OTA_FAILED;
        }
        compared += length;
    }
    return OTA_OK;
}

int32_t upgrade_upgradePartition(uint32_t halModuleType, const char* partitionName,
                                 const char* filePath, uint32_t storageType) {
    for (int32_t rewrites = 0;; ++rewrites) {
        if (rewrites > 0) {
            UPGRADE_LOG("re-upgrade, cnt: %d", rewrites);
        }
        if (PAL_OTA_Upgrade(halModuleType, partitionName, filePath, storageType) != 0) {
            UPGRADE_LOG("partition: %s upgrade failed", partitionName);
            return OTA_FAILED;
        }
        UPGRADE_LOG("partition: %s upgrade success", partitionName);
        if (upgrade_verifyPartition(partitionName, filePath, storageType) == OTA_OK) {
            UPGRADE_LOG("partition: %s read verify success", partitionName);
            return OTA_OK;
        }
        UPGRADE_LOG("partition: %s read verify failed", partitionName);
        if (rewrites == OTA_REUPGRADE_MAX) {
            return OTA_FAILED;
        }
    }
}

int32_t UPGRADE_UpgradePartitionByOffset(uint32_t halModuleType, const char* partitionName,
                                         uint32_t storageType, const char* packagePath,
                                         uint64_t offset, uint64_t size) {
    CORVO_LOG(LOG_LEVEL_DETAIL, LOG_OUTPUT_CONSOLE, LOG_MODULE_UPGRADE,
              "moduleType: %d, partition: %s, file: %s, offset: %llu, size: %llu",
              static_cast<int>(halModuleType), partitionName, packagePath,
              static_cast<unsigned long long>(offset), static_cast<unsigned long long>(size));
    // Truncated to 32 bits, a larger value would select a different range, and a wrong image would
    // be written.
    const bool fits = offset <= UINT32_MAX && size <= UINT32_MAX;
    if (!fits || PAL_OTA_UpgradeByOffset(halModuleType, partitionName, packagePath,
                                         static_cast<uint32_t>(offset), static_cast<uint32_t>(size),
                                         storageType) != 0) {
        UPGRADE_LOG("partition: %s upgrade failed", partitionName);
        return OTA_FAILED;
    }
    UPGRADE_LOG("partition: %s upgrade success", partitionName);
    return OTA_OK;
}
