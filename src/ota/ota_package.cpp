#include "ota/ota_package.h"

#include <algorithm>
#include <iterator>

#include "log/log_front_end.h"
#include "ota/ota_result.h"
#include "pal/ota_types.h"

namespace {

// Modules are written in the order of these rows. A new partition needs only a row, with an unused
// module type from 27 to 254; the platform already has its own types for some of the numbers below
// 27. If a new partition needs its own platform type, add the mapping to OTA_GetHalModuleType().
// The platform refuses to write a module unless its platform type is one of ACCEPTED_MODULE_TYPES
// in src/hal/ota/axera_ota.cpp and lies between MODULE_TYPE_MIN and MODULE_TYPE_MAX in
// pal/ota_types.h.
constexpr OtaPackageEntry PACKAGE_ENTRIES[] = {
    {.moduleType = 23,
     .partitionName = "spl",
     .fileName = "spl.bin",
     .flashType = OTA_FLASH_TYPE_EMMC,
     .reserved = 0},
    {.moduleType = 2,
     .partitionName = "uboot",
     .fileName = "uboot.bin",
     .flashType = OTA_FLASH_TYPE_EMMC,
     .reserved = 0},
    {.moduleType = 20,
     .partitionName = "dtb",
     .fileName = "dtb.bin",
     .flashType = OTA_FLASH_TYPE_EMMC,
     .reserved = 0},
    {.moduleType = 3,
     .partitionName = "kernel",
     .fileName = "kernel.bin",
     .flashType = OTA_FLASH_TYPE_EMMC,
     .reserved = 0},
    {.moduleType = 4,
     .partitionName = "rootfs",
     .fileName = "rootfs.img",
     .flashType = OTA_FLASH_TYPE_EMMC,
     .reserved = 0},
    {.moduleType = 11,
     .partitionName = "system",
     .fileName = "system.img",
     .flashType = OTA_FLASH_TYPE_EMMC,
     .reserved = 0},
    {.moduleType = 22,
     .partitionName = "ota_package",
     .fileName = "ota.bin",
     .flashType = OTA_FLASH_TYPE_EMMC,
     .reserved = 0},
};

// A request selects a row by the low 8 bits of a module type, and the first matching row is used.
// Every row must therefore have a module type that is unique and fits in 8 bits.
constexpr bool module_types_are_unique(const OtaPackageEntry* first, const OtaPackageEntry* last) {
    return std::all_of(first, last, [=](const OtaPackageEntry& row) {
        return row.moduleType <= UINT8_MAX &&
               std::count_if(first, last, [&row](const OtaPackageEntry& other) {
                   return other.moduleType == row.moduleType;
               }) == 1;
    });
}
static_assert(module_types_are_unique(std::begin(PACKAGE_ENTRIES), std::end(PACKAGE_ENTRIES)));

constexpr OtaPackageTable PACKAGE_TABLES[] = {
    {.name = "R5C20_ota",
     .entryCount = static_cast<int32_t>(std::size(PACKAGE_ENTRIES)),
     .entries = PACKAGE_ENTRIES},
};

constexpr uint32_t NO_STORAGE_TYPE = 0;
constexpr uint32_t MODULE_TYPE_SECOND_SYSTEM = 26;
constexpr uint32_t HAL_MODULE_TYPE_SECOND_SYSTEM = 14;

// Returns the index of the request's first entry with the row's module type, or -1. Never reads
// beyond the arrays of the message, whatever its moduleCount is.
int32_t find_requested(const OtaPackageEntry& entry, const OtaMessage& message) {
    for (int32_t i = 0; i < message.moduleCount && i < OTA_MSG_MAX_MODULES; ++i) {
        if (message.moduleTypes[i] == entry.moduleType) {
            return i;
        }
    }
    return -1;
}

}  // namespace

int32_t OTA_GetPackageTables(uint32_t /*index*/, const OtaPackageTable** tables, uint32_t* count) {
    *tables = PACKAGE_TABLES;
    *count = static_cast<uint32_t>(std::size(PACKAGE_TABLES));
    return OTA_OK;
}

const OtaPackageEntry* OTA_LumoFindModuleByMoudleType(uint8_t moduleType) {
    const OtaPackageTable* tables = nullptr;
    uint32_t count = 0;
    OTA_GetPackageTables(0, &tables, &count);
    if (tables == nullptr) {
        UPGRADE_LOG("get ota package table fail");
        return nullptr;
    }
    for (uint32_t t = 0; t < count; ++t) {
        for (int32_t row = 0; row < tables[t].entryCount; ++row) {
            if (tables[t].entries[row].moduleType == moduleType) {
                return &tables[t].entries[row];
            }
        }
    }
    return nullptr;
}

int32_t OTA_CheckNeedUpgrade(const OtaPackageEntry* entry, const OtaMessage* message) {
    if (entry == nullptr) {
        return OTA_FAILED;
    }
    if (find_requested(*entry, *message) >= 0) {
        return OTA_OK;
    }
    UPGRADE_LOG("no find upgrade type:%d, %s", static_cast<int>(entry->moduleType),
                entry->fileName);
    return OTA_FAILED;
}

int32_t get_partition_info_by_msg(const OtaPackageEntry* entry, const OtaMessage* message,
                                  uint64_t* offset, uint64_t* size) {
    if (entry == nullptr) {
        return OTA_FAILED;
    }
    const int32_t found = find_requested(*entry, *message);
    if (found < 0) {
        return OTA_FAILED;
    }
    *offset = message->moduleInfo[found].offset;
    *size = message->moduleInfo[found].size;
    UPGRADE_LOG("find upgrade type:%d, offset: %llu, size: %llu",
                static_cast<int>(entry->moduleType), static_cast<unsigned long long>(*offset),
                static_cast<unsigned long long>(*size));
    return OTA_OK;
}

uint32_t OTA_GetHalModuleType(uint32_t moduleType) {
    const bool sameOnBothSides =
        (moduleType >= 1 && moduleType <= 6) || (moduleType >= 11 && moduleType <= 17);
    if (sameOnBothSides) {
        return moduleType;
    }
    return moduleType == MODULE_TYPE_SECOND_SYSTEM ? HAL_MODULE_TYPE_SECOND_SYSTEM
                                                   : MODULE_TYPE_OTHER;
}

uint32_t OTA_GetHalStorageType(uint32_t flashType) {
    switch (flashType) {
        case OTA_FLASH_TYPE_MTD:
            return STORAGE_TYPE_MTD;
        case OTA_FLASH_TYPE_EMMC:
            return STORAGE_TYPE_MMC;
        default:
            return NO_STORAGE_TYPE;
    }
}
