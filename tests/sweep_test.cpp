// Whole upgrades, cut or disturbed at every place where they can be. A place is named by its
// number, so that a failure can be run again alone:
//   --gtest_filter='*Files*' with CORVO_ONLY=17 in the environment sweeps place 17 only.
#include <errno.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <fstream>

#include "camera.h"
#include "files.h"
#include "ota/ota_data.h"

namespace {

constexpr uint32_t KERNEL = 3;
constexpr uint32_t ROOTFS = 4;
constexpr int MANY = 100000;

// Under a sanitizer a run takes several times as long: every fourth place, unless CORVO_FULL is
// set.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
const int STRIDE = getenv("CORVO_FULL") == nullptr ? 4 : 1;
#else
constexpr int STRIDE = 1;
#endif

// Other keys hold their number, the last upgrade succeeded.
const std::string OLD_RECORD = std::string("\x70\1\x72\x73\x74\3\x76", 7);
const std::string KERNEL_IMAGE = pattern_bytes(40000, 1);
const std::string ROOTFS_IMAGE = pattern_bytes(16384, 2);
const std::string SUCCESS = "UPGRADE_LUMO_UGRADE_SUCCESS";

enum class Mode { FILES, COMBINED, AUTO_FLASH };

// One upgrade of two modules, with everything around it in its first state.
class World {
  public:
    explicit World(Mode mode)
        : mode_(mode), message_(Camera::request(mode == Mode::COMBINED, {KERNEL, ROOTFS})) {
        write_file(OTA_DATA_PATH, OLD_RECORD);
        if (mode == Mode::AUTO_FLASH) {
            write_file("/tmp/autoflash", "");
        }
        if (mode != Mode::COMBINED) {
            camera.put_image("kernel.bin", KERNEL_IMAGE);
            camera.put_image("rootfs.img", ROOTFS_IMAGE);
            return;
        }
        camera.put_image("all.pkg", KERNEL_IMAGE + ROOTFS_IMAGE);
        message_.moduleInfo[0] = {.size = KERNEL_IMAGE.size(), .offset = 0};
        message_.moduleInfo[1] = {.size = ROOTFS_IMAGE.size(), .offset = KERNEL_IMAGE.size()};
    }
    ~World() { remove("/tmp/autoflash"); }
    World(const World&) = delete;
    World& operator=(const World&) = delete;

    Outcome run(const std::vector<Fault>& faults = {}) { return camera.run(message_, faults); }

    static bool written() {
        return Camera::partition("kernel").starts_with(KERNEL_IMAGE) &&
               Camera::partition("rootfs").starts_with(ROOTFS_IMAGE);
    }
    [[nodiscard]] bool package_is_there() const {
        return mode_ == Mode::COMBINED ? Camera::has("/media/mmcblk0p1/all.pkg")
                                       : Camera::has("/media/mmcblk0p1/kernel.bin") &&
                                             Camera::has("/media/mmcblk0p1/rootfs.img");
    }
    static bool others_untouched() {
        return std::ranges::all_of(OTHERS, [](const char* name) {
            return Camera::partition(name) == std::string(Camera::PARTITION_SIZE, 'o');
        });
    }
    // The daemon may come to it only when the service, in a hurry, is gone.
    static bool asked(const std::string& command, int patienceMs) {
        return eventually(patienceMs, [&command] {
            return std::ranges::any_of(
                FakeDaemon::take_commands(),
                [&command](const std::string& each) { return each.starts_with(command); });
        });
    }

    Camera camera;

  private:
    static constexpr const char* OTHERS[] = {"spl",    "uboot",       "dtb",
                                             "system", "ota_package", "misc"};
    Mode mode_;
    OtaMessage message_;
};

int only() {
    const char* const text = getenv("CORVO_ONLY");
    return text == nullptr ? 0 : static_cast<int>(strtol(text, nullptr, 10));
}

// The record's other keys hold their old values, as far as the file goes: one that is short was cut
// while it was rewritten.
void expect_other_keys_kept(const std::string& record) {
    for (size_t key = 0; key < record.size(); ++key) {
        if (key != OTA_DATA_KEY_RESULT && key != OTA_DATA_KEY_STATE) {
            EXPECT_EQ(record[key], OLD_RECORD[key]) << "key " << key;
        }
    }
}

class PowerCut : public testing::TestWithParam<std::tuple<Mode, Effect>> {};

TEST_P(PowerCut, LeavesWhatTheNextRunNeeds) {
    const auto [mode, effect] = GetParam();
    const char* const call = effect == CUT ? "change" : "write";
    bool complete = false;
    for (int place = std::max(1, only()); !complete && place < MANY; place += STRIDE) {
        SCOPED_TRACE(std::string(call) + " " + std::to_string(place));
        World world(mode);
        const Outcome outcome = world.run({{call, place, effect}});
        complete = outcome.ended || only() != 0;
        const bool resultStored = outcome.text.find("ota hal init end") != std::string::npos;
        const bool verdict = outcome.text.find(SUCCESS) != std::string::npos;
        const std::string record = read_file(OTA_DATA_PATH);
        expect_other_keys_kept(record);
        if (resultStored && !verdict) {
            EXPECT_TRUE(record.size() < 2 || record[OTA_DATA_KEY_RESULT] != OTA_RESULT_SUCCEEDED);
        }
        EXPECT_TRUE(verdict || world.package_is_there());
        EXPECT_TRUE(!World::asked("/etc/init.d/S99checkboot", 0) || World::written());
        EXPECT_TRUE(!verdict || World::written());
        EXPECT_TRUE(World::others_untouched());
        if (!verdict) {
            EXPECT_NE(world.run().text.find(SUCCESS), std::string::npos) << "on the next run";
            EXPECT_TRUE(World::written());
            const std::string after = read_file(OTA_DATA_PATH);
            ASSERT_EQ(after.size(), OTA_DATA_KEY_COUNT);
            EXPECT_EQ(after[OTA_DATA_KEY_RESULT], OTA_RESULT_SUCCEEDED);
            expect_other_keys_kept(after.substr(0, record.size()));
        }
        if (outcome.ended) {
            std::string success = OLD_RECORD;
            success[OTA_DATA_KEY_STATE] =
                mode == Mode::AUTO_FLASH ? OTA_STATE_AUTO_FLASH_SUCCESS : OTA_STATE_SUCCESS;
            EXPECT_EQ(record, success);
            EXPECT_GT(place, 20) << "too few places: is anything counted?";
        }
        ASSERT_FALSE(testing::Test::HasFailure());
    }
}

using Cut = std::tuple<Mode, Effect>;

std::string cut_name(const testing::TestParamInfo<Cut>& cut) {
    static const char* const modes[] = {"Files", "Combined", "AutoFlash"};
    const auto [mode, effect] = cut.param;
    return modes[static_cast<int>(mode)] + std::string(effect == CUT ? "Cut" : "Torn");
}

INSTANTIATE_TEST_SUITE_P(Modes, PowerCut,
                         testing::Values(Cut(Mode::FILES, CUT), Cut(Mode::COMBINED, CUT),
                                         Cut(Mode::AUTO_FLASH, CUT), Cut(Mode::FILES, TEAR)),
                         cut_name);

int reported(int which) {
    int numbers[2] = {0, 0};
    std::ifstream(FAULTS_REPORT) >> numbers[0] >> numbers[1];
    return numbers[which];
}

TEST(Descriptors, DoNotGrowWithTheWork) {
    World world(Mode::FILES);
    world.camera.run(Camera::request(0, {}));
    const int withoutModules = reported(1);
    EXPECT_GT(withoutModules, 3);
    World(Mode::FILES).run();
    EXPECT_EQ(reported(1), withoutModules);
}

constexpr int NOTHING = -100;

struct Disturbance {
    const char* call;
    int error;  // 0: one byte is moved, NOTHING: none
    bool onwards;
    bool silencesDaemon;  // the reboot cannot be asked for while it lasts
    Mode mode;
};

class Disturbed : public testing::TestWithParam<Disturbance> {};

TEST_P(Disturbed, EndsWithTheVerdictItDeserves) {
    const Disturbance d = GetParam();
    World(d.mode).run();
    const int descriptors = reported(1);
    bool struck = true;
    for (int place = std::max(1, only()); struck && place < MANY; place += STRIDE) {
        SCOPED_TRACE(std::string(d.call) + " " + std::to_string(place));
        World world(d.mode);
        const Fault fault = {.call = d.call,
                             .ordinal = d.onwards ? -place : place,
                             .effect = d.error == NOTHING ? SHORT : d.error,
                             .count = d.error == NOTHING ? 0U : 1U};
        const Outcome outcome = world.run({fault, {"pthread_cond_timedwait", -1, SHORT, 0}});
        EXPECT_TRUE(outcome.ended);
        struck = reported(0) >= place && only() == 0;
        const bool verdict = outcome.text.find(SUCCESS) != std::string::npos;
        EXPECT_TRUE(!verdict || World::written()) << "success, but not written";
        EXPECT_TRUE(World::others_untouched());
        EXPECT_LE(reported(1), descriptors) << "descriptors left open";
        const bool client =
            outcome.text.find("please run system_call_init first") == std::string::npos;
        EXPECT_TRUE(!client || d.silencesDaemon || World::asked("reboot", 3000));
        ASSERT_FALSE(testing::Test::HasFailure()) << outcome.text;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Calls, Disturbed,
    testing::Values(Disturbance{"open", EIO, false, false, Mode::FILES},
                    Disturbance{"open", EMFILE, true, false, Mode::FILES},
                    Disturbance{"open", EROFS, true, false, Mode::COMBINED},
                    Disturbance{"fopen", EMFILE, true, false, Mode::FILES},
                    Disturbance{"read", EIO, false, false, Mode::FILES},
                    Disturbance{"read", EINTR, false, false, Mode::FILES},
                    Disturbance{"read", 0, false, false, Mode::COMBINED},
                    Disturbance{"read", NOTHING, false, false, Mode::FILES},
                    Disturbance{"write", EIO, false, false, Mode::FILES},
                    Disturbance{"write", ENOSPC, true, false, Mode::COMBINED},
                    Disturbance{"write", 0, false, false, Mode::FILES},
                    Disturbance{"write", 0, true, false, Mode::COMBINED},
                    Disturbance{"lseek", EIO, false, false, Mode::FILES},
                    Disturbance{"lseek", EIO, true, false, Mode::COMBINED},
                    Disturbance{"fstat", EIO, false, false, Mode::FILES},
                    Disturbance{"fstat", EIO, true, false, Mode::COMBINED},
                    Disturbance{"fsync", EIO, true, false, Mode::FILES},
                    Disturbance{"remove", EACCES, true, false, Mode::FILES},
                    Disturbance{"msgrcv", EINTR, false, false, Mode::FILES},
                    Disturbance{"msgctl", EPERM, true, false, Mode::FILES},
                    Disturbance{"msgget", ENOSPC, false, true, Mode::FILES},
                    Disturbance{"ftok", ENOENT, false, true, Mode::FILES},
                    Disturbance{"socket", EMFILE, false, false, Mode::FILES},
                    Disturbance{"connect", ECONNREFUSED, false, false, Mode::FILES},
                    Disturbance{"send", EPIPE, false, true, Mode::FILES},
                    Disturbance{"send", 0, true, false, Mode::FILES},
                    Disturbance{"calloc", ENOMEM, false, true, Mode::FILES},
                    Disturbance{"pthread_create", EAGAIN, false, false, Mode::FILES}),
    [](const auto& fault) {
        return std::string(fault.param.call) + std::to_string(std::abs(fault.param.error)) +
               (fault.param.onwards ? "Onwards" : "Once");
    });

}  // namespace
