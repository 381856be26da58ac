// The real program when it receives a signal to stop, and when it crashes.

#include "files.h"
#include "simulated_camera.h"

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
        // Wait until the locks for the line are released: a crash with a lock held is the next
        // test.
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        // The reader thread blocks SIGHUP to SIGTERM; only the signals of crashes may be unblocked.
        const std::string search = "grep -A 60 '^Name:.*DbusProcess' /proc/" + pid +
                                   "/task/*/status | grep -q 'SigBlk:.*fa17$'";
        EXPECT_EQ(system(search.c_str()), 0);
        EXPECT_EQ(kill(camera.pid(), SIGPIPE), 0);
        EXPECT_EQ(kill(camera.pid(), signo), 0);
        camera.wait_for("ret:0 cmd:reboot");
        if (word == "goes-on") {
            Camera::post(Camera::request(0, {255}));
        }
        const Outcome outcome = camera.finish();
        EXPECT_TRUE(outcome.ended);
        EXPECT_EQ(Camera::take_commands().back(), "reboot");
        std::string said;
        for (const std::string& line : outcome.lines) {
            if (contains(line, "UPGRADE_LUMO_RECV_MSG")) {
                break;  // the rest belongs to the request
            }
            said = contains(line, "ota wait") ? std::string() : said.append(" / ").append(line);
        }
        said = replaced(said, "pid=" + pid, "PID");
        return (Camera::queue() >= 0 ? "ended" : "took its request") +
               replaced(said, "\033.[0-9]*m", "");
    });
}

TEST_F(Signal, CrashThatHoldsTheTransportsLockStillAsksForTheReboot) {
    const auto start = std::chrono::steady_clock::now();
    // Record 3 is a command while the applications are stopped.
    const Outcome outcome = camera.run(Camera::request(0, {3}), {{"send", 3, CRASH}});
    EXPECT_TRUE(outcome.ended);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(60));
    EXPECT_TRUE(contains(outcome.text, "sig_handler, arg = 6"));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const std::vector<std::string> commands = Camera::take_commands();
    ASSERT_EQ(commands.size(), 3U);
    EXPECT_EQ(commands[2], "reboot");
}

// Each thread overflows its stack once. The calls are those of the signal thread, the transport's
// reader, the LED's worker and main.
TEST_F(Signal, CrashesOfEveryThreadAskForTheReboot) {
    for (const Fault& fault : {Fault{"send", 1, OVERFLOW}, Fault{"read", 2, OVERFLOW},
                               Fault{"select", 1, OVERFLOW}, Fault{"fstat", 1, OVERFLOW}}) {
        SCOPED_TRACE(fault.call);
        write_file(Camera::PACKAGE_DIR + "kernel.bin", "image");
        Camera::take_commands();
        camera.start({fault, {"pthread_cond_timedwait", -1, SHORT, 10}});
        camera.wait_for("ota wait for ota message");
        if (strcmp(fault.call, "send") == 0) {
            EXPECT_EQ(kill(camera.pid(), SIGTERM), 0);
        } else {
            Camera::post(Camera::request(0, {3}));
        }
        const auto crash = std::chrono::steady_clock::now();
        EXPECT_TRUE(camera.finish().ended);
        EXPECT_TRUE(Camera::asked("reboot", 5000));
        EXPECT_LT(std::chrono::steady_clock::now() - crash, std::chrono::seconds(15));
    }
}

// Almost 4 s without a daemon, then a daemon that answers just before the time-out: the reboot must
// not be requested again. In real time: a tenth of it leaves a sanitizer build too little.
TEST_F(Signal, CrashLeavesTheOrdinaryRoadItsTime) {
    camera.start({}, true);
    camera.wait_for("ota wait for ota message");
    camera.daemon.reset();
    EXPECT_EQ(kill(camera.pid(), SIGABRT), 0);
    std::this_thread::sleep_for(std::chrono::seconds(4));
    camera.daemon = Camera::fake_daemon(9500);
    EXPECT_TRUE(contains(camera.finish().text, "ret:0 cmd:reboot"));
    EXPECT_EQ(Camera::take_commands(), std::vector<std::string>{"reboot"});
}

TEST_F(Signal, UntilTheHandlingIsInstalledOrWithoutItsThreadTheDefaultHolds) {
    camera.start({{"pthread_create", 2, EAGAIN}});  // the first is the transport's reader
    camera.wait_for("signal thread not started");
    const std::string status = "/proc/" + std::to_string(camera.pid()) + "/status";
    EXPECT_TRUE(eventually(5000, [&status] {  // the C library blocks all signals for a moment
        return contains(read_file(status), "SigBlk:\t0000000000000000\n");
    }));
    EXPECT_EQ(kill(camera.pid(), SIGTERM), 0);
    EXPECT_FALSE(camera.finish().ended);
    camera.daemon.reset();
    camera.start({}, true);
    camera.wait_for("ota evn_init start");
    EXPECT_EQ(kill(camera.pid(), SIGTERM), 0);
    EXPECT_FALSE(contains(camera.finish().text, "sig_handler"));
}

TEST_F(Signal, WithoutADaemonTheServiceStillWaitsForItsRequest) {
    camera.daemon.reset();
    camera.start();
    camera.wait_for("ota wait for ota message");
    camera.daemon = Camera::fake_daemon();
    camera.post(Camera::request(0, {255}));
    const Outcome outcome = camera.finish();
    EXPECT_TRUE(outcome.ended);
    EXPECT_TRUE(contains(outcome.text, "Please run system_call_daemon first"));
    EXPECT_TRUE(contains(outcome.text, "please run system_call_init first"));
    EXPECT_TRUE(eventually(
        5000, [] { return Camera::take_commands() == std::vector<std::string>{"reboot"}; }));
    EXPECT_LT(Camera::queue(), 0);
}

}  // namespace
