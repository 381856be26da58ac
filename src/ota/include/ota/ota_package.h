// The package table: the images that an upgrade package may contain and the partition of each. Also
// the lookups that match a request with the table, and the conversion of the table's codes to the
// platform's codes.
#ifndef OTA_OTA_PACKAGE_H
#define OTA_OTA_PACKAGE_H

#include <stdint.h>

#include "ota/ota_message.h"

// Type of the flash that holds a partition.
enum OtaFlashType : uint32_t {
    OTA_FLASH_TYPE_MTD = 1,
    OTA_FLASH_TYPE_EMMC = 2,
};

struct OtaPackageEntry {
    uint32_t moduleType;     // a request selects the row by this value
    char partitionName[16];  // target partition
    char fileName[64];       // image file, appended to the request's packageDir
    uint32_t flashType;      // OtaFlashType
    uint32_t reserved;       // 0
};

struct OtaPackageTable {
    char name[32];
    int32_t entryCount;              // rows
    const OtaPackageEntry* entries;  // in the order in which modules are written
};

// Sets *tables to the array of package tables and *count to its length. index is not used. Returns
// OTA_OK.
int32_t OTA_GetPackageTables(uint32_t index, const OtaPackageTable** tables, uint32_t* count);

// Returns the first row with this module type, or null. Callers that have a wider module type pass
// its low 8 bits.
const OtaPackageEntry* OTA_LumoFindModuleByMoudleType(uint8_t moduleType);

// Returns OTA_OK when the request names the row's module type. Returns OTA_FAILED when it does not,
// and logs that. Returns OTA_FAILED without a log line when the row is null.
int32_t OTA_CheckNeedUpgrade(const OtaPackageEntry* entry, const OtaMessage* message);

// Looks up the position of the row's module in the combined package. If the request names the
// module type more than once, its first entry is used. Returns OTA_OK with *offset and *size set
// (bytes), or OTA_FAILED with both unchanged.
int32_t get_partition_info_by_msg(const OtaPackageEntry* entry, const OtaMessage* message,
                                  uint64_t* offset, uint64_t* size);

// Returns the platform's eModuleType for a package module type.
uint32_t OTA_GetHalModuleType(uint32_t moduleType);

// Returns the platform's eStorageType for an OtaFlashType. For any other value returns 0, which the
// platform rejects.
uint32_t OTA_GetHalStorageType(uint32_t flashType);

#endif  // OTA_OTA_PACKAGE_H
