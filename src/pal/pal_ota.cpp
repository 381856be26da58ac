#include "pal/pal_ota.h"

#include "call_frame.h"
#include "registry.h"

namespace {

pthread_mutex_t g_ota_mutex = PTHREAD_MUTEX_INITIALIZER;
constexpr PalModule<HalOtaInterface> OTA = {.mutex = g_ota_mutex,
                                            .interface = HAL_OTA_GetInterface,
                                            .source = REPORT_PAL_OTA,
                                            .noInterface = PAL_NO_INTERFACE,
                                            .result = unchanged};

bool valid_storage_type(uint32_t storageType) {
    return storageType >= STORAGE_TYPE_MIN && storageType <= STORAGE_TYPE_MAX;
}

bool valid_module_type(uint32_t moduleType) {
    return moduleType >= MODULE_TYPE_MIN && moduleType <= MODULE_TYPE_MAX;
}

template <typename Slot, typename... Arguments>
int32_t call_slot(const char* operation, Slot HalOtaInterface::*slot, Arguments... arguments) {
    return pal_call(OTA, operation, 0, slot,
                    [arguments...](auto function) { return function(arguments...); });
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
        return pal_param_invalid(OTA, __func__);
    }
    return call_slot(__func__, &HalOtaInterface::upgrade, moduleType, partitionName, filePath,
                     storageType);
}

int32_t PAL_OTA_OpenPartition(const char* partitionName, int32_t iFlag, uint32_t storageType,
                              int32_t* fd) {
    if (partitionName == nullptr || iFlag != 0 || fd == nullptr ||
        !valid_storage_type(storageType)) {
        return pal_param_invalid(OTA, __func__);
    }
    return call_slot(__func__, &HalOtaInterface::openPartition, partitionName, iFlag, storageType,
                     fd);
}

int32_t PAL_OTA_UpgradeByOffset(uint32_t moduleType, const char* partitionName,
                                const char* filePath, uint32_t offset, uint32_t size,
                                uint32_t storageType) {
    if (partitionName == nullptr || filePath == nullptr || !valid_storage_type(storageType)) {
        return pal_param_invalid(OTA, __func__);
    }
    return call_slot(__func__, &HalOtaInterface::upgradeByOffset, moduleType, partitionName,
                     filePath, offset, size, storageType);
}

int32_t PAL_OTA_AB_SWITCH(int32_t slot, uint32_t flags) {
    if (slot < -1) {
        return pal_param_invalid(OTA, __func__);
    }
    return call_slot(__func__, &HalOtaInterface::abSwitch, slot, flags);
}
