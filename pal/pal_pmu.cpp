#include "pal/pal_pmu.h"

#include <pthread.h>

#include "base/scoped_lock.h"
#include "pal_common/error_log.h"
#include "registry.h"

namespace {

pthread_mutex_t pmuMutex = PTHREAD_MUTEX_INITIALIZER;

}  // namespace

// The one operation here that reports in the form of the hardware modules, and with a line feed of
// its own: those who read the console know these lines so.
int32_t PAL_Pmu_Init(uint32_t index) {
    const corvo::ScopedLock lock(pmuMutex);
    const HalPmuInterface* const hal = HAL_PMU_GetInterface(index);
    if (hal == nullptr || hal->init == nullptr) {
        HAL_REPORT(REPORT_PAL_PMU, REPORT_LEVEL_ERROR, "Get HAL interface fail\n");
        return PAL_PMU_NO_INTERFACE;
    }
    if (hal->init(index) != PAL_OK) {
        HAL_REPORT(REPORT_PAL_PMU, REPORT_LEVEL_ERROR, "HAL interface exec fail\n");
        return PAL_PMU_INIT_FAILED;
    }
    return PAL_OK;
}
