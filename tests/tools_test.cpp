// The companion programs: the real system-call daemon with the service's client, and the commands
// of otactl.

#include "dbus/system_call.h"
#include "log/log_front_end.h"
#include "log/log_producer.h"
#include "ota/ota_message.h"
#include "session.h"
#include "simulated_daemon.h"

namespace {

struct SystemCallDaemon : testing::Test {
    void start(const char* limitMs, const char* popenLimitMs = "1000") {
        pid_ = fork();
        if (pid_ == 0) {
            const rlimit none = {};
            setrlimit(RLIMIT_CORE, &none);
            // A daemon may inherit these settings from its parent.
            signal(SIGCHLD, SIG_IGN);
            umask(0);
            dup2(open("/dev/zero", O_RDONLY), STDIN_FILENO);
            dup2(STDIN_FILENO, 77);
            close(STDOUT_FILENO);
            // The arguments end before the limits if they are not to be set.
            execl(SYSTEM_CALL_DAEMON, "system_call_daemon",
                  limitMs == nullptr ? nullptr : "--system-limit", limitMs, "--popen-limit",
                  popenLimitMs, nullptr);
            _exit(127);
        }
        ASSERT_EQ(DBUS_OK, system_call_init());
    }
    void TearDown() override {
        int status = -1;
        system_call_exit();
        const auto told = std::chrono::steady_clock::now();
        kill(pid_, SIGTERM);
        waitpid(pid_, &status, 0);
        EXPECT_LT(std::chrono::steady_clock::now() - told, std::chrono::seconds(10));
        EXPECT_EQ(0, status);
        EXPECT_NE(0, access("/tmp/dbus-system.call.daemon", F_OK));
    }
    static std::string output_of(const std::string& command) {
        char output[SYSTEM_CALL_DBUS_DATA_SIZE] = {};
        const int32_t length = popen_call(command.c_str(), output, sizeof(output), 0);
        return std::string(output, static_cast<size_t>(std::max(length, 0)));
    }

    pid_t pid_ = 0;
};

TEST_F(SystemCallDaemon, RepliesWithExitStatusAndOutputAndCommandsInheritNothing) {
    start("20000", "20000");
    EXPECT_EQ(0, kill(pid_, SIGPIPE));
    EXPECT_EQ(0, system_call("true", 0));
    EXPECT_EQ(7, system_call("exit 7", 0));
    EXPECT_EQ(0, system_call("echo printed", 0));
    EXPECT_EQ(128 + SIGTERM, system_call("kill -15 $$", 0));
    EXPECT_EQ(std::string(1024, 'x'), output_of("head -c 300000 /dev/zero | tr '\\0' x"));
    EXPECT_EQ(std::string(1018, 'y') + "\n", output_of("echo " + std::string(1018, 'y')));
    EXPECT_EQ("", output_of("head -c 1; ls -l /proc/self/fd | grep -E 'socket| 77 '"));
    EXPECT_EQ("0022\n", output_of("umask"));
    EXPECT_EQ("SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n",
              output_of("grep -E 'SigBlk|SigIgn' /proc/self/status"));
}

TEST_F(SystemCallDaemon, NeitherAHangingCommandNorItsChildrenHoldItUp) {
    start("1000");
    EXPECT_EQ(128 + SIGKILL, system_call("trap '' TERM; sleep 50 | sleep 51", 0));
    EXPECT_EQ("begun\n", output_of("echo begun; sleep 52"));
    EXPECT_EQ(1024U, output_of("yes").size());
    EXPECT_EQ("1", run("killall -q -0 sleep")) << "a killed command left a process behind";
    // A background process of a command is neither awaited nor killed.
    const std::string pid = output_of("sleep 53 & echo $!");
    EXPECT_EQ(0, system_call(("kill " + pid).c_str(), 0));
}

TEST_F(SystemCallDaemon, IsAloneAndEndsDespiteAHangingCommand) {
    corvo::UniqueFd busy = listening_as_daemon();
    const std::vector<corvo::UniqueFd> waiting = fill_backlog();
    EXPECT_TRUE(run("timeout 5 " SYSTEM_CALL_DAEMON).starts_with("1 ")) << "busy, but there";
    busy.reset();
    start("60000");
    EXPECT_EQ(0, system_call("sleep 1.3", 0)) << "the limit of the other method";
    EXPECT_TRUE(run("timeout 20 " SYSTEM_CALL_DAEMON).starts_with("1 ")) << "takes the socket away";
    EXPECT_EQ(0, access("/tmp/dbus-system.call.daemon", F_OK));
    EXPECT_EQ(DBUS_CALL_FAILED, system_call("sleep 55", 100));
}

TEST_F(SystemCallDaemon, LetsARunningCommandEndWhenItIsStopped) {
    start("60000");
    const std::future<int32_t> call = std::async(std::launch::async, [] {
        return system_call(": > /tmp/begun; sleep 0.5; : > /tmp/ended", 3000);
    });
    ASSERT_TRUE(eventually(5000, [] { return access("/tmp/begun", F_OK) == 0; }));
    EXPECT_EQ(0, kill(pid_, SIGTERM));
    EXPECT_TRUE(eventually(5000, [] { return access("/tmp/ended", F_OK) == 0; }));
}

TEST_F(SystemCallDaemon, LimitsThatAreNotSetAreLongEnough) {
    start(nullptr);
    EXPECT_EQ(0, system_call("true", 0));
    std::future<int32_t> slow =
        std::async(std::launch::async, [] { return system_call("sleep 12", 20000); });
    EXPECT_EQ("begun\n", output_of("echo begun; sleep 20"));
    EXPECT_EQ(0, slow.get());
}

bool listens(pid_t daemon) {
    const corvo::UniqueFd probe(socket(AF_UNIX, SOCK_STREAM, 0));
    const auto* const address = reinterpret_cast<const sockaddr*>(&DAEMON_ADDRESS);
    ucred listener = {};
    socklen_t size = sizeof(listener);
    return connect(probe.get(), address, sizeof(DAEMON_ADDRESS)) == 0 &&
           getsockopt(probe.get(), SOL_SOCKET, SO_PEERCRED, &listener, &size) == 0 &&
           listener.pid == daemon;
}

TEST_F(SystemCallDaemon, StartsWhenOnlyTheSocketsOfADeadOneAreStillOpen) {
    corvo::UniqueFd dead = listening_as_daemon();
    start("60000");
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    dead.reset();
    EXPECT_EQ(7, system_call("exit 7", 20000));
}

TEST_F(SystemCallDaemon, KilledAndRestartedAtOnceItServesTheNextCall) {
    start("60000");
    std::atomic<bool> goesOn = true;
    std::thread others([&goesOn] {
        while (goesOn) {
            system_call("true", 50);  // may be lost when the daemon is killed
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    for (int deaths = 0; deaths < 100; ++deaths) {
        constexpr int ENDS[] = {SIGKILL, SIGABRT, SIGSEGV};
        kill(pid_, ENDS[deaths % 3]);
        waitpid(pid_, nullptr, 0);
        start("60000");
        EXPECT_TRUE(eventually(20000, [this] { return listens(pid_); }));
        EXPECT_EQ(7, system_call("exit 7", 20000)) << "after " << deaths;
    }
    goesOn = false;
    others.join();
}

// The service's queue without the service; removes the queue at the end.
struct Otactl : testing::Test {
    void TearDown() override { msgctl(queue_, IPC_RMID, nullptr); }

    int queue_ = msgget(ftok(OTA_MSG_QUEUE_PATH, OTA_MSG_QUEUE_PROJECT), IPC_CREAT | 0666);
};

TEST_F(Otactl, SessionAtTheShell) {
    expect_session("otactl.txt", "cd /run; ", Rows::BUILD_ON_EACH_OTHER, queue_);
}

TEST(HalTool, WritesToEitherStorageEndAsTheyDeserve) {
    expect_session("hal_tool.txt", "cd /dev/block/by-name; ");
    expect_session("flash.txt", "flash ", Rows::ARE_INDEPENDENT);
    expect_session("upgrade_arguments.txt", "upgrade_arguments ", Rows::ARE_INDEPENDENT);
}

TEST(HalTool, ErasesABlockDevice) {
    expect_session("block_device.txt", "cd /dev/block/by-name; ");
}

// With Debian's dash, and with busybox as on a camera.
TEST(Slots, NoNameLeadsToACopyOfTheRunningSlot) {
    for (const std::string shell : {"sh", "busybox ash"}) {
        const testing::ScopedTrace trace(__FILE__, __LINE__, shell);
        expect_session("slots.txt", "shell=\"" + shell + "\"; conf=/run/slots/conf; slots ",
                       Rows::ARE_INDEPENDENT);
    }
}

// The stand-in of a boot loader, on which simulated cameras and the emulated board rely.
TEST(BootLoader, CountsStartsOfATrialAndFallsBack) {
    expect_session("boot_loader.txt", "shell=\"busybox ash\"; boots ", Rows::ARE_INDEPENDENT);
}

// The test publishes the log lines of the service, see cases/follow.txt.
TEST_F(Otactl, FollowsToTheVerdict) {
    using std::chrono::steady_clock;
    std::future<std::string> started;
    steady_clock::time_point begin;
    const auto running = [&started] {
        return started.wait_for(std::chrono::milliseconds(20)) != std::future_status::ready;
    };
    const std::map<std::string, Step> steps = {
        {"open", [](Text, Text) { return Corvo_LogProducerInit(CORVO_LOG_MODULE_MASK), ""; }},
        {"close", [](Text, Text) { return Corvo_LogProducerUnInit(), ""; }},
        {"start",
         [&](Text first, Text rest) {
             started = std::async(std::launch::async, run, first + " " + rest);
             return "";
         }},
        {"begin", [&](Text, Text) { return begin = steady_clock::now(), ""; }},
        {"publish",
         [](Text first, Text rest) {
             UPGRADE_LOG_AS("test", "%s %s", first.c_str(), rest.c_str());
             return "";
         }},
        {"floods",  // until the command has ended
         [&](Text, Text) {
             while (running()) {
                 UPGRADE_LOG_AS("test", "ordinary");
                 UPGRADE_EVENT_AS("test", LOG_EVENT_RECEIVED, "event");
             }
             return "";
         }},
        {"takes",
         [&](Text, Text) {
             std::string request;
             eventually(20000, [&] { return !(request = posted_request(queue_)).empty(); });
             return request.empty() ? "nothing" : request.substr(3);
         }},
        {"posted", [&](Text, Text) { return "posted" + posted_request(queue_); }},
        {"unqueue", [&](Text, Text) { return msgctl(queue_, IPC_RMID, nullptr), ""; }},
        {"ends",
         [&](Text, Text) {
             constexpr char STAMPS[] = R"((\d\d:){2}\S*|\d{10}\.\d{3};[^;]*;\d+)";
             return replaced(replaced(started.get(), STAMPS, "TIME"), "[\r\033]", "^");
         }},
        {"took",  // so many milliseconds since `begin`
         [&](Text least, Text most) {
             const auto took = steady_clock::now() - begin;
             EXPECT_GE(took, std::chrono::milliseconds(std::stoi(least)));
             EXPECT_LE(took, std::chrono::milliseconds(std::stoi(most)));
             return "";
         }}};
    expect_cases("follow.txt",
                 [&steps](std::istream& row) { return do_steps(rest_of(row), steps); });
    Corvo_LogProducerUnInit();
}

}  // namespace
