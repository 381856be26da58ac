// The status LED: patterns tick by tick, and the worker with plain files as sysfs lines.

#include "faults.h"
#include "files.h"
#include "hal/gpio.h"
#include "hal/t31_led.h"
#include "led_lines.h"
#include "led_pattern.h"

namespace {

const std::string GPIO = "/sys/class/gpio/";
const HalLedInterface& led = T31_LED_INTERFACE;

// Returns a step as a letter that stands for its colours, see cases/led_patterns.txt. "!" before
// it: all colours are switched off first.
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

struct Led : testing::Test {
    void SetUp() override {
        write_file(GPIO + "export", "");
        for (const std::string line : {"gpio34", "gpio35"}) {
            write_file(GPIO + line + "/direction", "");
            write_file(GPIO + line + "/value", "");
        }
    }
    void TearDown() override {
        led.deinit(0);
        EXPECT_EQ(open_descriptors(), descriptors);
    }
    static void wait_for_ticks(int count) {
        for (const int end = Faults::calls("select") + count; Faults::calls("select") < end;) {
            std::this_thread::yield();
        }
    }

    int descriptors = open_descriptors();
};

TEST_F(Led, RequestsReachTheLinesAndASteadyActOnlyWaits) {
    bool running = false;
    expect_cases("led_requests.txt", [&running](std::istream& input) {
        std::string operation, first, call;
        int second = 0;
        input >> operation >> first >> second >> call;
        const Faults faults({{call.c_str(), -1, EIO}});
        const int number = atoi(first.c_str());
        const auto type = static_cast<uint32_t>(number);
        const LedBlinkCfg config{static_cast<uint32_t>(second)};
        const std::map<std::string, std::function<int()>> operations = {
            {"init", [] { return led.init(0); }},
            {"deinit", [] { return led.deinit(0); }},
            {"reserved", [] { return led.reserved2(0, 0, 0) + led.reserved5(0, 0, 0, 0); }},
            {"enable", [&] { return led.enable(type, second, 0); }},
            {"blink", [&] { return led.blink(type, second < 0 ? nullptr : &config, 0); }},
            {"green", [&] { return set_green_led(number); }},
            {"blue", [&] { return set_blue_led(number); }},
            {"export", [&] { return hal_gpio_export(number); }},
            {"direction", [&] { return hal_gpio_set_dir(number, static_cast<uint8_t>(second)); }},
            {"create", [&] { return write_file(GPIO + first, ""), 0; }},
            {"remove", [&] { return unlink((GPIO + first).c_str()); }},
            {"wait", [&] { return wait_for_ticks(number), 0; }}};
        CapturedOutput output;
        const int result = operations.at(operation)();
        running = (operation == "init" && result == 0) || (running && operation != "deinit");
        wait_for_ticks(running ? 3 : 0);
        std::string text = std::to_string(result);
        for (const std::string& line : lines_of(without_source_lines(output.take()))) {
            const bool counts = !line.empty() && !contains(line, "process thread");
            text += counts ? " / " + line : "";  // start and end of a thread have no fixed place
        }
        if (operation == "enable" || operation == "wait" || operation == "blue") {
            const std::string red = read_file(GPIO + "gpio34/value");
            const std::string blue = read_file(GPIO + "gpio35/value");
            // The number of writes while the LED blinks depends on timing.
            text +=
                " / " + std::string(Faults::opened()) +
                (operation == "wait" ? std::to_string(Faults::calls("write")) + " writes, " : "") +
                "last " + (red.empty() ? "none" : red.substr(red.size() - 1) + blue.back());
        }
        return text;
    });
    EXPECT_EQ(read_file(GPIO + "export"), "74");  // overwrites a part of the earlier text
    EXPECT_EQ(read_file(GPIO + "gpio34/direction"), std::string("out\0", 4));
    EXPECT_EQ(read_file(GPIO + "gpio35/direction"), std::string("in\0\0", 4));
}

TEST_F(Led, FailingWaitsDoNotSpin) {
    const Faults faults({{"select", -1, EINVAL}});
    led.init(0);
    wait_for_ticks(10);
    led.deinit(0);
    EXPECT_EQ(Faults::calls("usleep"), Faults::calls("select") * 250000);
    EXPECT_EQ(Faults::calls("tick"), Faults::calls("select") * 250);
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
