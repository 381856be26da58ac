// The platform's codes for firmware modules and for the storage that holds them.
#ifndef PAL_OTA_TYPES_H
#define PAL_OTA_TYPES_H

#include <stdint.h>

// Type of a firmware module. Values without a name here are types that only other boards have.
enum eModuleType : uint32_t {
    MODULE_TYPE_MIN = 1,  // the smallest value that the platform accepts
    MODULE_TYPE_UBOOT = 2,
    MODULE_TYPE_KERNEL = 3,
    MODULE_TYPE_ROOTFS = 4,
    MODULE_TYPE_SYSTEM = 11,
    MODULE_TYPE_OTHER = 12,  // every image that has no separate type
    MODULE_TYPE_MAX = 21,    // the largest value that the platform accepts
};

// Storage that holds a partition.
enum eStorageType : uint32_t {
    STORAGE_TYPE_MIN = 1,   // the smallest value that the platform accepts
    STORAGE_TYPE_MTD = 17,  // raw flash, accessed through MTD character devices
    STORAGE_TYPE_MMC = 33,  // eMMC partitions, accessed as block devices
    STORAGE_TYPE_MAX = 36,  // the largest value that the platform accepts
};

#endif  // PAL_OTA_TYPES_H
