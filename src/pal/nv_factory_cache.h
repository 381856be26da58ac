// The first bytes of the factory data, as read by the last PAL_NV_Init().
#ifndef PAL_NV_FACTORY_CACHE_H
#define PAL_NV_FACTORY_CACHE_H

#include <stdint.h>

#include <array>

// Written while the NV mutex is held.
extern std::array<uint8_t, 1792> PalNvFactoryCache;

#endif  // PAL_NV_FACTORY_CACHE_H
