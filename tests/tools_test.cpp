// The companion programs: the real system-call daemon with the service's client, and the commands
// of otactl.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/msg.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include "base/ignore_result.h"
#include "base/unique_fd.h"
#include "dbus/system_call.h"
#include "files.h"
#include "log/log_front_end.h"
#include "log/log_producer.h"
#include "ota/ota_message.h"
#include "otactl/progress.h"
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
            dup2(STDIN_FILENO, 77);
            execl(SYSTEM_CALL_DAEMON, "system_call_daemon", "--system-limit", limitMs,
                  "--popen-limit", popenLimitMs, nullptr);
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
    EXPECT_EQ(128 + SIGTERM, system_call("kill -15 $$", 0));
    EXPECT_EQ(std::string(1024, 'x'), output_of("head -c 300000 /dev/zero | tr '\\0' x"));
    EXPECT_EQ(std::string(1018, 'y') + "\n", output_of("echo " + std::string(1018, 'y')));
    EXPECT_EQ("", output_of("ls -l /proc/self/fd | grep -E 'socket| 77 '"));
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
    corvo::UniqueFd waiting[3];  // more connections than the listener's backlog
    for (corvo::UniqueFd& fd : waiting) {
        fd.reset(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0));
        corvo::ignore_result(connect(fd.get(), reinterpret_cast<const sockaddr*>(&DAEMON_ADDRESS),
                                     sizeof(DAEMON_ADDRESS)));
    }
    EXPECT_TRUE(run("timeout 5 " SYSTEM_CALL_DAEMON).starts_with("1 ")) << "busy, but there";
    busy.reset();
    start("60000");
    EXPECT_EQ(0, system_call("sleep 1.3", 0)) << "the limit of the other method";
    EXPECT_TRUE(run("timeout 20 " SYSTEM_CALL_DAEMON).starts_with("1 ")) << "takes the socket away";
    EXPECT_EQ(0, access("/tmp/dbus-system.call.daemon", F_OK));
    EXPECT_EQ(DBUS_CALL_FAILED, system_call("sleep 55", 100));
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
    std::string posted(int flags) const { return posted_request(queue_, flags); }

    int queue_ = msgget(ftok(OTA_MSG_QUEUE_PATH, OTA_MSG_QUEUE_PROJECT), IPC_CREAT | 0666);
};

TEST_F(Otactl, SessionAtTheShell) {
    expect_session("otactl.txt", "cd /run; ", [this] { return posted(IPC_NOWAIT); });
}

TEST(HalTool, SessionAtTheShell) {
    expect_session("hal_tool.txt", "cd /dev/block/by-name; ");
}

TEST(HalTool, WritesToEitherStorageEndAsTheyDeserve) {
    const auto nothing = [] { return ""; };
    expect_session("flash.txt", "flash ", nothing, Rows::ARE_INDEPENDENT);
    expect_session("upgrade_arguments.txt", "upgrade_arguments ", nothing, Rows::ARE_INDEPENDENT);
}

TEST(HalTool, ErasesABlockDevice) {
    if (run("losetup --find")[0] != '0') {
        GTEST_SKIP() << "no loop devices here: the request to zero a block device is not tested";
    }
    expect_session("block_device.txt", "cd /dev/block/by-name; ");
}

// With Debian's dash, and with busybox as on a camera.
TEST(Slots, NoNameLeadsToACopyOfTheRunningSlot) {
    if (run("mknod /run/node b 0 99") != "0") {
        GTEST_SKIP() << "no device nodes here";
    }
    for (const std::string shell : {"sh", "busybox ash"}) {
        const testing::ScopedTrace trace(__FILE__, __LINE__, shell);
        expect_session(
            "slots.txt", "shell=\"" + shell + "\"; conf=/run/slots/conf; slots ", [] { return ""; },
            Rows::ARE_INDEPENDENT);
    }
}

TEST_F(Otactl, ProgressEndsAtAHundredPercent) {
    static constexpr OtaPackageEntry KERNEL = {3, "kernel", "kernel.bin", OTA_FLASH_TYPE_EMMC, 0};
    Progress progress = start_progress({&KERNEL}, true);
    for (const char* line :
         {"UPGRADE_LUMO_RECV_MSG", "ota kill process end", "partition: kernel read verify success",
          "UPGRADE_LUMO_UGRADE_SUCCESS", "Restart the system"}) {
        EXPECT_LT(progress_percent(progress), 100);
        advance_progress(progress, line);
    }
    EXPECT_EQ(progress_percent(progress), 100);
}

TEST_F(Otactl, FollowsToTheVerdict) {
    write_file("/run/images/kernel.bin", "image");
    write_file("/dev/block/by-name/kernel", "old");
    const std::string send = "otactl send files --dir /run/images --follow kernel";
    EXPECT_EQ('2', run(send)[0]) << "nobody publishes";
    EXPECT_EQ("", posted(IPC_NOWAIT));
    ASSERT_EQ(LOG_PRODUCER_OK, Corvo_LogProducerInit(CORVO_LOG_MODULE_MASK));
    auto heard = std::async(std::launch::async, run, "timeout 10 otactl logs --level 4 | head -1");
    while (heard.wait_for(std::chrono::milliseconds(20)) != std::future_status::ready) {
        UPGRADE_LOG("ordinary");
        UPGRADE_EVENT(LOG_EVENT_RECEIVED, "event");
    }
    EXPECT_TRUE(heard.get().ends_with(";event"));
    write_file("/run/images/dtb.bin", "");
    run("otactl send files --dir /run/images dtb");  // a request of another sender
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ("2 / otactl: the service did not receive the request, which is withdrawn",
              run("CORVO_CLOCK_RATE=10 timeout 15 otactl_with_faults" + send.substr(6)));
    EXPECT_EQ(" / type 0 /run/images/, 20: 0 at 0", posted(IPC_NOWAIT));
    // otactl waits for 15 s; in this test its clock is ten times as fast.
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(1500));
    EXPECT_EQ("", posted(IPC_NOWAIT));
    for (const auto& [verdict, status] : {std::pair("UPGRADE_LUMO_UGRADE_SUCCESS", '0'),
                                          {"UPGRADE_LUMO_UGRADE_FAILED", '1'},
                                          {"moduleType 255 no find", '1'}}) {
        auto follower = std::async(std::launch::async, run, send);
        ASSERT_NE("", posted(0));
        for (const char* line :
             {"UPGRADE_LUMO_RECV_MSG", "upgrade /run/images/kernel.bin start, moudle type:3",
              verdict, "Restart the system"}) {
            UPGRADE_LOG("%s", line);
        }
        const std::string followed = follower.get();
        EXPECT_EQ(status, followed[0]) << followed;
        EXPECT_TRUE(contains(followed, "  kernel: writing / ")) << followed;
    }
    for (const std::string& command :
         {send, std::string("cd /run/images; echo kernel 0 5 > m; otactl send combined --follow "
                            "--package kernel.bin --manifest m")}) {
        auto follower = std::async(std::launch::async, run, command);
        posted(0);
        UPGRADE_LOG("ota kernel failed");
        UPGRADE_LOG("Restart the system");
        EXPECT_TRUE(contains(follower.get(), "kernel: failed (image 5 bytes, partition 3 bytes)"));
    }
    auto follower = std::async(std::launch::async, run, "timeout 20 " + send);
    posted(0);
    UPGRADE_LOG("UPGRADE_LUMO_RECV_MSG");
    UPGRADE_LOG("UPGRADE_LUMO_UGRADE_SUCCESS");
    Corvo_LogProducerUnInit();
    const auto died = std::chrono::steady_clock::now();
    EXPECT_EQ('2', follower.get()[0]) << "the service died";
    const auto patience = std::chrono::steady_clock::now() - died;
    EXPECT_TRUE(patience > std::chrono::seconds(2) && patience < std::chrono::seconds(10));
    msgctl(queue_, IPC_RMID, nullptr);
    EXPECT_EQ('2', run(send)[0]) << "no queue";
}

}  // namespace
