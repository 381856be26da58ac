// The three lines of the status LED. Only the worker uses them, and whoever has waited for its end.
#ifndef HAL_LED_LED_LINES_H
#define HAL_LED_LED_LINES_H

#include <stdint.h>

enum LedLineResult : int32_t {
    LED_LINE_OK = 0,
    LED_LINE_FAILED = 1,  // the line cannot be opened or did not take the value
};

// Switch one line: on is 1 or 0; any other value writes nothing. The first use exports and opens
// the line, and so does each further one until it works. Failures to write are reported.
int32_t set_red_led(int32_t on);
int32_t set_blue_led(int32_t on);
// The camera has no green line: LED_LINE_OK, with nothing done.
int32_t set_green_led(int32_t on);

// Closes the lines that are open; the next use opens them again.
void close_led_lines();

#endif  // HAL_LED_LED_LINES_H
