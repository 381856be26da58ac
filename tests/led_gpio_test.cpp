// The status LED: patterns tick by tick, and the worker on sysfs lines that are files.
#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>
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
    // By act: ticks of a cycle and what each of them writes; a steady act writes once.
    const std::vector<std::vector<std::pair<int, std::string>>> cycles = {
        {{1, "111"}},
        {{1, "000"}},
        {{1, "100"}},
        {{2, "1--"}, {2, "0--"}},
        {{1, "0--"}, {1, "1--"}},
        {{1, "010"}},
        {{2, "-1-"}, {2, "-0-"}},
        {{1, "-0-"}, {1, "-1-"}},
        {{1, "001"}},
        {{2, "--1"}, {2, "--0"}},
        {{1, "--0"}, {1, "--1"}},
        {{2, "100"}, {2, "001"}},
        {{1, "001"}, {1, "100"}},
        {{2, "111"}, {2, "000"}},
        {{1, "000"}, {1, "111"}},
        {{8, "100"}, {8, "001"}},
        {{20, "100"}, {20, "001"}},
        {{2, "100"}, {1, "001"}},
        {{1, "---"}},
        {{1, "---"}},
    };
    for (size_t act = 0; act < cycles.size(); ++act) {
        const bool steady = cycles[act].size() == 1;
        std::vector<std::string> expected;
        while (expected.size() < 48) {
            for (const auto& [ticks, text] : cycles[act]) {
                const bool silent = steady && !expected.empty();
                expected.insert(expected.end(), static_cast<size_t>(ticks), silent ? "---" : text);
            }
        }
        expected[0].insert(0, steady ? "" : "!");
        LedState state;
        for (const std::string& text : expected) {
            EXPECT_EQ(tick(static_cast<int32_t>(act), state), text) << act;
        }
    }
}

TEST(LedPattern, ChangeOfActKeepsTheCounter) {
    for (const auto& [ticksBefore, act, expected] :
         {std::tuple(25, LED_RED_FAST_BLINK, "!1-- 0-- 1-- "),
          {25, LED_RED_SLOW_BLINK, "!0-- 0-- 0-- 1-- 1-- 0-- "},
          {25, LED_ROBUST_INIT_BLINK, "!001 001 001 001 001 001 001 100 "},
          {1, LED_ROBUST_FINISH_BLINK, "!100 001 100 "},
          {3, LED_BLUE_ON, "001 --- "}}) {
        LedState state;
        for (int i = 0; i < ticksBefore; ++i) {
            tick(LED_ROBUST_ING_BLINK, state);
        }
        std::string text;
        while (text.size() < strlen(expected)) {
            text += tick(act, state) + " ";
        }
        EXPECT_EQ(text, expected);
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
