// Which hardware module's table stands behind each kind. Built in: nothing registers at run time.
#ifndef PAL_REGISTRY_H
#define PAL_REGISTRY_H

#include <stdint.h>

#include "hal/hal_interfaces.h"

// Each kind has one instance: the table for index 0, null for any other index.
const HalOtaInterface* HAL_OTA_GetInterface(uint32_t index);
const HalLedInterface* HAL_LED_GetInterface(uint32_t index);
const HalNvInterface* HAL_NV_GetInterface(uint32_t index);

// Null for every index: the camera has no power management module.
const HalPmuInterface* HAL_PMU_GetInterface(uint32_t index);

#endif  // PAL_REGISTRY_H
