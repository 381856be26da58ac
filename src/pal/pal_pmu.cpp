#include "pal/pal_pmu.h"

#include "call_frame.h"
#include "registry.h"

namespace {

pthread_mutex_t g_pmu_mutex = PTHREAD_MUTEX_INITIALIZER;
// Unlike the other platform modules, this one reports in the format of the hardware modules and
// ends its text with a line feed: programs that read the output expect this format.
constexpr PalModule<HalPmuInterface> PMU = {.mutex = g_pmu_mutex,
                                            .interface = HAL_PMU_GetInterface,
                                            .source = REPORT_PAL_PMU,
                                            .noInterface = PAL_PMU_NO_INTERFACE,
                                            .result = [](int32_t result) -> int32_t {
                                                return result == PAL_OK ? PAL_OK
                                                                        : PAL_PMU_INIT_FAILED;
                                            },
                                            .report = HAL_ErrorLog,
                                            .textEnd = "\n"};

}  // namespace

int32_t PAL_Pmu_Init(uint32_t index) {
    return pal_call(PMU, __func__, index, &HalPmuInterface::init,
                    [index](auto init) { return init(index); });
}
