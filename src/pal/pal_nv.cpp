#include "pal/pal_nv.h"

#include "call_frame.h"
#include "nv_factory_cache.h"
#include "platform/plt.h"
#include "registry.h"

std::array<uint8_t, 1792> PalNvFactoryCache;

namespace {

pthread_mutex_t g_nv_mutex = PTHREAD_MUTEX_INITIALIZER;
constexpr PalModule<HalNvInterface> NV = {
    .mutex = g_nv_mutex,
    .interface = HAL_NV_GetInterface,
    .source = REPORT_PAL_NV,
    .noInterface = PAL_NO_INTERFACE,
    // Slots return a count of bytes or a negative value; a short count is not a failure.
    .result = [](int32_t count) -> int32_t { return count < 0 ? PAL_NV_READ_FAILED : PAL_OK; }};

}  // namespace

int32_t PAL_NV_Init() {
    return pal_call(NV, __func__, 0, &HalNvInterface::factoryRead, [](auto read) {
        Plt_MemSet(PalNvFactoryCache.data(), 0, PalNvFactoryCache.size());
        return read(PalNvFactoryCache.data(), 0, PalNvFactoryCache.size());
    });
}
