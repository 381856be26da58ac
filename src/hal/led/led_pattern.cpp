#include "led_pattern.h"

#include <iterator>

namespace {

constexpr LedValue ON = LED_VALUE_ON;
constexpr LedValue OFF = LED_VALUE_OFF;
constexpr LedValue KEEP = LED_VALUE_KEEP;

constexpr LedValues NO_LINES{KEEP, KEEP, KEEP};
constexpr LedValues ALL_OFF{OFF, OFF, OFF};
constexpr LedValues ALL_ON{ON, ON, ON};
constexpr LedValues ONLY_RED{ON, OFF, OFF};
constexpr LedValues ONLY_GREEN{OFF, ON, OFF};
constexpr LedValues ONLY_BLUE{OFF, OFF, ON};
constexpr LedValues RED_LINE_ON{ON, KEEP, KEEP};
constexpr LedValues RED_LINE_OFF{OFF, KEEP, KEEP};
constexpr LedValues GREEN_LINE_ON{KEEP, ON, KEEP};
constexpr LedValues GREEN_LINE_OFF{KEEP, OFF, KEEP};
constexpr LedValues BLUE_LINE_ON{KEEP, KEEP, ON};
constexpr LedValues BLUE_LINE_OFF{KEEP, KEEP, OFF};

// The timing of a pattern. While the counter is below firstTicks, a tick shows the first phase and
// increments the counter. Otherwise a tick shows the second phase and increments the counter modulo
// `period`. A new act starts with the counter value of the previous act.
struct Rule {
    int32_t firstTicks;
    int32_t period;  // ticks; 0: steady
};
constexpr Rule STEADY{0, 0};
constexpr Rule SLOW{2, 4};
constexpr Rule FAST{1, 1};
constexpr Rule SEQUENCE_8_8{8, 16};
constexpr Rule SEQUENCE_20_20{20, 40};
constexpr Rule SEQUENCE_2_1{2, 3};

struct Pattern {
    const char* name;
    Rule rule;
    LedValues first;
    LedValues second;
};

// Indexed by LedAct. A fast blink begins with its off phase.
constexpr Pattern PATTERNS[] = {
    {"LED_ALL_ON", STEADY, ALL_ON, ALL_ON},
    {"LED_ALL_OFF", STEADY, ALL_OFF, ALL_OFF},
    {"LED_RED_ON", STEADY, ONLY_RED, ONLY_RED},
    {"LED_RED_SLOW_BLINK", SLOW, RED_LINE_ON, RED_LINE_OFF},
    {"LED_RED_FAST_BLINK", FAST, RED_LINE_OFF, RED_LINE_ON},
    {"LED_GREEN_ON", STEADY, ONLY_GREEN, ONLY_GREEN},
    {"LED_GREEN_SLOW_BLINK", SLOW, GREEN_LINE_ON, GREEN_LINE_OFF},
    {"LED_GREEN_FAST_BLINK", FAST, GREEN_LINE_OFF, GREEN_LINE_ON},
    {"LED_BLUE_ON", STEADY, ONLY_BLUE, ONLY_BLUE},
    {"LED_BLUE_SLOW_BLINK", SLOW, BLUE_LINE_ON, BLUE_LINE_OFF},
    {"LED_BLUE_FAST_BLINK", FAST, BLUE_LINE_OFF, BLUE_LINE_ON},
    {"LED_RED_BLUE_SLOW_BLINK", SLOW, ONLY_RED, ONLY_BLUE},
    {"LED_RED_BLUE_FAST_BLINK", FAST, ONLY_BLUE, ONLY_RED},
    {"LED_ALL_SLOW_BLINK", SLOW, ALL_ON, ALL_OFF},
    {"LED_ALL_FAST_BLINK", FAST, ALL_OFF, ALL_ON},
    {"LED_ROBUST_INIT_BLINK", SEQUENCE_8_8, ONLY_RED, ONLY_BLUE},
    {"LED_ROBUST_ING_BLINK", SEQUENCE_20_20, ONLY_RED, ONLY_BLUE},
    {"LED_ROBUST_FINISH_BLINK", SEQUENCE_2_1, ONLY_RED, ONLY_BLUE},
    {"LED_ACT_BUTT", STEADY, NO_LINES, NO_LINES},
};
static_assert(std::size(PATTERNS) == LED_ACT_BUTT + 1);

}  // namespace

bool is_led_act(int32_t act) {
    return act >= LED_ALL_ON && act <= LED_ACT_BUTT;
}

const char* led_act_name(int32_t act) {
    return is_led_act(act) ? PATTERNS[act].name : "Unknow LED status!";
}

LedStep led_pattern_step(int32_t act, const LedState& state) {
    if (!is_led_act(act) || act == LED_ACT_BUTT) {
        return {false, NO_LINES, state};
    }
    const Pattern& pattern = PATTERNS[act];
    const bool changed = act != state.applied;
    if (pattern.rule.period == 0) {
        return {false, changed ? pattern.first : NO_LINES, {act, state.counter}};
    }
    if (state.counter < pattern.rule.firstTicks) {
        return {changed, pattern.first, {act, state.counter + 1}};
    }
    return {changed, pattern.second, {act, (state.counter + 1) % pattern.rule.period}};
}
