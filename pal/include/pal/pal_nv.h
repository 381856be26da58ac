// Non-volatile data of the platform.
#ifndef PAL_PAL_NV_H
#define PAL_PAL_NV_H

#include <stdint.h>

#include "pal/pal_result.h"

// Fills the cache of the factory data from its partition; a partition that holds less leaves the
// rest zero. Waits up to about 5 s for the partition's node, holding the NV mutex. Returns PAL_OK,
// PAL_NO_INTERFACE or PAL_NV_READ_FAILED. Failures are reported.
int32_t PAL_NV_Init();

#endif  // PAL_PAL_NV_H
