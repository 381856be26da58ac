// What an upgrade package may hold and where each image goes: the package table, the lookups that
// match it with a request, and the mapping of its codes onto the platform's.
#ifndef OTA_OTA_PACKAGE_H
#define OTA_OTA_PACKAGE_H

#include <stdint.h>

#include "ota/ota_message.h"

// Kinds of flash that a partition can be on.
enum OtaFlashType : uint32_t {
    OTA_FLASH_TYPE_MTD = 1,
    OTA_FLASH_TYPE_EMMC = 2,
};

struct OtaPackageEntry {
    uint32_t moduleType;     // the value that a request names in moduleTypes
    char partitionName[16];  // target partition
    char fileName[64];       // image file, directly behind the request's packageDir
    uint32_t flashType;      // OtaFlashType
    uint32_t reserved;       // 0
};

struct OtaPackageTable {
    char name[32];
    int32_t entryCount;              // rows
    const OtaPackageEntry* entries;  // in the order in which modules are written
};

// Yields the list of package tables and its length. index is not used. Returns OTA_OK.
int32_t OTA_GetPackageTables(uint32_t index, const OtaPackageTable** tables, uint32_t* count);

// The first row with this module type (of wider types callers pass the low 8 bits), or null.
const OtaPackageEntry* OTA_LumoFindModuleByMoudleType(uint8_t moduleType);

// Returns OTA_OK when the request names the row's module type; OTA_FAILED when not, with a log
// line, and for a null row.
int32_t OTA_CheckNeedUpgrade(const OtaPackageEntry* entry, const OtaMessage* message);

// Looks up where the row's module lies in the combined package; the request's first entry of that
// type wins. Returns OTA_OK with both outputs set (bytes), or OTA_FAILED with them untouched.
int32_t get_partition_info_by_msg(const OtaPackageEntry* entry, const OtaMessage* message,
                                  uint64_t* offset, uint64_t* size);

// The platform's eModuleType of a package module type.
uint32_t OTA_GetHalModuleType(uint32_t moduleType);

// The platform's eStorageType of a package flash type; 0, which the platform rejects, for any
// other.
uint32_t OTA_GetHalStorageType(uint32_t flashType);

#endif  // OTA_OTA_PACKAGE_H
