// Access to GPIO lines through the kernel's sysfs interface
// (Documentation/admin-guide/gpio/sysfs.rst of the Linux sources). `gpio` is the kernel's number of
// a line. Calls block only for the file operation, keep no state and take no lock. Each failure is
// reported once.
#ifndef HAL_GPIO_H
#define HAL_GPIO_H

#include <stdint.h>

enum GpioResult : int32_t {
    GPIO_OK = 0,
    GPIO_FAILED = -1,  // a sysfs file cannot be opened
};

// Exports the line, so that its sysfs files exist. Returns GPIO_OK, also when the line is already
// exported, or GPIO_FAILED.
int32_t hal_gpio_export(int32_t gpio);

// Makes the line an output (out non-zero) or an input (out 0). Returns GPIO_OK or GPIO_FAILED.
int32_t hal_gpio_set_dir(int32_t gpio, uint8_t out);

// Opens the line's value file for reading and writing, with O_NONBLOCK. Returns a descriptor, which
// the caller closes, or GPIO_FAILED.
int32_t hal_gpio_fd_open(int32_t gpio);

#endif  // HAL_GPIO_H
