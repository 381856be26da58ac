// Other processes that misbehave while the real program performs an upgrade.

#include "files.h"
#include "ota/ota_data.h"
#include "ota/ota_message.h"
#include "otactl/log_stream.h"
#include "simulated_camera.h"

namespace {

constexpr uint32_t KERNEL = 3;
constexpr char LOG_ADDRESS[] = "ipc:///tmp/corvo_log_pub_ipc010";
constexpr const char* LOG_SOCKET = LOG_ADDRESS + 6;

struct Hostile : testing::Test {
    void SetUp() override {
        write_file(Camera::PACKAGE_DIR + "kernel.bin", image);
        camera.start();
        camera.wait_for("ota wait for ota message");
    }
    // Runs an upgrade, which must succeed beside the other process; returns its output.
    std::string upgrade(const std::function<void()>& neighbour) {
        Camera::post(Camera::request(0, {KERNEL}));
        std::thread thread(neighbour);
        const Outcome outcome = camera.finish();
        thread.join();
        EXPECT_TRUE(outcome.ended);
        EXPECT_TRUE(Camera::partition("kernel").starts_with(image));
        EXPECT_EQ(read_file(OTA_DATA_PATH)[OTA_DATA_KEY_RESULT], OTA_RESULT_SUCCEEDED);
        EXPECT_EQ(Camera::take_commands().back(), "reboot");
        return outcome.text;
    }

    const std::string image = pattern_bytes(60000, 5);
    Camera camera;
};

// The daemon leaves a command unread, so that its end resets the connection. Another daemon starts
// at once.
TEST_F(Hostile, DaemonThatDiesInTheMiddleCostsOneCommand) {
    camera.daemon.reset();
    corvo::UniqueFd listener = listening_as_daemon();
    const std::string printed = upgrade([this, &listener] {
        corvo::UniqueFd dying(accept4(listener.get(), nullptr, nullptr, 0));
        pollfd command = {.fd = dying.get(), .events = POLLIN, .revents = 0};
        EXPECT_EQ(poll(&command, 1, 20000), 1);
        listener.reset();
        camera.daemon = Camera::fake_daemon();
        dying.reset();
    });
    EXPECT_TRUE(contains(printed, "disconnect with server, reconnect, ret:-1 errno:104"));
    EXPECT_TRUE(contains(printed, "ret:-1 cmd:echo "));
    EXPECT_TRUE(contains(printed, "ret:0 cmd:killall -15 corvo_lumo"));
    EXPECT_TRUE(contains(printed, "ret:0 cmd:/etc/init.d/S99checkboot systemB"));
}

TEST_F(Hostile, FloodedQueueDelaysNothing) {
    upgrade([this] {
        camera.wait_for("UPGRADE_LUMO_RECV_MSG");
        const OtaQueueMessage junk = {.mtype = 1, .text = {}};
        // msgsnd() blocks while the queue is full, and fails when the queue is removed.
        while (msgsnd(Camera::queue(), &junk, sizeof(junk.text), 0) == 0) {
        }
    });
    EXPECT_FALSE(Camera::queue() >= 0);
}

TEST_F(Hostile, MessageTooLongForARequestIsNotTaken) {
    struct {
        long mtype = 1;
        char text[OTA_MSG_TEXT_SIZE + 1] = {};
    } tooLong;
    ASSERT_EQ(msgsnd(Camera::queue(), &tooLong, sizeof(tooLong.text), 0), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    ASSERT_EQ(msgrcv(Camera::queue(), &tooLong, sizeof(tooLong.text), 0, 0),
              ssize_t{sizeof(tooLong.text)});
    msqid_ds status = {};
    EXPECT_EQ(msgctl(Camera::queue(), IPC_STAT, &status), 0);
    EXPECT_EQ(status.msg_perm.mode, 0666) << "others post";
    upgrade([] {});
}

TEST_F(Hostile, SubscribersThatComeGoAndNeverReadHoldNothingUp) {
    std::string error;
    LogStream deaf;
    EXPECT_TRUE(deaf.open(LOG_ADDRESS, error)) << error;
    upgrade([&error] {
        for (int i = 0; i < 200; ++i) {
            LogStream hasty;
            EXPECT_TRUE(hasty.open(LOG_ADDRESS, error)) << error;
        }
    });
}

// An earlier run or another process has left something under the name of the service's socket.
TEST_F(Hostile, StaleAndPlantedNamesCostThePublicationAtMost) {
    write_file("/tmp/victim", "precious");
    upgrade([] {});
    const std::function<int()> plants[] = {
        [] { return mknod(LOG_SOCKET, S_IFSOCK | 0600, 0); },  // a stale socket
        [] { return mkdir(LOG_SOCKET, 0755); }, [] { return symlink("/tmp/victim", LOG_SOCKET); },
        [] { return symlink("/tmp/gone", LOG_SOCKET); }};
    for (const auto& plant : plants) {
        remove(LOG_SOCKET);
        remove(OTA_DATA_PATH);
        ASSERT_EQ(plant(), 0);
        SetUp();
        const bool published = !contains(upgrade([] {}), "KT_mmcBindUrl error");
        EXPECT_EQ(published, &plant == plants);
        EXPECT_EQ(read_file("/tmp/victim"), "precious");
        EXPECT_FALSE(std::filesystem::exists("/tmp/gone"));
    }
    remove(LOG_SOCKET);
    remove("/tmp/victim");
}

TEST(Silent, NoFileTakesThePlaceOfAStandardOutput) {
    Camera camera;
    camera.silent = true;
    camera.start();
    EXPECT_TRUE(eventually(15000, [] { return Camera::queue() >= 0; }));
    for (const char* const output : {"/fd/1", "/fd/2"}) {
        EXPECT_EQ(std::filesystem::read_symlink("/proc/" + std::to_string(camera.pid()) + output),
                  "/dev/null");
    }
}

}  // namespace
