#include "registry.h"

#include "hal/axera_ota.h"
#include "hal/nv.h"
#include "hal/t31_led.h"

const HalOtaInterface* HAL_OTA_GetInterface(uint32_t index) {
    return index == 0 ? &AXERA_OTA_INTERFACE : nullptr;
}

const HalLedInterface* HAL_LED_GetInterface(uint32_t index) {
    return index == 0 ? &T31_LED_INTERFACE : nullptr;
}

const HalNvInterface* HAL_NV_GetInterface(uint32_t index) {
    return index == 0 ? &NV_INTERFACE : nullptr;
}

const HalPmuInterface* HAL_PMU_GetInterface(uint32_t /*index*/) {
    return nullptr;
}
