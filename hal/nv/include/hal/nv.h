// The NV module: non-volatile data in small eMMC partitions. It keeps no state and takes no lock.
#ifndef HAL_NV_H
#define HAL_NV_H

#include "hal/hal_interfaces.h"

extern const HalNvInterface NV_INTERFACE;

#endif  // HAL_NV_H
