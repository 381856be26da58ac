#include "hal/gpio.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include "base/ignore_result.h"
#include "base/unique_fd.h"
#include "pal/error_log.h"

namespace {

constexpr ReportSource REPORT_SOURCE = REPORT_HAL_GPIO;

constexpr size_t PATH_SIZE = 64;  // bytes, terminator included

}  // namespace

int32_t hal_gpio_export(int32_t gpio) {
    const corvo::UniqueFd file(open("/sys/class/gpio/export", O_WRONLY));
    if (!file.valid()) {
        HAL_ERROR("faield to open gpio/export");
        return GPIO_FAILED;
    }
    char number[16] = {};
    snprintf(number, sizeof(number), "%d", gpio);
    // The write fails if the line is already exported, which is not a failure of this function.
    corvo::ignore_result(write(file.get(), number, strlen(number)));
    return GPIO_OK;
}

int32_t hal_gpio_set_dir(int32_t gpio, uint8_t out) {
    char path[PATH_SIZE] = {};
    snprintf(path, sizeof(path), "/sys/class/gpio/gpio%d/direction", gpio);
    const corvo::UniqueFd file(open(path, O_WRONLY));
    if (!file.valid()) {
        HAL_ERROR("open: %s failed for %s", path, strerror(errno));
        return GPIO_FAILED;
    }
    // The terminating NUL is written too; the kernel accepts it as the end of the string.
    if (out != 0) {
        corvo::ignore_result(write(file.get(), "out", sizeof("out")));
    } else {
        corvo::ignore_result(write(file.get(), "in", sizeof("in")));
    }
    return GPIO_OK;
}

int32_t hal_gpio_fd_open(int32_t gpio) {
    char path[PATH_SIZE] = {};
    snprintf(path, sizeof(path), "/sys/class/gpio/gpio%d/value", gpio);
    const int fd = open(path, O_RDWR | O_NONBLOCK);
    if (fd < 0) {
        HAL_ERROR("failed to open gpio %d", gpio);
        return GPIO_FAILED;
    }
    return fd;
}
