// What the real program does when it is told to stop, and when it crashes.
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>

#include <chrono>
#include <thread>

#include "camera.h"
#include "files.h"

namespace {

using Lines = std::vector<std::string>;

class Signal : public testing::Test {
  protected:
    // The console from the first line behind the last wait for a request.
    static Lines reaction(const Outcome& outcome) {
        Lines lines = outcome.lines;
        for (size_t i = 0; i < lines.size(); ++i) {
            if (lines[i].find("ota wait for ota message") != std::string::npos) {
                lines.erase(lines.begin(), lines.begin() + static_cast<long>(i) + 1);
                return lines;
            }
        }
        return lines;
    }
    Camera camera;
};

TEST_F(Signal, EachIsAnsweredWithARebootAndEndsTheServiceOrNot) {
    struct Case {
        int signo;
        bool saysExit;
        bool ends;
    };
    for (const Case& c :
         {Case{SIGHUP, false, false}, Case{SIGINT, true, false}, Case{SIGTERM, true, false},
          Case{SIGQUIT, true, true}, Case{SIGSEGV, false, true}, Case{SIGABRT, false, true}}) {
        camera.start({}, true);
        const int pid = camera.pid();
        camera.wait_for("ota wait for ota message");
        ASSERT_EQ(kill(pid, SIGPIPE), 0);
        ASSERT_EQ(kill(pid, c.signo), 0);
        if (!c.ends) {
            camera.wait_for("ret:0 cmd:reboot");
            ASSERT_EQ(kill(pid, 0), 0) << "gone after " << strsignal(c.signo);
            ASSERT_EQ(kill(pid, SIGKILL), 0);
        }
        const Outcome outcome = camera.finish();
        EXPECT_EQ(outcome.ended, c.ends) << strsignal(c.signo);
        const std::string number = std::to_string(c.signo);
        Lines expected = {";sig_quit;#;0d737000;3;sig_handler, arg = " + number};
        if (c.saysExit) {
            expected.push_back(";sig_quit;#;0d737000;3;program exit:" + number);
            expected.insert(expected.end(), 4, "");
        }
        expected.push_back(
            "\033[31mDBUS: ERROR: [system_call:announce_reboot:#] reboot is caused by "
            "pid=" +
            std::to_string(pid) + " (corvo_upgrade)\033[0m");
        expected.emplace_back(
            "\033[32mDBUS: INFO: [system_call:system_call:#] "
            "SystemCall_Dbus_Call_Method systemcall ret:0 cmd:reboot\033[0m");
        EXPECT_EQ(reaction(outcome), expected) << strsignal(c.signo);
        EXPECT_EQ(camera.daemon->take_commands(), Lines{"reboot"}) << strsignal(c.signo);
    }
}

TEST_F(Signal, CrashThatHoldsTheTransportsLockStillAsksForTheReboot) {
    const auto start = std::chrono::steady_clock::now();
    // Record 3 is a command in the middle of the kill passes.
    const Outcome outcome = camera.run(Camera::request(0, {3}), {{"CORVO_CRASH", "3"}});
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
