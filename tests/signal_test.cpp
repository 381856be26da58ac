// What the real program does when it is told to stop, and when it crashes.
#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <regex>
#include <thread>

#include "camera.h"
#include "files.h"

namespace {

struct Signal : testing::Test {
    Camera camera;
};

TEST_F(Signal, EachIsAnsweredWithARebootAndEndsTheServiceOrNot) {
    expect_cases("signals.txt", [this](std::istream& input) {
        int signo = 0;
        std::string word;
        input >> signo >> word;
        camera.start();
        const std::string pid = std::to_string(camera.pid());
        camera.wait_for("ota wait for ota message");
        // Let the line's locks go: a crash that holds one is the next test's.
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        EXPECT_EQ(kill(camera.pid(), SIGPIPE), 0);
        EXPECT_EQ(kill(camera.pid(), signo), 0);
        camera.wait_for("ret:0 cmd:reboot");
        if (word == "goes-on") {
            Camera::post(Camera::request(0, {99}));
        }
        const Outcome outcome = camera.finish();
        EXPECT_TRUE(outcome.ended);
        EXPECT_EQ(Camera::take_commands().back(), "reboot");
        std::string said;
        for (const std::string& line : outcome.lines) {
            if (contains(line, "UPGRADE_LUMO_RECV_MSG")) {
                break;  // what belongs to the request
            }
            said = contains(line, "ota wait") ? std::string() : said.append(" / ").append(line);
        }
        said = std::regex_replace(said, std::regex("pid=" + pid), "PID");
        return (Camera::queue() >= 0 ? "ended" : "took its request") +
               std::regex_replace(said, std::regex("\033.[0-9]*m"), "");
    });
}

TEST_F(Signal, CrashThatHoldsTheTransportsLockStillAsksForTheReboot) {
    const auto start = std::chrono::steady_clock::now();
    // Record 3 is a command in the middle of the kill passes.
    const Outcome outcome = camera.run(Camera::request(0, {3}), {{"send", 3, CRASH}});
    EXPECT_TRUE(outcome.ended);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
    EXPECT_TRUE(contains(outcome.text, "sig_handler, arg = 6"));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const std::vector<std::string> commands = Camera::take_commands();
    ASSERT_EQ(commands.size(), 3U);
    EXPECT_EQ(commands[2], "reboot");
}

TEST_F(Signal, WithoutADaemonTheServiceStillWaitsForItsRequest) {
    camera.daemon.reset();
    camera.start();
    camera.wait_for("ota wait for ota message");
    camera.daemon = Camera::fake_daemon();
    camera.post(Camera::request(0, {99}));
    const Outcome outcome = camera.finish();
    EXPECT_TRUE(outcome.ended);
    EXPECT_TRUE(contains(outcome.text, "Please run system_call_daemon first"));
    EXPECT_TRUE(contains(outcome.text, "please run system_call_init first"));
    EXPECT_LT(Camera::queue(), 0);
}

}  // namespace
