#include "led_lines.h"

#include <unistd.h>

#include <utility>

#include "base/unique_fd.h"
#include "hal/gpio.h"
#include "pal_common/error_log.h"

namespace {

constexpr int32_t NO_GPIO = -1;

// The descriptors are no UniqueFd: its destructor would close them when the process exits, under
// the hands of the worker, which plays on until the very end. close_led_lines() owns them.
struct LedLine {
    const char* name;
    int32_t gpio;
    int value;  // descriptor of the line's value file, or -1
};
LedLine redLine{"red", 34, -1};
LedLine greenLine{"green", NO_GPIO, -1};
LedLine blueLine{"blue", 35, -1};

int32_t set_line(const char* operation, LedLine& line, int32_t on) {
    if (line.value < 0 && line.gpio == NO_GPIO) {
        return LED_LINE_OK;
    }
    if (line.value < 0) {
        hal_gpio_export(line.gpio);
        hal_gpio_set_dir(line.gpio, 1);
        line.value = hal_gpio_fd_open(line.gpio);
    }
    if (line.value < 0) {
        return LED_LINE_FAILED;
    }
    if (on != 0 && on != 1) {
        return LED_LINE_OK;
    }
    if (write(line.value, on == 1 ? "1" : "0", 1) != 1) {
        HAL_REPORT_AS(operation, REPORT_HAL_LED, REPORT_LEVEL_ERROR, "%s led fd write fail",
                      line.name);
        return LED_LINE_FAILED;
    }
    return LED_LINE_OK;
}

}  // namespace

int32_t set_red_led(int32_t on) {
    return set_line(__func__, redLine, on);
}

int32_t set_green_led(int32_t on) {
    return set_line(__func__, greenLine, on);
}

int32_t set_blue_led(int32_t on) {
    return set_line(__func__, blueLine, on);
}

void close_led_lines() {
    for (LedLine* const line : {&redLine, &greenLine, &blueLine}) {
        const corvo::UniqueFd closed(std::exchange(line->value, -1));
    }
}
