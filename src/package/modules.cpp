#include "package/modules.h"

#include <stdio.h>

#include "package/partition.h"

std::span<const OtaPackageEntry> package_entries() {
    const OtaPackageTable* tables = nullptr;
    uint32_t count = 0;
    OTA_GetPackageTables(0, &tables, &count);
    if (tables == nullptr || count == 0) {
        return {};
    }
    return {tables[0].entries, static_cast<size_t>(tables[0].entryCount)};
}

const OtaPackageEntry* find_module(std::string_view nameOrNumber) {
    for (const OtaPackageEntry& entry : package_entries()) {
        if (nameOrNumber == entry.partitionName ||
            nameOrNumber == std::to_string(entry.moduleType)) {
            return &entry;
        }
    }
    return nullptr;
}

std::string module_names() {
    std::string names;
    for (const OtaPackageEntry& entry : package_entries()) {
        names += names.empty() ? "" : ", ";
        names += entry.partitionName;
    }
    return names;
}

std::string describe_modules() {
    std::string lines;
    for (const OtaPackageEntry& entry : package_entries()) {
        char columns[128] = {};
        snprintf(columns, sizeof(columns), "%3u  %-15s  %-15s  %-4s  ", entry.moduleType,
                 entry.partitionName, entry.fileName,
                 entry.flashType == OTA_FLASH_TYPE_MTD ? "mtd" : "emmc");
        lines += columns + partition_device(entry) + '\n';
    }
    return lines;
}
