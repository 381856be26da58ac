#include "package/partition.h"

#include <errno.h>
#include <fcntl.h>
#include <mtd/mtd-user.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "hal/flash_mmc.h"
#include "hal/flash_mtd.h"

corvo::UniqueFd open_partition(const OtaPackageEntry& entry) {
    const int flags = O_RDONLY | O_CLOEXEC;
    // The drivers set errno only when they find the device and fail to open it.
    errno = ENOENT;
    return corvo::UniqueFd(entry.flashType == OTA_FLASH_TYPE_MTD
                               ? flash_mtd_open(entry.partitionName, flags)
                               : flash_mmc_open(entry.partitionName, flags));
}

int64_t partition_size(const OtaPackageEntry& entry, const corvo::UniqueFd& partition) {
    if (!partition.valid()) {
        return -1;
    }
    if (entry.flashType != OTA_FLASH_TYPE_MTD) {
        return lseek(partition.get(), 0, SEEK_END);
    }
    mtd_info_user geometry = {};
    return ioctl(partition.get(), MEMGETINFO, &geometry) == 0 ? geometry.size : -1;
}
