#include "led_lines.h"

#include <unistd.h>

#include <utility>

#include "base/unique_fd.h"
#include "hal/gpio.h"
#include "pal/error_log.h"

namespace {

constexpr ReportSource REPORT_SOURCE = REPORT_HAL_LED;

constexpr int32_t NO_GPIO = -1;

// The descriptors are plain integers, not UniqueFd: a static UniqueFd would be destroyed when the
// process exits, while the worker thread still writes to it. close_led_lines() closes them.
struct LedLine {
    const char* name;
    int32_t gpio;
    int value;  // descriptor of the line's value file, or -1
};
LedLine g_red_line{"red", 34, -1};
LedLine g_green_line{"green", NO_GPIO, -1};
LedLine g_blue_line{"blue", 35, -1};

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
        HAL_ERROR_AS(operation, "%s led fd write fail", line.name);
        return LED_LINE_FAILED;
    }
    return LED_LINE_OK;
}

}  // namespace

int32_t set_red_led(int32_t on) {
    return set_line(__func__, g_red_line, on);
}

int32_t set_green_led(int32_t on) {
    return set_line(__func__, g_green_line, on);
}

int32_t set_blue_led(int32_t on) {
    return set_line(__func__, g_blue_line, on);
}

void close_led_lines() {
    for (LedLine* const line : {&g_red_line, &g_green_line, &g_blue_line}) {
        const corvo::UniqueFd closed(std::exchange(line->value, -1));
    }
}
