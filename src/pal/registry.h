// Maps each kind of hardware module to the operation table of the module that this camera has. The
// mapping is fixed at build time.
#ifndef PAL_REGISTRY_H
#define PAL_REGISTRY_H

#include <stdint.h>

#include "hal/hal_interfaces.h"
#include "pal/modules.h"

// Declares HAL_LED_GetInterface and so on, for the kinds in pal/modules.h. Each kind has one
// instance: the lookup returns its table for index 0 and null for any other index. For a kind that
// this camera does not have, the lookup always returns null.
#define REGISTRY_LOOKUP(kind, Interface, ...) \
    const Interface* HAL_##kind##_GetInterface(uint32_t index);
HAL_MODULES(REGISTRY_LOOKUP)
HAL_MISSING_MODULES(REGISTRY_LOOKUP)
#undef REGISTRY_LOOKUP

#endif  // PAL_REGISTRY_H
