// Which hardware module's table stands behind each kind. Built in: nothing registers at run time.
#ifndef PAL_REGISTRY_H
#define PAL_REGISTRY_H

#include <stdint.h>

#include "board/modules.h"
#include "hal/hal_interfaces.h"

// HAL_LED_GetInterface and so on, for the kinds in board/modules.h. Each kind has one instance: its
// table for index 0, null for any other index, and null for a kind that this camera does not have.
#define REGISTRY_LOOKUP(kind, Interface, ...) \
    const Interface* HAL_##kind##_GetInterface(uint32_t index);
HAL_MODULES(REGISTRY_LOOKUP)
HAL_MISSING_MODULES(REGISTRY_LOOKUP)
#undef REGISTRY_LOOKUP

#endif  // PAL_REGISTRY_H
