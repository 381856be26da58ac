// Result codes of the platform abstraction's own checks. A hardware module's non-zero code is
// passed on unchanged, so a number can also be one of those (see the hardware module).
#ifndef PAL_PAL_RESULT_H
#define PAL_PAL_RESULT_H

#include <stdint.h>

enum PalResult : int32_t {
    PAL_OK = 0,
    PAL_PMU_NO_INTERFACE = 1,  // PAL_Pmu_Init: the camera has no such module
    PAL_PARAM_INVALID = 2,     // an argument is missing or out of range
    PAL_LED_NO_INTERFACE = 2,  // PAL_LED_Init: no table or an empty slot
    PAL_PMU_INIT_FAILED = 2,   // PAL_Pmu_Init: the module's init failed
    PAL_NO_INTERFACE = 3,      // NV and OTA: no table or an empty slot
    PAL_NV_READ_FAILED = 5,    // PAL_NV_Init: the factory data cannot be read
};

#endif  // PAL_PAL_RESULT_H
