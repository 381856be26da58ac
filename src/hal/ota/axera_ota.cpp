#include "hal/axera_ota.h"

#include <stdio.h>

#include <algorithm>
#include <array>

#include "dbus/system_call.h"
#include "hal/flash_mmc.h"
#include "hal/flash_mtd.h"
#include "pal/error_log.h"
#include "pal/ota_types.h"

namespace {

constexpr ReportSource REPORT_SOURCE = REPORT_HAL_OTA;

constexpr auto ACCEPTED_MODULE_TYPES =
    std::to_array<uint32_t>({2, 3, 4, 5, 6, 11, 12, 13, 14, 15, 16, 17, 20, 21});

// Converts the result code of a flash driver to the result code of an upgrade by offset. There is
// one column for each type of storage. A code that is not listed is passed on unchanged.
struct ResultMapping {
    int flash;
    int32_t mmc;
    int32_t mtd;
};
constexpr ResultMapping RESULT_MAPPINGS[] = {
    {FLASH_FAILED, HAL_OTA_MMC_FAILED, HAL_OTA_MTD_NOT_OPENED},
    {FLASH_ERASE_NO_GEOMETRY, FLASH_ERASE_NO_GEOMETRY, HAL_OTA_MTD_NO_GEOMETRY},
    {FLASH_ERASE_FAILED, FLASH_ERASE_FAILED, HAL_OTA_MTD_ERASE_FAILED},
    {FLASH_NO_DEVICE, FLASH_NO_DEVICE, HAL_OTA_MTD_NOT_OPENED},
    {FLASH_NO_GEOMETRY, FLASH_NO_GEOMETRY, HAL_OTA_MTD_NO_GEOMETRY},
    {FLASH_NO_PACKAGE, HAL_OTA_NO_PACKAGE, HAL_OTA_NO_PACKAGE},
    {FLASH_NO_PACKAGE_STATUS, HAL_OTA_NO_PACKAGE_STATUS, HAL_OTA_NO_PACKAGE_STATUS},
    {FLASH_BAD_LENGTH, HAL_OTA_BAD_LENGTH, HAL_OTA_BAD_LENGTH},
    {FLASH_PARTITION_TOO_SMALL, HAL_OTA_PARTITION_TOO_SMALL, HAL_OTA_PARTITION_TOO_SMALL},
    {FLASH_MTD_PACKAGE_UNREAD, HAL_OTA_MTD_PACKAGE_UNREAD, HAL_OTA_MTD_PACKAGE_UNREAD},
    {FLASH_SHORT_WRITE, HAL_OTA_WRITE_FAILED, HAL_OTA_WRITE_FAILED},
    // The same number as FLASH_MMC_PACKAGE_UNREAD, so this row covers both codes.
    {FLASH_SHORT_READ_BACK, HAL_OTA_WRITE_FAILED, HAL_OTA_WRITE_FAILED},
    {FLASH_DATA_DIFFER, HAL_OTA_WRITE_FAILED, HAL_OTA_WRITE_FAILED},
};

int32_t mapped_result(int flash, int32_t ResultMapping::*column) {
    const auto* const mapping = std::ranges::find(RESULT_MAPPINGS, flash, &ResultMapping::flash);
    return mapping == std::end(RESULT_MAPPINGS) ? flash : mapping->*column;
}

bool accepts_module_type(uint32_t moduleType) {
    return std::ranges::find(ACCEPTED_MODULE_TYPES, moduleType) != ACCEPTED_MODULE_TYPES.end();
}

// Checks the arguments of the two operations that write a module; `nullText` is reported when a
// name is missing. Reports under the name `operation`.
bool check_upgrade(const char* operation, uint32_t moduleType, uint32_t storageType,
                   const char* partitionName, const char* filePath, const char* nullText) {
    HAL_INFO_AS(operation, "eModuleType=%d, eStorageType=%d", static_cast<int>(moduleType),
                static_cast<int>(storageType));
    if (!accepts_module_type(moduleType)) {
        HAL_ERROR_AS(operation, "unsupport module type = %d", static_cast<int>(moduleType));
        return false;
    }
    if (partitionName == nullptr || filePath == nullptr) {
        HAL_ERROR_AS(operation, "%s", nullText);
        return false;
    }
    return true;
}

// Reports the result of these operations if it is a failure, and returns it.
int32_t report_upgrade(const char* operation, int32_t result) {
    if (result != HAL_OTA_OK) {
        HAL_ERROR_AS(operation, "battery_cam_ota_upgrade failed, ret=%d", result);
    }
    return result;
}

// The query of the running slot returns a letter and a line feed; the rest of the buffer stays
// zero.
constexpr size_t SLOT_BUFFER_SIZE = 128;
constexpr int32_t SLOT_ANSWER_SIZE = 16;
constexpr int32_t SLOT_QUERY_TIMEOUT_MS = 2000;
constexpr int32_t SLOT_SWITCH_TIMEOUT_MS = -1;  // the client's default

int32_t axera_ota_init() {
    printf("axera_ota_init \n");
    return HAL_OTA_OK;
}

int32_t axera_ota_deinit() {
    return HAL_OTA_OK;
}

int32_t axera_ota_upgrade(uint32_t moduleType, const char* partitionName, const char* filePath,
                          uint32_t storageType) {
    printf("axera_ota_upgrade eModuleType=%d line%d", static_cast<int>(moduleType), __LINE__);
    if (!check_upgrade(__func__, moduleType, storageType, partitionName, filePath,
                       "pszPartitionName or pszFilePath is NULL")) {
        return HAL_OTA_INVALID_PARAMETER;
    }
    int32_t result = HAL_OTA_OK;
    switch (storageType) {
        case STORAGE_TYPE_MTD:
            result = flash_mtd_erase_write_partion(partitionName, filePath);
            break;
        case STORAGE_TYPE_MMC:
            result = flash_mmc_erase_write_partion(partitionName, filePath);
            break;
        default:
            HAL_ERROR("failed, unsupport eStorageType:%d", static_cast<int>(storageType));
            return HAL_OTA_UNSUPPORTED;
    }
    return report_upgrade(__func__, result);
}

int32_t axera_ota_open_partition(const char* partitionName, int32_t flags, uint32_t storageType,
                                 int32_t* fd) {
    if (flags != 0 || fd == nullptr || partitionName == nullptr) {
        HAL_ERROR("param error, iFlag=%d, fd=%p", flags, static_cast<void*>(fd));
        return HAL_OTA_INVALID_PARAMETER;
    }
    switch (storageType) {
        case STORAGE_TYPE_MMC:
            *fd = flash_mmc_open(partitionName, flags);
            return *fd < 0 ? HAL_OTA_MMC_FAILED : HAL_OTA_OK;
        case STORAGE_TYPE_MTD:
            *fd = flash_mtd_open(partitionName, flags);
            return *fd < 0 ? HAL_OTA_MTD_NOT_OPENED : HAL_OTA_OK;
        default:
            HAL_ERROR("unsupport eStorageType:%d", static_cast<int>(storageType));
            return HAL_OTA_UNSUPPORTED;
    }
}

int32_t axera_ota_erase_partition(const char* partitionName, uint32_t storageType) {
    if (partitionName == nullptr) {
        return HAL_OTA_INVALID_PARAMETER;
    }
    switch (storageType) {
        case STORAGE_TYPE_MMC:
            return flash_mmc_erase_partition(partitionName);
        case STORAGE_TYPE_MTD:
            return flash_mtd_erase_partition(partitionName);
        default:
            HAL_ERROR("unsupport eStorageType:%d", static_cast<int>(storageType));
            return HAL_OTA_UNSUPPORTED;
    }
}

int32_t axera_ota_write_partition_by_offset(uint32_t moduleType, const char* partitionName,
                                            const char* filePath, uint32_t offset, uint32_t size,
                                            uint32_t storageType) {
    if (!check_upgrade(__func__, moduleType, storageType, partitionName, filePath,
                       "partitionName or path is NULL")) {
        return HAL_OTA_INVALID_PARAMETER;
    }
    int32_t result = HAL_OTA_OK;
    switch (storageType) {
        case STORAGE_TYPE_MTD:
            result = mapped_result(flash_mtd_erase_write_partition_by_offset(
                                       partitionName, filePath, uint64_t{offset}, uint64_t{size}),
                                   &ResultMapping::mtd);
            break;
        case STORAGE_TYPE_MMC: {
            // If the range ends at or beyond 2 GiB, these conversions make a position negative or
            // the end smaller than the start. The driver rejects that before it erases anything.
            const int start = static_cast<int>(offset);
            const int end = static_cast<int>(offset + size);
            result = mapped_result(
                flash_mmc_erase_write_partion_by_offset(partitionName, filePath, start, end),
                &ResultMapping::mmc);
            break;
        }
        default:
            HAL_ERROR("failed, unsupport eStorageType:%d", static_cast<int>(storageType));
            return HAL_OTA_UNSUPPORTED;
    }
    return report_upgrade(__func__, result);
}

int32_t axera_ota_ab_switch(int32_t /*slot*/, uint32_t /*flags*/) {
    char answer[SLOT_BUFFER_SIZE] = {};
    popen_call("fw_printenv | grep bootsystem= | awk -F = '{ print $2 }'", answer, SLOT_ANSWER_SIZE,
               SLOT_QUERY_TIMEOUT_MS);
    printf("current bootsystem=%s\n", answer);
    for (int i = 0; i < 4; ++i) {
        printf("retbuf[%d]=%c\n", i, answer[i]);
    }
    if (answer[0] == 'A') {
        printf("checkboot system B\n");
        system_call("/etc/init.d/S99checkboot systemB", SLOT_SWITCH_TIMEOUT_MS);
        return HAL_OTA_OK;
    }
    if (answer[0] == 'B') {
        printf("checkboot system A\n");
        system_call("/etc/init.d/S99checkboot systemA", SLOT_SWITCH_TIMEOUT_MS);
        return HAL_OTA_OK;
    }
    printf("switch bootsystem failed");
    return HAL_OTA_UNSUPPORTED;
}

}  // namespace

constexpr HalOtaInterface AXERA_OTA_INTERFACE = {
    .init = axera_ota_init,
    .deinit = axera_ota_deinit,
    .upgrade = axera_ota_upgrade,
    .openPartition = axera_ota_open_partition,
    .erasePartition = axera_ota_erase_partition,
    .upgradeByOffset = axera_ota_write_partition_by_offset,
    .abSwitch = axera_ota_ab_switch,
};
