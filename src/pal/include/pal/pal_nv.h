// Non-volatile data operations of the platform.
#ifndef PAL_PAL_NV_H
#define PAL_PAL_NV_H

#include <stdint.h>

#include "pal/pal_result.h"

// Reads the factory data from its partition into the cache. If the partition is shorter than the
// cache, the remaining bytes are zero. Waits up to about 5 s for the partition's device node while
// holding the NV mutex. Returns PAL_OK, PAL_NO_INTERFACE or PAL_NV_READ_FAILED. Failures are
// reported.
int32_t PAL_NV_Init();

#endif  // PAL_PAL_NV_H
