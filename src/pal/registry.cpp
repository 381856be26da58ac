#include "registry.h"

#define REGISTRY_LOOKUP(kind, Interface, table)                  \
    const Interface* HAL_##kind##_GetInterface(uint32_t index) { \
        return index == 0 ? &(table) : nullptr;                  \
    }
HAL_MODULES(REGISTRY_LOOKUP)

#define REGISTRY_NO_LOOKUP(kind, Interface)                          \
    const Interface* HAL_##kind##_GetInterface(uint32_t /*index*/) { \
        return nullptr;                                              \
    }
HAL_MISSING_MODULES(REGISTRY_NO_LOOKUP)
