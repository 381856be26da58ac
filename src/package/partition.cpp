#include "package/partition.h"

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>

#include "hal/flash_mmc.h"
#include "hal/flash_mtd.h"

namespace {

// Made by corvo_slots on boards with two copies of their partitions.
constexpr char RUNNING_COPIES[] = "/dev/block/running/";

}  // namespace

corvo::UniqueFd open_partition(const OtaPackageEntry& entry) {
    const int flags = O_RDONLY | O_CLOEXEC;
    // The drivers set errno only when they find the device and fail to open it.
    errno = ENOENT;
    return corvo::UniqueFd(entry.flashType == OTA_FLASH_TYPE_MTD
                               ? flash_mtd_open(entry.partitionName, flags)
                               : flash_mmc_open(entry.partitionName, flags));
}

corvo::UniqueFd open_running_partition(const OtaPackageEntry& entry) {
    struct stat status = {};
    const std::string copy = std::string(RUNNING_COPIES) + entry.partitionName;
    // A link that leads nowhere must be an error: the name would lead to the other slot's copy.
    return lstat(copy.c_str(), &status) == 0
               ? corvo::UniqueFd(open(copy.c_str(), O_RDONLY | O_CLOEXEC))
               : open_partition(entry);
}

std::string partition_device(const OtaPackageEntry& entry) {
    char path[PATH_MAX] = {};
    const std::string name = std::string(FLASH_MMC_NAMES) + entry.partitionName;
    const bool isMtd = entry.flashType == OTA_FLASH_TYPE_MTD;
    return isMtd || realpath(name.c_str(), path) == nullptr ? "-" : path;
}

int64_t partition_size(const OtaPackageEntry& entry, const corvo::UniqueFd& partition) {
    if (!partition.valid()) {
        return -1;
    }
    return entry.flashType == OTA_FLASH_TYPE_MTD ? flash_mtd_size(partition.get())
                                                 : flash_mmc_size(partition.get());
}
