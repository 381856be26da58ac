// Power management operations of the platform.
#ifndef PAL_PAL_PMU_H
#define PAL_PAL_PMU_H

#include <stdint.h>

#include "pal/pal_result.h"

// Prepares the power management module with this index. Takes the PMU mutex. Returns PAL_OK,
// PAL_PMU_NO_INTERFACE or PAL_PMU_INIT_FAILED. This camera has no power management module, so the
// result is always PAL_PMU_NO_INTERFACE. Failures are reported.
int32_t PAL_Pmu_Init(uint32_t index);

#endif  // PAL_PAL_PMU_H
