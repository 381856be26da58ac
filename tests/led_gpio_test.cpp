// The status LED: patterns tick by tick, and the worker on sysfs lines that are files.
#include <errno.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <map>
#include <thread>

#include "faults.h"
#include "files.h"
#include "hal/gpio.h"
#include "hal/t31_led.h"
#include "led_lines.h"
#include "led_pattern.h"

namespace {

const std::string GPIO = "/sys/class/gpio/";
const HalLedInterface& led = T31_LED_INTERFACE;

// A step as a letter, by what it writes to red, green and blue: see cases/led_patterns.txt. "!"
// before it when all are switched off first.
std::string letter(const LedStep& step) {
    static const std::map<std::string, std::string> LETTERS = {
        {"111", "W"}, {"000", "o"}, {"100", "R"}, {"010", "G"}, {"001", "B"}, {"---", "."},
        {"1--", "r"}, {"0--", "x"}, {"-1-", "g"}, {"-0-", "y"}, {"--1", "b"}, {"--0", "z"}};
    std::string lines;
    for (const LedValue value : {step.values.red, step.values.green, step.values.blue}) {
        lines += "01-"[value];
    }
    return (step.allOffFirst ? "!" : "") + LETTERS.at(lines);
}

TEST(LedPattern, ActsTickByTick) {
    expect_cases("led_patterns.txt", [](std::istream& input) {
        LedState state;
        std::string text;
        int act = 0;
        for (int ticks = 0; input >> act >> ticks;) {
            text += text.empty() ? "" : " ";
            for (int i = 0; i < ticks; ++i) {
                const LedStep step = led_pattern_step(act, state);
                text += letter(step);
                state = step.next;
            }
        }
        return text;
    });
}

class Led : public testing::Test {
  protected:
    void SetUp() override {
        for (const char* file :
             {"export", "gpio34/direction", "gpio34/value", "gpio35/direction", "gpio35/value"}) {
            write_file(GPIO + file, "");
        }
    }
    void TearDown() override {
        led.deinit(0);
        EXPECT_EQ(open_descriptors(), descriptors_);
    }
    static void wait_for_ticks(int count) {
        for (const int end = Faults::calls("select") + count; Faults::calls("select") < end;) {
            std::this_thread::yield();
        }
    }
    // Prints what became of the lines in so many ticks.
    static void show_lines(int ticks) {
        wait_for_ticks(ticks);
        printf("opened: %s; %d writes; red %s, blue %s\n", Faults::opened(), Faults::calls("write"),
               read_file(GPIO + "gpio34/value").c_str(), read_file(GPIO + "gpio35/value").c_str());
    }

  private:
    int descriptors_ = open_descriptors();
};

TEST_F(Led, RequestsReachTheLinesAndASteadyActOnlyWaits) {
    CapturedOutput output;
    const Faults faults;
    EXPECT_EQ(led.init(0), 0);
    EXPECT_EQ(led.init(0), 1);
    show_lines(5);
    EXPECT_EQ(led.enable(LED_TYPE_RED, 0, 0), 0);
    show_lines(3);
    show_lines(20);
    EXPECT_EQ(led.deinit(0), 0);
    EXPECT_EQ(read_file(GPIO + "export"), "35");  // files, unlike the kernel's, keep the last one
    EXPECT_EQ(read_file(GPIO + "gpio34/direction"), std::string("out\0", 4));

    unlink((GPIO + "gpio34/value").c_str());
    EXPECT_EQ(hal_gpio_set_dir(99, 1), -1);
    EXPECT_EQ(led.init(0), 0);
    wait_for_ticks(3);
    write_file(GPIO + "gpio34/value", "");  // found at a later write
    EXPECT_EQ(led.blink(LED_TYPE_RED, nullptr, 0), 1);
    for (const LedBlinkCfg& config : {LedBlinkCfg{999}, {1000}, {5000}, {4000}, {10000}}) {
        for (const uint32_t type : {LED_TYPE_RED, LED_TYPE_ROBUST}) {
            EXPECT_EQ(led.blink(type, &config, 0), 0);
            wait_for_ticks(3);
        }
    }
    for (const uint32_t type : {LED_TYPE_GREEN, LED_TYPE_BLUE, LED_TYPE_ROBUST, LED_TYPE_ALL}) {
        EXPECT_EQ(led.enable(type, 1, 0), 0);
        wait_for_ticks(3);
    }
    {
        const Faults failing({{"write", -1, EIO}});
        led.enable(LED_TYPE_ALL, 0, 0);
        wait_for_ticks(3);
    }
    led.deinit(0);
    EXPECT_FALSE(read_file(GPIO + "gpio34/value").empty());
    unlink((GPIO + "export").c_str());
    EXPECT_EQ(hal_gpio_export(7), -1);
    EXPECT_EQ(set_blue_led(2), 0);  // neither on nor off: opened only
    EXPECT_EQ(set_green_led(1), 0);
    EXPECT_EQ(hal_gpio_set_dir(35, 0), 0);
    EXPECT_EQ(read_file(GPIO + "gpio35/direction"), std::string("in\0\0", 4));
    {
        const Faults noThread({{"pthread_create", 1, EAGAIN}});
        EXPECT_EQ(led.init(0), 1);
    }
    EXPECT_EQ(led.reserved2(0, 0, 0) + led.reserved5(0, 0, 0, 0), 0);
    std::string lines;
    for (const std::string& line : lines_of(without_source_lines(output.take()))) {
        const bool counts = !line.empty() && line.find("process thread") == std::string::npos;
        lines += counts ? line + "\n" : "";  // a thread begins and ends when it likes
    }
    EXPECT_EQ(lines, read_file(TEXTS "consoles/led.txt"));
}

TEST_F(Led, FailingWaitsDoNotSpin) {
    const Faults faults({{"select", -1, EINVAL}});
    led.init(0);
    wait_for_ticks(10);
    led.deinit(0);
    EXPECT_EQ(Faults::calls("usleep"), Faults::calls("select") * 250000);
}

TEST_F(Led, ActsChangeWhileTheModuleStartsAndStops) {
    CapturedOutput output;
    std::atomic<bool> done{false};
    std::thread requests([&] {
        for (uint32_t i = 0; !done; ++i) {
            const LedBlinkCfg config{i % 2000};
            led.blink(i % 9, &config, 0);
            led.enable(i % 9, static_cast<int32_t>(i % 2), 0);
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
    });
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(led.init(0), 0);
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
        EXPECT_EQ(led.deinit(0), 0);
    }
    done = true;
    requests.join();
}

}  // namespace
