// Result codes of the upgrade service core.
#ifndef OTA_OTA_RESULT_H
#define OTA_OTA_RESULT_H

#include <stdint.h>

enum OtaResult : int32_t {
    OTA_OK = 0,
    OTA_FAILED = 1,
};

#endif  // OTA_OTA_RESULT_H
