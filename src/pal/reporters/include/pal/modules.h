// Two tables: the hardware modules of this camera, and the sources of reports. They generate the
// registry, the declarations of the operation tables and the REPORT_... constants. A new module
// needs a row in each table and a row in src/hal/CMakeLists.txt.
#ifndef PAL_MODULES_H
#define PAL_MODULES_H

#include <stdint.h>

// MODULE(kind, type of the operation table, name of the operation table). HAL_<kind>_GetInterface
// looks the table up in the registry. The types are declared in hal/hal_interfaces.h.
#define HAL_MODULES(MODULE)                         \
    MODULE(LED, HalLedInterface, T31_LED_INTERFACE) \
    MODULE(NV, HalNvInterface, NV_INTERFACE)        \
    MODULE(OTA, HalOtaInterface, AXERA_OTA_INTERFACE)

// Kinds of module that the platform supports but this camera does not have: their lookup returns
// null.
#define HAL_MISSING_MODULES(MODULE) MODULE(PMU, HalPmuInterface)

// SOURCE(name, tag for people, number for programs that read the output). Numbers must be unique.
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

#endif  // PAL_MODULES_H
