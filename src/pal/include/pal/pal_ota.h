// Firmware upgrade operations of the platform.
//
// Each operation holds the upgrade mutex until it returns, so that operations run one after the
// other; the caller must not hold that mutex. Any thread may call them. Each returns PAL_OK,
// PAL_PARAM_INVALID, PAL_NO_INTERFACE, or the upgrade module's own non-zero code (HalOtaResult,
// FlashResult), and reports its failure. Strings are NUL-terminated.
#ifndef PAL_PAL_OTA_H
#define PAL_PAL_OTA_H

#include <stdint.h>

#include "pal/ota_types.h"
#include "pal/pal_result.h"

int32_t PAL_OTA_Init();

int32_t PAL_OTA_DeInit();

// Erases the partition and writes the whole image file to it; blocks until both are done.
// moduleType is MODULE_TYPE_MIN to MODULE_TYPE_MAX, storageType is STORAGE_TYPE_MIN to
// STORAGE_TYPE_MAX. The upgrade module accepts only some of these values; it also checks
// partitionName.
int32_t PAL_OTA_Upgrade(uint32_t moduleType, const char* partitionName, const char* filePath,
                        uint32_t storageType);

// Opens a partition for reading; iFlag must be 0. On success *fd is a descriptor that the caller
// closes; on failure it may be negative.
int32_t PAL_OTA_OpenPartition(const char* partitionName, int32_t iFlag, uint32_t storageType,
                              int32_t* fd);

// Erases the partition and writes `size` bytes of the package file to it, starting at byte `offset`
// of the file; blocks until both are done. If the package ends before that, the copy ends there and
// the result is still PAL_OK. The upgrade module checks moduleType. On eMMC, an empty range and a
// range that reaches 2 GiB are rejected. Raw flash accepts both; an empty range leaves the
// partition erased.
int32_t PAL_OTA_UpgradeByOffset(uint32_t moduleType, const char* partitionName,
                                const char* filePath, uint32_t offset, uint32_t size,
                                uint32_t storageType);

// Makes the boot loader start the other boot slot at the next restart. Blocks until the commands
// that do so have ended, at most about 12 s. slot is -1 (the other slot) or greater; this camera
// ignores both arguments.
int32_t PAL_OTA_AB_SWITCH(int32_t slot, uint32_t flags);

#endif  // PAL_PAL_OTA_H
