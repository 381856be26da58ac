#include "pal/pal_led.h"

#include "call_frame.h"
#include "registry.h"

namespace {

pthread_mutex_t g_led_mutex = PTHREAD_MUTEX_INITIALIZER;
constexpr PalModule<HalLedInterface> LED = {.mutex = g_led_mutex,
                                            .interface = HAL_LED_GetInterface,
                                            .source = REPORT_PAL_LED,
                                            .noInterface = PAL_LED_NO_INTERFACE,
                                            .result = unchanged};

}  // namespace

int32_t PAL_LED_Init() {
    return pal_call(LED, __func__, 0, &HalLedInterface::init, [](auto init) { return init(0); });
}
