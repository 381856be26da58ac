// Firmware upgrade operations of the platform.
//
// Each takes the upgrade mutex for its whole run, so that one waits for the other; none may be
// called while that mutex is held. Any thread may call them. Each returns PAL_OK,
// PAL_PARAM_INVALID, PAL_NO_INTERFACE, or the upgrade module's own non-zero code, and reports its
// failure. Strings are NUL-terminated.
#ifndef PAL_PAL_OTA_H
#define PAL_PAL_OTA_H

#include <stdint.h>

#include "board/ota_types.h"
#include "pal/pal_result.h"

int32_t PAL_OTA_Init();

int32_t PAL_OTA_DeInit();

// Erases the partition and writes the whole image file to it; blocks for as long as that takes.
// moduleType is MODULE_TYPE_MIN to MODULE_TYPE_MAX, storageType STORAGE_TYPE_MIN to
// STORAGE_TYPE_MAX (the upgrade module accepts less than that and checks partitionName).
int32_t PAL_OTA_Upgrade(uint32_t moduleType, const char* partitionName, const char* filePath,
                        uint32_t storageType);

// Opens a partition for reading; iFlag must be 0. On success *fd is a descriptor that the caller
// closes; on failure it may be negative.
int32_t PAL_OTA_OpenPartition(const char* partitionName, int32_t iFlag, uint32_t storageType,
                              int32_t* fd);

// Erases the partition and writes to it `size` bytes of the package file, from byte `offset` on;
// blocks for as long as that takes. A package that ends earlier ends the copy, and PAL_OK comes
// back. The upgrade module checks moduleType; eMMC takes neither an empty range nor one that
// reaches 2 GiB, raw flash takes both, and an empty one leaves an erased partition.
int32_t PAL_OTA_UpgradeByOffset(uint32_t moduleType, const char* partitionName,
                                const char* filePath, uint32_t offset, uint32_t size,
                                uint32_t storageType);

// Makes the boot loader start the other slot next time; waits for the commands that do it, some
// 12 s at the most. slot is -1 (the other one) or greater; the camera ignores both values.
int32_t PAL_OTA_AB_SWITCH(int32_t slot, uint32_t flags);

#endif  // PAL_PAL_OTA_H
