// The status LED: patterns tick by tick, and the worker on sysfs lines that are files.
#include <errno.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <thread>

#include "faults.h"
#include "files.h"
#include "hal/gpio.h"
#include "hal/t31_led.h"
#include "led_pattern.h"

namespace {

const std::string GPIO = "/sys/class/gpio/";
const HalLedInterface& led = T31_LED_INTERFACE;

// One tick's writes as text: red, green, blue as "1", "0" or "-"; "!" when all go off before.
std::string tick(int32_t act, LedState& state) {
    const LedStep step = led_pattern_step(act, state);
    state = step.next;
    std::string text = step.allOffFirst ? "!" : "";
    for (const LedValue value : {step.values.red, step.values.green, step.values.blue}) {
        text += "01-"[value];
    }
    return text;
}

TEST(LedPattern, EveryActFromAFreshWorker) {
    const struct {
        int32_t act;
        const char* first;  // what ticks of the cycle's first phase write
        size_t firstTicks;
        const char* second;
        size_t secondTicks;
    } cases[] = {
        {LED_RED_SLOW_BLINK, "1--", 2, "0--", 2},
        {LED_RED_FAST_BLINK, "0--", 1, "1--", 1},
        {LED_GREEN_SLOW_BLINK, "-1-", 2, "-0-", 2},
        {LED_GREEN_FAST_BLINK, "-0-", 1, "-1-", 1},
        {LED_BLUE_SLOW_BLINK, "--1", 2, "--0", 2},
        {LED_BLUE_FAST_BLINK, "--0", 1, "--1", 1},
        {LED_RED_BLUE_SLOW_BLINK, "100", 2, "001", 2},
        {LED_RED_BLUE_FAST_BLINK, "001", 1, "100", 1},
        {LED_ALL_SLOW_BLINK, "111", 2, "000", 2},
        {LED_ALL_FAST_BLINK, "000", 1, "111", 1},
        {LED_ROBUST_INIT_BLINK, "100", 8, "001", 8},
        {LED_ROBUST_ING_BLINK, "100", 20, "001", 20},
        {LED_ROBUST_FINISH_BLINK, "100", 2, "001", 1},
        {LED_ALL_ON, "111", 1, "---", 99},
        {LED_ALL_OFF, "000", 1, "---", 99},
        {LED_RED_ON, "100", 1, "---", 99},
        {LED_GREEN_ON, "010", 1, "---", 99},
        {LED_BLUE_ON, "001", 1, "---", 99},
        {LED_ACT_BUTT, "---", 1, "---", 99},
        {-1, "---", 1, "---", 99},
    };
    for (const auto& c : cases) {
        LedState state;
        for (size_t i = 0; i < 48; ++i) {
            const bool first = i % (c.firstTicks + c.secondTicks) < c.firstTicks;
            const std::string start = i == 0 && c.secondTicks < 99 ? "!" : "";
            EXPECT_EQ(tick(c.act, state), start + (first ? c.first : c.second))
                << led_act_name(c.act) << " tick " << i + 1;
        }
    }
}

TEST(LedPattern, ChangeOfActKeepsTheCounter) {
    const struct {
        int ticksBefore;  // of LED_ROBUST_ING_BLINK
        LedAct act;
        std::vector<std::string> expected;
    } cases[] = {
        {25, LED_RED_FAST_BLINK, {"!1--", "0--", "1--"}},
        {25, LED_RED_SLOW_BLINK, {"!0--", "0--", "0--", "1--", "1--", "0--"}},
        {25, LED_ROBUST_INIT_BLINK, {"!001", "001", "001", "001", "001", "001", "001", "100"}},
        {1, LED_ROBUST_FINISH_BLINK, {"!100", "001", "100"}},
        {3, LED_BLUE_ON, {"001", "---"}},
    };
    for (const auto& c : cases) {
        LedState state;
        for (int i = 0; i < c.ticksBefore; ++i) {
            tick(LED_ROBUST_ING_BLINK, state);
        }
        for (const std::string& expected : c.expected) {
            EXPECT_EQ(tick(c.act, state), expected) << led_act_name(c.act);
        }
    }
}

class Led : public testing::Test {
  protected:
    void SetUp() override {
        for (const char* file :
             {"export", "gpio34/direction", "gpio34/value", "gpio35/direction", "gpio35/value"}) {
            write_file(GPIO + file, "");
        }
        devices.tickUs = 1000;
    }
    void TearDown() override {
        led.deinit(0);
        devices = {};
        EXPECT_EQ(open_descriptors(), descriptors_);
    }
    static void wait_for_ticks(int count) {
        for (const int end = Faults::calls("select") + count; Faults::calls("select") < end;) {
            std::this_thread::yield();
        }
    }

  private:
    int descriptors_ = open_descriptors();
};

TEST_F(Led, RequestsReachTheLinesAndASteadyActOnlyWaits) {
    CapturedOutput output;
    const Faults faults({});
    EXPECT_EQ(led.init(0), 0);
    EXPECT_EQ(led.init(0), 1);
    wait_for_ticks(5);
    EXPECT_TRUE(Faults::opened().empty());  // nothing asked, nothing touched
    EXPECT_EQ(led.enable(LED_TYPE_RED, 0, 0), 0);
    wait_for_ticks(3);
    EXPECT_EQ(Faults::opened(),
              (std::vector{GPIO + "export", GPIO + "gpio34/direction", GPIO + "gpio34/value",
                           GPIO + "export", GPIO + "gpio35/direction", GPIO + "gpio35/value"}));
    const int writes = Faults::calls("write");
    wait_for_ticks(20);
    EXPECT_EQ(Faults::calls("write"), writes);
    EXPECT_EQ(led.deinit(0), 0);
    EXPECT_EQ(read_file(GPIO + "export"), "35");  // files, unlike the kernel's, keep the last one
    EXPECT_EQ(read_file(GPIO + "gpio34/direction"), std::string("out\0", 4));
    EXPECT_EQ(read_file(GPIO + "gpio34/value") + read_file(GPIO + "gpio35/value"), "10");

    unlink((GPIO + "gpio34/value").c_str());
    EXPECT_EQ(hal_gpio_set_dir(99, 1), -1);
    EXPECT_EQ(led.init(0), 0);
    wait_for_ticks(3);
    write_file(GPIO + "gpio34/value", "");
    EXPECT_EQ(led.blink(LED_TYPE_RED, nullptr, 0), 1);
    for (const LedBlinkCfg& config : {LedBlinkCfg{999}, {1000}, {5000}, {4000}, {10000}}) {
        EXPECT_EQ(led.blink(LED_TYPE_RED, &config, 0), 0);
        wait_for_ticks(3);
        EXPECT_EQ(led.blink(LED_TYPE_ROBUST, &config, 0), 0);
        wait_for_ticks(3);
    }
    led.deinit(0);
    EXPECT_FALSE(read_file(GPIO + "gpio34/value").empty());  // found at a later write
    std::string changes;
    std::string errors;
    for (const std::string& line : lines_of(without_source_lines(output.take()))) {
        const size_t at = line.find(" to LED_");
        changes += at == std::string::npos ? "" : line.substr(at + 8);
        errors += line.find(" 4 ") == std::string::npos ? "" : line.substr(10) + "\n";
    }
    EXPECT_EQ(changes,
              "RED_ON.RED_ON.RED_FAST_BLINK.RED_SLOW_BLINK.ROBUST_FINISH_BLINK.RED_SLOW_BLINK."
              "ROBUST_INIT_BLINK.RED_SLOW_BLINK.ROBUST_ING_BLINK.");
    EXPECT_EQ(errors,
              "t31_led_init,#,HAL_LED 46 4 led has been inited.\n"
              "hal_gpio_set_dir,#,HAL_GPIO 77 4 open: /sys/class/gpio/gpio99/direction failed for "
              "No such file or directory\n"
              "hal_gpio_fd_open,#,HAL_GPIO 77 4 failed to open gpio 34\n"
              "t31_led_blink,#,HAL_LED 46 4 led blink cfg is NULL!\n");
}

TEST_F(Led, FailingWaitsDoNotSpin) {
    const Faults faults({{"select", 0, EINVAL}});
    led.init(0);
    usleep(600000);
    led.deinit(0);
    EXPECT_LE(Faults::calls("select"), 4);
}

TEST_F(Led, ActsChangeWhileTheModuleStartsAndStops) {
    CapturedOutput output;
    std::atomic<bool> done{false};
    std::thread requests([&] {
        for (uint32_t i = 0; !done; ++i) {
            const LedBlinkCfg config{i % 2000};
            led.blink(i % 9, &config, 0);
            led.enable(i % 9, static_cast<int32_t>(i % 2), 0);
            usleep(100);
        }
    });
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(led.init(0), 0);
        usleep(2000);
        EXPECT_EQ(led.deinit(0), 0);
    }
    done = true;
    requests.join();
}

}  // namespace
