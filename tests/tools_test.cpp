// The companion programs: the manifest's format, the real system-call daemon with the service's own
// client, and otactl as it is typed.
#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/msg.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <future>
#include <string>
#include <vector>

#include "dbus/system_call.h"
#include "files.h"
#include "log/log_front_end.h"
#include "log/log_producer.h"
#include "otactl/manifest.h"

namespace {

using std::chrono::seconds;
using std::chrono::steady_clock;

// A shell command's exit status, and its standard output and error as one text.
struct Ran {
    int status;
    std::string output;
};

Ran run(const std::string& command) {
    FILE* stream = popen((command + " 2>&1").c_str(), "re");
    Ran ran = {};
    char buffer[4096];
    for (size_t n = 0; (n = fread(buffer, 1, sizeof(buffer), stream)) > 0;) {
        ran.output.append(buffer, n);
    }
    ran.status = WEXITSTATUS(pclose(stream));
    return ran;
}

Ran otactl(const std::string& arguments) {
    return run(OTACTL " " + arguments);
}

TEST(Manifest, ReadsBackWhatItWritesAndNamesTheLineThatIsWrong) {
    const std::string text = "# module offset size crc32\nkernel 0 4096 00c0ffee\nrootfs 4096 1\n";
    Manifest manifest;
    std::string error;
    for (const std::string& good : {text, std::string("\n  3\t0  4096  00C0FFEE\n4 4096 1")}) {
        ASSERT_TRUE(parse_manifest(good, manifest, error)) << error;
        EXPECT_EQ(text, format_manifest(manifest));
    }
    for (const std::string fault :
         {"rootfs 1: expected NAME", "nothing 1 2: unknown module",
          "kernel 1 2: the module is named", "rootfs -1 2: the offset",
          "rootfs 18446744073709551616 2: the offset", "rootfs 1 2k: the size",
          "rootfs 1 0: the module is empty", "rootfs 2147483647 1: the module ends",
          "rootfs 18446744073709551615 2: the module ends", "rootfs 1 2 1234567g: the checksum",
          "rootfs 1 2\r: the line holds"}) {
        const size_t colon = fault.find(':');
        EXPECT_FALSE(parse_manifest("kernel 0 1\n" + fault.substr(0, colon), manifest, error));
        EXPECT_TRUE(error.starts_with("line 2" + fault.substr(colon))) << error;
    }
    EXPECT_FALSE(parse_manifest("# nothing\n", manifest, error));
    EXPECT_FALSE(parse_manifest(std::string(1 << 20, '\n') + text, manifest, error));
}

class SystemCallDaemon : public testing::Test {
  protected:
    void start(const char* limitMs) {
        pid_ = fork();
        if (pid_ == 0) {
            execl(SYSTEM_CALL_DAEMON, "system_call_daemon", "--system-limit", limitMs,
                  "--popen-limit", limitMs, nullptr);
            _exit(127);
        }
        ASSERT_EQ(DBUS_OK, system_call_init());
    }
    void TearDown() override {
        int status = -1;
        system_call_exit();
        kill(pid_, SIGTERM);
        waitpid(pid_, &status, 0);
        EXPECT_EQ(0, status);
        EXPECT_NE(0, access("/tmp/dbus-system.call.daemon", F_OK));
        EXPECT_LT(steady_clock::now() - begun_, seconds(20));
    }
    static std::string output_of(const std::string& command) {
        char output[SYSTEM_CALL_DBUS_DATA_SIZE] = {};
        const int32_t length = popen_call(command.c_str(), output, sizeof(output), 0);
        return std::string(output, static_cast<size_t>(std::max(length, 0)));
    }

    pid_t pid_ = 0;
    steady_clock::time_point begun_ = steady_clock::now();
};

TEST_F(SystemCallDaemon, RepliesWithExitStatusAndOutput) {
    start("9000");
    EXPECT_EQ(0, system_call("true", 0));
    EXPECT_EQ(7, system_call("exit 7", 0));
    EXPECT_EQ(128 + SIGTERM, system_call("kill -15 $$", 0));
    EXPECT_EQ("ab\n", output_of("echo ab"));
    EXPECT_EQ(std::string(1024, 'x'), output_of("head -c 300000 /dev/zero | tr '\\0' x"));
    EXPECT_EQ(std::string(1018, 'y') + "\n", output_of("echo " + std::string(1018, 'y')))
        << "the longest command there is";
}

TEST_F(SystemCallDaemon, NeitherAHangingCommandNorItsChildrenHoldItUp) {
    start("1000");
    EXPECT_EQ(128 + SIGKILL, system_call("trap '' TERM; sleep 50 | sleep 51", 0));
    EXPECT_EQ("begun\n", output_of("echo begun; sleep 52"));
    EXPECT_EQ(1024U, output_of("yes").size());
    EXPECT_NE(0, run("killall -0 sleep").status) << "a killed command left a process behind";
    // What a command leaves in the background is neither waited for nor ended.
    const std::string pid = output_of("sleep 53 & echo $!");
    EXPECT_EQ(0, system_call(("kill " + pid).c_str(), 0));
}

TEST_F(SystemCallDaemon, CommandsInheritNothingAndDoNotDelayItsEnd) {
    start("60000");
    EXPECT_EQ("", output_of("ls -l /proc/self/fd | grep socket"));
    EXPECT_EQ("SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n",
              output_of("grep -E 'SigBlk|SigIgn' /proc/self/status"));
    EXPECT_EQ(1, run(SYSTEM_CALL_DAEMON).status) << "a second one must not take the socket away";
    EXPECT_EQ(0, access("/tmp/dbus-system.call.daemon", F_OK));
    EXPECT_EQ(DBUS_CALL_FAILED, system_call("sleep 55", 100));
}

// The service's queue and images for a request, and the queue gone afterwards.
class Otactl : public testing::Test {
  protected:
    void SetUp() override {
        queue_ = msgget(ftok(OTA_MSG_QUEUE_PATH, OTA_MSG_QUEUE_PROJECT), IPC_CREAT | 0666);
        write_file("/run/images/kernel.bin", pattern_bytes(5000, 1));
        write_file("/run/images/rootfs.img", pattern_bytes(3000, 2));
        ASSERT_EQ(0, otactl("pack --output /run/images/p --manifest /run/m "
                            "rootfs=/run/images/rootfs.img 3=/run/images/kernel.bin")
                         .status);
    }
    void TearDown() override { msgctl(queue_, IPC_RMID, nullptr); }
    // The request that was posted; of no package type when there is none.
    OtaMessage posted(int flags) const {
        OtaQueueMessage queued = {};
        OtaMessage message = {};
        message.packageType = -1;
        if (msgrcv(queue_, &queued, sizeof(queued.text), 0, flags) == OTA_MSG_TEXT_SIZE) {
            memcpy(&message.packageType, queued.text, sizeof(queued.text));
        }
        return message;
    }

    int queue_ = -1;
};

TEST_F(Otactl, WrongUseIsOneLineAndPostsNothing) {
    write_file("/run/beyond", "kernel 0 8001\n");
    write_file("/run/wrong", "kernel 3000 5000 00000000\n");
    for (const std::string& arguments : lines_of(R"(
send
nonsense
send files --dir /run/images
send files --dir /run/images nothing
send files --dir /run/images kernel 3
send files --dir /run/images dtb
send files --dir /run/aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa kernel
send combined --package /run/no --manifest /run/m
send combined --package /run/images/p --manifest /run/images/p
send combined --package /run/images/p --manifest /run/beyond
send combined --package /run/images/p --manifest /run/wrong
logs --level high
logs --address nowhere
record a b
pack --output /run/a --manifest /run/a kernel=/run/m
pack --output /run/a --manifest /run/b kernel)")) {
        const Ran ran = otactl(arguments);
        EXPECT_EQ(64, ran.status) << arguments;
        EXPECT_TRUE(ran.output.starts_with("otactl: ") && lines_of(ran.output).size() == 1)
            << arguments << "\n"
            << ran.output;
    }
    EXPECT_EQ(-1, posted(IPC_NOWAIT).packageType);
}

TEST_F(Otactl, PostsTheRequest) {
    ASSERT_EQ(0, run("cd /run && " OTACTL " send files --dir images rootfs 3").status);
    OtaMessage message = posted(IPC_NOWAIT);
    EXPECT_EQ(OTA_PACKAGE_TYPE_FILES, +message.packageType);
    EXPECT_STREQ("/run/images/", message.packageDir);
    EXPECT_EQ((std::vector<uint32_t>{2, 4, 3}),
              (std::vector<uint32_t>{static_cast<uint32_t>(message.moduleCount),
                                     message.moduleTypes[0], message.moduleTypes[1]}));

    ASSERT_EQ(0, otactl("send combined --package /run/images/p --manifest /run/m").status);
    message = posted(IPC_NOWAIT);
    EXPECT_EQ(OTA_PACKAGE_TYPE_COMBINED, +message.packageType);
    EXPECT_STREQ("p", message.packageFile);
    EXPECT_EQ((std::vector<uint64_t>{4, 3000, 0, 3, 5000, 3000}),
              (std::vector<uint64_t>{message.moduleTypes[0], message.moduleInfo[0].size,
                                     message.moduleInfo[0].offset, message.moduleTypes[1],
                                     message.moduleInfo[1].size, message.moduleInfo[1].offset}));
}

TEST_F(Otactl, FollowsToTheVerdict) {
    const std::string send = "send files --dir /run/images --follow kernel";
    EXPECT_EQ(2, otactl(send).status) << "nobody publishes";
    EXPECT_EQ(-1, posted(IPC_NOWAIT).packageType);
    ASSERT_EQ(LOG_PRODUCER_OK, Corvo_LogProducerInit(CORVO_LOG_MODULE_MASK));
    for (const auto& [verdict, status] :
         std::vector<std::pair<const char*, int>>{{"UPGRADE_LUMO_UGRADE_SUCCESS", 0},
                                                  {"UPGRADE_LUMO_UGRADE_FAILED", 1},
                                                  {"moduleType 99 no find", 1}}) {
        auto follower = std::async(std::launch::async, otactl, send);
        ASSERT_EQ(OTA_PACKAGE_TYPE_FILES, +posted(0).packageType);
        UPGRADE_LOG("UPGRADE_LUMO_RECV_MSG");
        UPGRADE_LOG("upgrade /run/images/kernel.bin start, moudle type:3, flash type:33");
        UPGRADE_LOG("%s", verdict);
        UPGRADE_LOG("Restart the system");
        const Ran ran = follower.get();
        EXPECT_EQ(status, ran.status) << ran.output;
        EXPECT_NE(std::string::npos, ran.output.find("  kernel: writing\n")) << ran.output;
    }
    auto follower = std::async(std::launch::async, otactl, send);
    posted(0);
    Corvo_LogProducerUnInit();
    EXPECT_EQ(2, follower.get().status) << "the service died";
    msgctl(queue_, IPC_RMID, nullptr);
    EXPECT_EQ(2, otactl(send).status) << "no queue";
}

}  // namespace
