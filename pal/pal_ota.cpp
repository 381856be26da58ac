#include "pal/pal_ota.h"

#include <pthread.h>

#include "base/scoped_lock.h"
#include "pal_common/error_log.h"
#include "registry.h"

namespace {

pthread_mutex_t otaMutex = PTHREAD_MUTEX_INITIALIZER;

bool valid_storage_type(uint32_t storageType) {
    return storageType >= STORAGE_TYPE_MIN && storageType <= STORAGE_TYPE_MAX;
}

bool valid_module_type(uint32_t moduleType) {
    return moduleType >= MODULE_TYPE_MIN && moduleType <= MODULE_TYPE_MAX;
}

int32_t param_invalid(const char* operation) {
    PAL_REPORT_AS(operation, REPORT_PAL_OTA, REPORT_LEVEL_ERROR, "Param invalid");
    return PAL_PARAM_INVALID;
}

// The part of every operation that follows the check of its arguments: lock, look up the table,
// call the slot, report.
template <typename Slot, typename... Arguments>
int32_t call_slot(const char* operation, Slot HalOtaInterface::*slot, Arguments... arguments) {
    const corvo::ScopedLock lock(otaMutex);
    const HalOtaInterface* const hal = HAL_OTA_GetInterface(0);
    if (hal == nullptr || hal->*slot == nullptr) {
        PAL_REPORT_AS(operation, REPORT_PAL_OTA, REPORT_LEVEL_ERROR, "Get HAL interface fail");
        return PAL_NO_INTERFACE;
    }
    const int32_t result = (hal->*slot)(arguments...);
    if (result != PAL_OK) {
        PAL_REPORT_AS(operation, REPORT_PAL_OTA, REPORT_LEVEL_ERROR, "HAL interface exec fail");
    }
    return result;
}

}  // namespace

int32_t PAL_OTA_Init() {
    return call_slot(__func__, &HalOtaInterface::init);
}

int32_t PAL_OTA_DeInit() {
    return call_slot(__func__, &HalOtaInterface::deinit);
}

int32_t PAL_OTA_Upgrade(uint32_t moduleType, const char* partitionName, const char* filePath,
                        uint32_t storageType) {
    if (!valid_module_type(moduleType) || filePath == nullptr || !valid_storage_type(storageType)) {
        return param_invalid(__func__);
    }
    return call_slot(__func__, &HalOtaInterface::upgrade, moduleType, partitionName, filePath,
                     storageType);
}

int32_t PAL_OTA_OpenPartition(const char* partitionName, int32_t iFlag, uint32_t storageType,
                              int32_t* fd) {
    if (partitionName == nullptr || iFlag != 0 || fd == nullptr ||
        !valid_storage_type(storageType)) {
        return param_invalid(__func__);
    }
    return call_slot(__func__, &HalOtaInterface::openPartition, partitionName, iFlag, storageType,
                     fd);
}

int32_t PAL_OTA_UpgradeByOffset(uint32_t moduleType, const char* partitionName,
                                const char* filePath, uint32_t offset, uint32_t size,
                                uint32_t storageType) {
    if (partitionName == nullptr || filePath == nullptr || !valid_storage_type(storageType)) {
        return param_invalid(__func__);
    }
    return call_slot(__func__, &HalOtaInterface::upgradeByOffset, moduleType, partitionName,
                     filePath, offset, size, storageType);
}

int32_t PAL_OTA_AB_SWITCH(int32_t slot, uint32_t flags) {
    if (slot < -1) {
        return param_invalid(__func__);
    }
    return call_slot(__func__, &HalOtaInterface::abSwitch, slot, flags);
}
