// What the real program does when it is told to stop, and when it crashes.
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "camera.h"
#include "files.h"

namespace {

using Lines = std::vector<std::string>;

class Signal : public testing::Test {
  protected:
    Camera camera;
};

// The console between the wait for a request and the request, or the end.
Lines while_waiting(const Lines& lines) {
    const auto has = [](const char* text) {
        return [text](const std::string& line) { return line.find(text) != std::string::npos; };
    };
    const auto from = std::find_if(lines.begin(), lines.end(), has("ota wait for ota message"));
    return {from + 1, std::find_if(from, lines.end(), has("UPGRADE_LUMO_RECV_MSG"))};
}

TEST_F(Signal, EachIsAnsweredWithARebootAndEndsTheServiceOrNot) {
    struct Case {
        int signo;
        bool saysExit;
        bool ends;
    };
    for (const Case& c :
         {Case{SIGHUP, false, false}, Case{SIGINT, true, false}, Case{SIGTERM, true, false},
          Case{SIGQUIT, true, true}, Case{SIGSEGV, false, true}, Case{SIGABRT, false, true}}) {
        SCOPED_TRACE(strsignal(c.signo));
        camera.start();
        const std::string pid = std::to_string(camera.pid());
        camera.wait_for("ota wait for ota message");
        ASSERT_EQ(kill(camera.pid(), SIGPIPE), 0);
        ASSERT_EQ(kill(camera.pid(), c.signo), 0);
        if (!c.ends) {
            camera.wait_for("ret:0 cmd:reboot");
            EXPECT_EQ(camera.daemon->take_commands(), Lines{"reboot"});
            Camera::post(Camera::request(0, {99}));  // which it still takes
        }
        const Outcome outcome = camera.finish();
        EXPECT_TRUE(outcome.ended);
        const std::string number = std::to_string(c.signo);
        Lines expected = {";sig_quit;#;0d737000;3;sig_handler, arg = " + number};
        if (c.saysExit) {
            expected.push_back(";sig_quit;#;0d737000;3;program exit:" + number);
            expected.insert(expected.end(), 4, "");
        }
        expected.push_back(
            "\033[31mDBUS: ERROR: [system_call:announce_reboot:#] reboot is caused by "
            "pid=" +
            pid + " (corvo_upgrade)\033[0m");
        expected.emplace_back(
            "\033[32mDBUS: INFO: [system_call:system_call:#] "
            "SystemCall_Dbus_Call_Method systemcall ret:0 cmd:reboot\033[0m");
        EXPECT_EQ(while_waiting(outcome.lines), expected);
        EXPECT_EQ(camera.daemon->take_commands().back(), "reboot");
    }
}

TEST_F(Signal, CrashThatHoldsTheTransportsLockStillAsksForTheReboot) {
    const auto start = std::chrono::steady_clock::now();
    // Record 3 is a command in the middle of the kill passes.
    const Outcome outcome = camera.run(Camera::request(0, {3}), {{"send", 3, CRASH}});
    EXPECT_TRUE(outcome.ended);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(20));
    EXPECT_NE(outcome.text.find("sig_handler, arg = 6"), std::string::npos);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const Lines commands = camera.daemon->take_commands();
    ASSERT_EQ(commands.size(), 3U);
    EXPECT_EQ(commands[2], "reboot");
}

TEST_F(Signal, WithoutADaemonTheServiceStillWaitsForItsRequest) {
    camera.daemon.reset();
    camera.start();
    camera.wait_for("ota wait for ota message");
    camera.daemon = std::make_unique<FakeDaemon>();
    camera.post(Camera::request(0, {99}));
    const Outcome outcome = camera.finish();
    EXPECT_TRUE(outcome.ended);
    EXPECT_NE(outcome.text.find("Please run system_call_daemon first"), std::string::npos);
    EXPECT_NE(outcome.text.find("please run system_call_init first"), std::string::npos);
    EXPECT_FALSE(Camera::queue_exists());
}

}  // namespace
