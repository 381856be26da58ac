// The upgrade module: writes images through the driver of their storage and switches the boot slot
// through the system-call daemon. It keeps no state; its operations must not run at the same time
// as each other (the platform abstraction's mutex of the upgrade module sees to it).
#ifndef HAL_AXERA_OTA_H
#define HAL_AXERA_OTA_H

#include "hal/hal_interfaces.h"

// Codes of the module's operations. `upgrade` and `erasePartition` also return the negative codes
// of the flash drivers (FlashResult), unchanged.
enum HalOtaResult : int32_t {
    HAL_OTA_OK = 0,
    HAL_OTA_INVALID_PARAMETER = 2,   // a name, path or pointer is missing, flags are not 0, or the
                                     // module type is not accepted
    HAL_OTA_UNSUPPORTED = 4,         // storage type; slot switch: the running slot is unknown
    HAL_OTA_MMC_FAILED = 7,          // eMMC: not opened, or the range is empty
    HAL_OTA_MTD_NOT_OPENED = 9,      // MTD: not opened
    HAL_OTA_MTD_NO_GEOMETRY = 10,    // MTD: the geometry query failed
    HAL_OTA_MTD_ERASE_FAILED = 11,   // MTD: the erase failed
    HAL_OTA_NO_PACKAGE = 12,         // the package file cannot be opened
    HAL_OTA_NO_PACKAGE_STATUS = 13,  // the package file's status cannot be read
    HAL_OTA_BAD_LENGTH = 14,         // the range's length is wrong
    HAL_OTA_PARTITION_TOO_SMALL = 15,  // the range is longer than the partition
    HAL_OTA_MTD_PACKAGE_UNREAD = 16,   // MTD: reading the package failed
    HAL_OTA_WRITE_FAILED = 17,         // the flash did not take the data; eMMC: or reading failed
};

#endif  // HAL_AXERA_OTA_H
