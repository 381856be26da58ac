// The patterns of the status LED: what it shows at each tick of each act. These are pure functions,
// which use neither a clock nor the GPIO lines.
#ifndef HAL_LED_LED_PATTERN_H
#define HAL_LED_LED_PATTERN_H

#include <stdint.h>

// The requested pattern of the LED. A slow blink is on for 2 ticks and off for 2 ticks; a fast
// blink is off for 1 tick and on for 1 tick.
enum LedAct : int32_t {
    LED_ALL_ON = 0,
    LED_ALL_OFF = 1,
    LED_RED_ON = 2,
    LED_RED_SLOW_BLINK = 3,
    LED_RED_FAST_BLINK = 4,
    LED_GREEN_ON = 5,
    LED_GREEN_SLOW_BLINK = 6,
    LED_GREEN_FAST_BLINK = 7,
    LED_BLUE_ON = 8,
    LED_BLUE_SLOW_BLINK = 9,
    LED_BLUE_FAST_BLINK = 10,
    LED_RED_BLUE_SLOW_BLINK = 11,
    LED_RED_BLUE_FAST_BLINK = 12,
    LED_ALL_SLOW_BLINK = 13,
    LED_ALL_FAST_BLINK = 14,
    LED_ROBUST_INIT_BLINK = 15,    // red for 8 ticks, blue for 8
    LED_ROBUST_ING_BLINK = 16,     // red for 20 ticks, blue for 20
    LED_ROBUST_FINISH_BLINK = 17,  // red for 2 ticks, blue for 1
    LED_ACT_BUTT = 18,             // nothing requested yet: the lines keep their state
};

// The value to write to one line.
enum LedValue : int32_t {
    LED_VALUE_OFF = 0,
    LED_VALUE_ON = 1,
    LED_VALUE_KEEP = 2,  // write nothing
};

struct LedValues {
    LedValue red;
    LedValue green;
    LedValue blue;
};

// The state that the worker thread keeps from one tick to the next.
struct LedState {
    int32_t applied = LED_ACT_BUTT;  // the act that the lines show
    int32_t counter = 0;             // position within the blink; kept when the act changes
};

struct LedStep {
    bool allOffFirst;  // switch the three lines off before `values` are written
    LedValues values;
    LedState next;
};

// Computes one tick of the act. For an unchanged steady act, LED_ACT_BUTT and an unknown act the
// result writes nothing.
LedStep led_pattern_step(int32_t act, const LedState& state);

// Returns whether the act is one of LedAct.
bool is_led_act(int32_t act);

// Returns the name of the act, as in LedAct, or "Unknow LED status!".
const char* led_act_name(int32_t act);

#endif  // HAL_LED_LED_PATTERN_H
