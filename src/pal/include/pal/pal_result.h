// Result codes of the platform abstraction. Most operations also return the non-zero codes of their
// hardware module unchanged, so the same number can have the meaning that the module gives it.
#ifndef PAL_PAL_RESULT_H
#define PAL_PAL_RESULT_H

#include <stdint.h>

enum PalResult : int32_t {
    PAL_OK = 0,
    PAL_PMU_NO_INTERFACE = 1,  // PAL_Pmu_Init: the camera has no such module
    PAL_PARAM_INVALID = 2,     // an argument is missing or out of range
    PAL_LED_NO_INTERFACE = 2,  // PAL_LED_Init: no operation table, or its slot is null
    PAL_PMU_INIT_FAILED = 2,   // PAL_Pmu_Init: the module's init failed
    PAL_NO_INTERFACE = 3,      // NV and OTA: no operation table, or its slot is null
    PAL_NV_READ_FAILED = 5,    // PAL_NV_Init: the factory data cannot be read
};

#endif  // PAL_PAL_RESULT_H
