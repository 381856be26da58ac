#include "hal/t31_led.h"

#include <pthread.h>
#include <stdio.h>
#include <sys/prctl.h>
#include <sys/select.h>
#include <unistd.h>

#include <atomic>

#include "base/alternate_stack.h"
#include "led_lines.h"
#include "led_pattern.h"
#include "pal/error_log.h"

namespace {

constexpr ReportSource REPORT_SOURCE = REPORT_HAL_LED;

// The reports of all functions that run on the worker thread carry this name.
constexpr const char* WORKER = "led_process_thread";

enum LedResult : int32_t {
    LED_OK = 0,
    LED_NOT_STARTED = 1,  // init: already running, or the worker thread cannot be created
    LED_NO_CONFIG = 1,    // blink: no configuration
};

constexpr int32_t TICK_US = 250000;
constexpr uint32_t SLOW_PERIOD_MS = 1000;  // blinks from this period on are slow

// Requests store the act here; the worker thread reads it once per tick.
std::atomic<int32_t> g_led_act{LED_ACT_BUTT};
std::atomic<bool> g_running{false};
pthread_t g_worker;  // valid while running

// Waits for one tick. Returns false when the wait failed.
bool wait_for_tick() {
    timeval tick = {.tv_sec = 0, .tv_usec = TICK_US};
    if (select(0, nullptr, nullptr, nullptr, &tick) >= 0) {
        return true;
    }
    HAL_ERROR_AS(WORKER, "select Error!");
    // If select() keeps failing, this pause prevents a busy loop that floods the log.
    usleep(TICK_US);
    return false;
}

void write_values(const LedValues& values) {
    if (values.red != LED_VALUE_KEEP) {
        set_red_led(values.red);
    }
    if (values.green != LED_VALUE_KEEP) {
        set_green_led(values.green);
    }
    if (values.blue != LED_VALUE_KEEP) {
        set_blue_led(values.blue);
    }
}

void show_tick(LedState& state) {
    const int32_t act = g_led_act.load(std::memory_order_relaxed);
    if (act != state.applied) {
        HAL_INFO_AS(WORKER, "Led act change %s to %s.", led_act_name(state.applied),
                    led_act_name(act));
    }
    if (!is_led_act(act)) {
        HAL_ERROR_AS(WORKER, "invalid led act %d!", act);
        return;
    }
    const LedStep step = led_pattern_step(act, state);
    if (step.allOffFirst) {
        write_values({LED_VALUE_OFF, LED_VALUE_OFF, LED_VALUE_OFF});
    }
    write_values(step.values);
    state = step.next;
}

void* led_process_thread(void* /*unused*/) {
    const corvo::AlternateStack crashStack;
    HAL_INFO_AS(WORKER, "led process thread.\n");
    prctl(PR_SET_NAME, "led_act");
    LedState state;
    while (g_running.load(std::memory_order_relaxed)) {
        if (wait_for_tick()) {
            show_tick(state);
        }
    }
    printf("led process thread exit.\n");
    return nullptr;
}

int32_t t31_led_init(uint32_t /*index*/) {
    if (g_running.load(std::memory_order_relaxed)) {
        HAL_ERROR("led has been inited.");
        return LED_NOT_STARTED;
    }
    g_running.store(true, std::memory_order_relaxed);
    if (pthread_create(&g_worker, nullptr, led_process_thread, nullptr) != 0) {
        HAL_ERROR("led thread create error!");
        g_running.store(false, std::memory_order_relaxed);
        return LED_NOT_STARTED;
    }
    return LED_OK;
}

int32_t t31_led_deinit(uint32_t /*index*/) {
    if (g_running.exchange(false, std::memory_order_relaxed)) {
        // The worker may be about to open a line or to write to it, so close only after it has
        // ended.
        pthread_join(g_worker, nullptr);
    }
    close_led_lines();
    return LED_OK;
}

int32_t t31_led_reserved2(uint32_t /*type*/, uint8_t /*value*/, uint32_t /*index*/) {
    return LED_OK;
}

int32_t t31_led_reserved5(uint32_t /*first*/, uint32_t /*second*/, uint32_t /*third*/,
                          uint32_t /*fourth*/) {
    return LED_OK;
}

int32_t t31_led_enable(uint32_t type, int32_t enable, uint32_t /*index*/) {
    printf("led enable, type=%d,enable=%d\n", static_cast<int>(type), enable);
    switch (type) {
        case LED_TYPE_RED:
            g_led_act.store(LED_RED_ON, std::memory_order_relaxed);
            break;
        case LED_TYPE_GREEN:
            g_led_act.store(LED_GREEN_ON, std::memory_order_relaxed);
            break;
        case LED_TYPE_BLUE:
            g_led_act.store(LED_BLUE_ON, std::memory_order_relaxed);
            break;
        case LED_TYPE_ALL:
            g_led_act.store(enable != 0 ? LED_ALL_ON : LED_ALL_OFF, std::memory_order_relaxed);
            break;
        default:
            break;
    }
    return LED_OK;
}

// A blink request of this type with a period from minPeriodMs to maxPeriodMs (inclusive) selects
// this act.
struct BlinkChoice {
    uint32_t type;
    uint32_t minPeriodMs;
    uint32_t maxPeriodMs;
    LedAct act;
};
constexpr BlinkChoice BLINK_CHOICES[] = {
    {LED_TYPE_RED, 0, SLOW_PERIOD_MS - 1, LED_RED_FAST_BLINK},
    {LED_TYPE_RED, SLOW_PERIOD_MS, UINT32_MAX, LED_RED_SLOW_BLINK},
    {LED_TYPE_GREEN, 0, SLOW_PERIOD_MS - 1, LED_GREEN_FAST_BLINK},
    {LED_TYPE_GREEN, SLOW_PERIOD_MS, UINT32_MAX, LED_GREEN_SLOW_BLINK},
    {LED_TYPE_BLUE, 0, SLOW_PERIOD_MS - 1, LED_BLUE_FAST_BLINK},
    {LED_TYPE_BLUE, SLOW_PERIOD_MS, UINT32_MAX, LED_BLUE_SLOW_BLINK},
    {LED_TYPE_RED_BLUE, 0, SLOW_PERIOD_MS - 1, LED_RED_BLUE_FAST_BLINK},
    {LED_TYPE_RED_BLUE, SLOW_PERIOD_MS, UINT32_MAX, LED_RED_BLUE_SLOW_BLINK},
    {LED_TYPE_ROBUST, 4000, 4000, LED_ROBUST_INIT_BLINK},
    {LED_TYPE_ROBUST, 10000, 10000, LED_ROBUST_ING_BLINK},
    {LED_TYPE_ROBUST, 1000, 1000, LED_ROBUST_FINISH_BLINK},
    {LED_TYPE_ALL, 0, SLOW_PERIOD_MS - 1, LED_ALL_FAST_BLINK},
    {LED_TYPE_ALL, SLOW_PERIOD_MS, UINT32_MAX, LED_ALL_SLOW_BLINK},
};

int32_t t31_led_blink(uint32_t type, const LedBlinkCfg* config, uint32_t /*index*/) {
    if (config == nullptr) {
        HAL_ERROR("led blink cfg is NULL!");
        return LED_NO_CONFIG;
    }
    const uint32_t period = config->periodMs;
    for (const BlinkChoice& choice : BLINK_CHOICES) {
        if (type == choice.type && period >= choice.minPeriodMs && period <= choice.maxPeriodMs) {
            g_led_act.store(choice.act, std::memory_order_relaxed);
            break;
        }
    }
    return LED_OK;
}

}  // namespace

constexpr HalLedInterface T31_LED_INTERFACE = {
    .init = t31_led_init,
    .deinit = t31_led_deinit,
    .reserved2 = t31_led_reserved2,
    .enable = t31_led_enable,
    .blink = t31_led_blink,
    .reserved5 = t31_led_reserved5,
    .reserved6 = nullptr,
};
