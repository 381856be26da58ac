// The first bytes of the factory data, as the last PAL_NV_Init() found them.
#ifndef PAL_NV_FACTORY_CACHE_H
#define PAL_NV_FACTORY_CACHE_H

#include <stdint.h>

#include <array>

// Written under the NV mutex.
extern std::array<uint8_t, 1792> PalNvFactoryCache;

#endif  // PAL_NV_FACTORY_CACHE_H
