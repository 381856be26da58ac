// The platform's codes for what is upgraded and where it is stored.
#ifndef BOARD_OTA_TYPES_H
#define BOARD_OTA_TYPES_H

#include <stdint.h>

// Kind of a firmware module. The values without a name here are kinds that other boards have.
enum eModuleType : uint32_t {
    MODULE_TYPE_MIN = 1,  // the smallest value that the platform knows
    MODULE_TYPE_UBOOT = 2,
    MODULE_TYPE_KERNEL = 3,
    MODULE_TYPE_ROOTFS = 4,
    MODULE_TYPE_SYSTEM = 11,
    MODULE_TYPE_OTHER = 12,  // every image without a kind of its own
    MODULE_TYPE_MAX = 21,    // the largest value that the platform knows
};

// Storage that holds a partition.
enum eStorageType : uint32_t {
    STORAGE_TYPE_MIN = 1,   // the smallest value that the platform knows
    STORAGE_TYPE_MTD = 17,  // raw flash behind the MTD character devices
    STORAGE_TYPE_MMC = 33,  // eMMC partitions, block devices
    STORAGE_TYPE_MAX = 36,  // the largest value that the platform knows
};

#endif  // BOARD_OTA_TYPES_H
