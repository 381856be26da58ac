#include "pal/pal_led.h"

#include <pthread.h>

#include "base/scoped_lock.h"
#include "pal_common/error_log.h"
#include "registry.h"

namespace {

pthread_mutex_t ledMutex = PTHREAD_MUTEX_INITIALIZER;

}  // namespace

int32_t PAL_LED_Init() {
    const corvo::ScopedLock lock(ledMutex);
    const HalLedInterface* const hal = HAL_LED_GetInterface(0);
    if (hal == nullptr || hal->init == nullptr) {
        PAL_REPORT(REPORT_PAL_LED, REPORT_LEVEL_ERROR, "Get HAL interface fail");
        return PAL_LED_NO_INTERFACE;
    }
    const int32_t result = hal->init(0);
    if (result != PAL_OK) {
        PAL_REPORT(REPORT_PAL_LED, REPORT_LEVEL_ERROR, "HAL interface exec fail");
    }
    return result;
}
