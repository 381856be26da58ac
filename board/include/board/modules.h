// The hardware modules of this camera and who reports in whose name: two tables, from which the
// registry, the constants REPORT_... and the tables' declarations follow. A new module is a row in
// each; its libraries are a row in hal/CMakeLists.txt.
#ifndef BOARD_MODULES_H
#define BOARD_MODULES_H

#include <stdint.h>

// MODULE(kind, record of operations, the constant that fills it): the registry's lookup of a kind
// is HAL_<kind>_GetInterface. The records are in hal/hal_interfaces.h.
#define HAL_MODULES(MODULE)                         \
    MODULE(LED, HalLedInterface, T31_LED_INTERFACE) \
    MODULE(NV, HalNvInterface, NV_INTERFACE)        \
    MODULE(OTA, HalOtaInterface, AXERA_OTA_INTERFACE)

// Kinds that the platform knows and this camera does not have: their lookup returns null.
#define HAL_MISSING_MODULES(MODULE) MODULE(PMU, HalPmuInterface)

// SOURCE(name, tag for people, number for programs that read the output). No two have one number.
#define REPORT_SOURCES(SOURCE)             \
    SOURCE(FLASH_MMC, "FLASH_MMC", 1)      \
    SOURCE(FLASH_MTD, "FLASH_MTD", 2)      \
    SOURCE(PAL_LED, "PAL_LED", 7)          \
    SOURCE(PAL_OTA, "PAL_OTA", 10)         \
    SOURCE(PAL_NV, "PAL_NV", 20)           \
    SOURCE(PAL_PMU, "PAL_PMU", 21)         \
    SOURCE(HAL_LED, "HAL_LED", 46)         \
    SOURCE(HAL_OTA, "BATTERY_CAM_OTA", 48) \
    SOURCE(HAL_GPIO, "HAL_GPIO", 77)

#endif  // BOARD_MODULES_H
