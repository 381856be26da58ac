// Neighbours that misbehave around the real program while it carries out an upgrade.
#include <gtest/gtest.h>
#include <nanomsg/nn.h>
#include <nanomsg/pubsub.h>
#include <sys/ipc.h>
#include <sys/msg.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <thread>

#include "camera.h"
#include "files.h"
#include "ota/ota_data.h"

namespace {

constexpr uint32_t KERNEL = 3;
constexpr char LOG_SOCKET[] = "/tmp/corvo_log_pub_ipc010";

class Hostile : public testing::Test {
  protected:
    void expect_success(const Outcome& outcome) {
        EXPECT_TRUE(outcome.ended);
        EXPECT_TRUE(Camera::partition("kernel").compare(0, image.size(), image) == 0);
        EXPECT_EQ(read_file(OTA_DATA_PATH)[OTA_DATA_KEY_RESULT], OTA_RESULT_SUCCEEDED);
        EXPECT_EQ(camera.daemon->take_commands().back(), "reboot");
    }
    void SetUp() override { camera.put_image("kernel.bin", image); }

    const std::string image = pattern_bytes(60000, 5);
    Camera camera;
};

TEST_F(Hostile, FloodedQueueDelaysNothing) {
    camera.start();
    Camera::post(Camera::request(0, {KERNEL}));
    camera.wait_for("UPGRADE_LUMO_RECV_MSG");
    std::thread flood([] {
        OtaQueueMessage junk = {.mtype = 1, .text = {}};
        const int id = msgget(ftok(OTA_MSG_QUEUE_PATH, OTA_MSG_QUEUE_PROJECT), 0);
        while (msgsnd(id, &junk, sizeof(junk.text), 0) == 0) {  // blocks when the queue is full
        }
    });
    const Outcome outcome = camera.finish();
    flood.join();  // the queue's removal ends it
    expect_success(outcome);
    EXPECT_FALSE(Camera::queue_exists());
}

TEST_F(Hostile, MessageTooLongForARequestIsNotTaken) {
    camera.start();
    camera.wait_for("ota wait for ota message");
    struct {
        long mtype = 1;
        char text[521] = {};
    } tooLong;
    const int id = msgget(ftok(OTA_MSG_QUEUE_PATH, OTA_MSG_QUEUE_PROJECT), 0);
    ASSERT_EQ(msgsnd(id, &tooLong, sizeof(tooLong.text), 0), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    ASSERT_EQ(msgrcv(id, &tooLong, sizeof(tooLong.text), 0, 0), 521);
    Camera::post(Camera::request(0, {KERNEL}));
    expect_success(camera.finish());
}

TEST_F(Hostile, SubscribersThatComeGoAndNeverReadHoldNothingUp) {
    camera.start();
    camera.wait_for("ota wait for ota message");
    const auto subscriber = [] {
        const int socket = nn_socket(AF_SP, NN_SUB);
        nn_setsockopt(socket, NN_SUB, NN_SUB_SUBSCRIBE, "", 0);
        nn_connect(socket, ("ipc://" + std::string(LOG_SOCKET)).c_str());
        return socket;
    };
    const int deaf = subscriber();
    std::thread crowd([&subscriber] {
        for (int i = 0; i < 200; ++i) {
            nn_close(subscriber());
        }
    });
    Camera::post(Camera::request(0, {KERNEL}));
    const Outcome outcome = camera.finish();
    crowd.join();
    nn_close(deaf);
    expect_success(outcome);
}

// What an earlier run or another process left under the names that the service uses in /tmp.
TEST_F(Hostile, StaleAndPlantedNamesCostThePublicationAtMost) {
    struct Case {
        const char* what;
        void (*plant)();
        bool published;
    };
    write_file("/tmp/victim", "precious");
    for (const Case& c :
         {Case{"a stale socket",
               [] {
                   const corvo::UniqueFd fd(socket(AF_UNIX, SOCK_STREAM, 0));
                   sockaddr_un address = {};
                   address.sun_family = AF_UNIX;
                   snprintf(address.sun_path, sizeof(address.sun_path), "%s", LOG_SOCKET);
                   ASSERT_EQ(bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)),
                             0);
               },
               true},
          Case{"a directory", [] { ASSERT_EQ(mkdir(LOG_SOCKET, 0755), 0); }, false},
          Case{"a link to a file", [] { ASSERT_EQ(symlink("/tmp/victim", LOG_SOCKET), 0); }, false},
          Case{"a link to nothing", [] { ASSERT_EQ(symlink("/tmp/gone", LOG_SOCKET), 0); },
               false}}) {
        SCOPED_TRACE(c.what);
        remove(LOG_SOCKET);
        c.plant();
        camera.put_image("kernel.bin", image);
        const Outcome outcome = camera.run(Camera::request(0, {KERNEL}));
        EXPECT_EQ(outcome.text.find("KT_mmcBindUrl error") == std::string::npos, c.published);
        expect_success(outcome);
        EXPECT_EQ(read_file("/tmp/victim"), "precious");
        EXPECT_FALSE(Camera::has("/tmp/gone"));
        remove(OTA_DATA_PATH);
    }
    remove(LOG_SOCKET);
    remove("/tmp/victim");
}

}  // namespace
