// The upgrade module: writes images with the driver of their storage and switches the boot slot
// through the system-call daemon. It keeps no state. Its operations must not run concurrently; the
// upgrade mutex of the platform abstraction prevents that.
#ifndef HAL_AXERA_OTA_H
#define HAL_AXERA_OTA_H

#include "hal/hal_interfaces.h"

// Result codes of the module's operations. `upgrade` and `erasePartition` also return the negative
// codes of the flash drivers (FlashResult) unchanged.
enum HalOtaResult : int32_t {
    HAL_OTA_OK = 0,
    HAL_OTA_INVALID_PARAMETER = 2,   // a name, path or pointer is missing, flags are not 0, or the
                                     // module type is not accepted
    HAL_OTA_UNSUPPORTED = 4,         // unknown storage type; slot switch: running slot is unknown
    HAL_OTA_MMC_FAILED = 7,          // eMMC: cannot open the partition, or the range is invalid
    HAL_OTA_MTD_NOT_OPENED = 9,      // MTD: cannot open the partition
    HAL_OTA_MTD_NO_GEOMETRY = 10,    // MTD: the geometry query failed
    HAL_OTA_MTD_ERASE_FAILED = 11,   // MTD: the erase failed
    HAL_OTA_NO_PACKAGE = 12,         // the package file cannot be opened
    HAL_OTA_NO_PACKAGE_STATUS = 13,  // the package file's status cannot be read
    HAL_OTA_BAD_LENGTH = 14,         // the range's length is invalid, see FLASH_BAD_LENGTH
    HAL_OTA_PARTITION_TOO_SMALL = 15,  // the range is longer than the partition
    HAL_OTA_MTD_PACKAGE_UNREAD = 16,   // MTD: reading the package failed
    HAL_OTA_WRITE_FAILED = 17,  // writing failed, the MTD read-back differs, or reading the package
                                // for eMMC failed
};

#endif  // HAL_AXERA_OTA_H
