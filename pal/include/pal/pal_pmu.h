// Power management of the platform.
#ifndef PAL_PAL_PMU_H
#define PAL_PAL_PMU_H

#include <stdint.h>

#include "pal/pal_result.h"

// Prepares the power management module of that index. Takes the PMU mutex. Returns PAL_OK,
// PAL_PMU_NO_INTERFACE (always, as this camera has none) or PAL_PMU_INIT_FAILED. Failures are
// reported.
int32_t PAL_Pmu_Init(uint32_t index);

#endif  // PAL_PAL_PMU_H
