// GPIO lines through the kernel's sysfs interface (Documentation/admin-guide/gpio/sysfs.rst of the
// Linux sources). Lines are named by their kernel number. No call blocks beyond the file operation;
// no state is kept and no lock taken. Failures are reported, once.
#ifndef HAL_GPIO_H
#define HAL_GPIO_H

#include <stdint.h>

enum GpioResult : int32_t {
    GPIO_OK = 0,
    GPIO_FAILED = -1,  // the line's file cannot be opened
};

// Makes the line usable. GPIO_OK also when it already was, which the kernel refuses.
int32_t hal_gpio_export(int32_t gpio);

// Makes the line an output (out non-zero) or an input (0).
int32_t hal_gpio_set_dir(int32_t gpio, uint8_t out);

// Opens the line's value for reading and writing, not blocking. Returns a descriptor, which the
// caller closes, or GPIO_FAILED.
int32_t hal_gpio_fd_open(int32_t gpio);

#endif  // HAL_GPIO_H
