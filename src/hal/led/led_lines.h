// The three GPIO lines of the status LED. Only the worker thread may use them, or another thread
// after it has joined the worker.
#ifndef HAL_LED_LED_LINES_H
#define HAL_LED_LED_LINES_H

#include <stdint.h>

enum LedLineResult : int32_t {
    LED_LINE_OK = 0,
    LED_LINE_FAILED = 1,  // the line cannot be opened or written
};

// Switch one line on (1) or off (0); any other value writes nothing. The first call exports and
// opens the line; if that fails, every further call tries again. Failures to write are reported.
int32_t set_red_led(int32_t on);
int32_t set_blue_led(int32_t on);
// The camera has no green line: does nothing and returns LED_LINE_OK.
int32_t set_green_led(int32_t on);

// Closes the lines that are open. The next call that switches a line opens it again.
void close_led_lines();

#endif  // HAL_LED_LED_LINES_H
