#include "pal/pal_nv.h"

#include <pthread.h>

#include "base/scoped_lock.h"
#include "nv_factory_cache.h"
#include "pal_common/error_log.h"
#include "platform/plt.h"
#include "registry.h"

std::array<uint8_t, 1792> PalNvFactoryCache;

namespace {

pthread_mutex_t nvMutex = PTHREAD_MUTEX_INITIALIZER;

}  // namespace

int32_t PAL_NV_Init() {
    const corvo::ScopedLock lock(nvMutex);
    const HalNvInterface* const hal = HAL_NV_GetInterface(0);
    if (hal == nullptr || hal->factoryRead == nullptr) {
        PAL_REPORT(REPORT_PAL_NV, REPORT_LEVEL_ERROR, "Get HAL interface fail");
        return PAL_NO_INTERFACE;
    }
    Plt_MemSet(PalNvFactoryCache.data(), 0, PalNvFactoryCache.size());
    if (hal->factoryRead(PalNvFactoryCache.data(), 0, PalNvFactoryCache.size()) < 0) {
        PAL_REPORT(REPORT_PAL_NV, REPORT_LEVEL_ERROR, "HAL interface exec fail");
        return PAL_NV_READ_FAILED;
    }
    return PAL_OK;
}
