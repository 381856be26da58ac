// Whole upgrades with a power cut or a fault at every possible position. Positions are numbered, so
// that a single one can be repeated:
//   --gtest_filter='*Files*' with CORVO_ONLY=17 in the environment tries position 17 only.

#include "files.h"
#include "ota/ota_data.h"
#include "simulated_camera.h"
#include "stride.h"

namespace {

constexpr uint32_t KERNEL = 3;
constexpr uint32_t ROOTFS = 4;

const int ONLY = getenv("CORVO_ONLY") == nullptr ? 0 : atoi(getenv("CORVO_ONLY"));

// The other keys have their numbers as values; the last upgrade succeeded.
const std::string OLD_RECORD = std::string("\x70\1\x72\x73\x74\3\x76", 7);
const std::string KERNEL_IMAGE = pattern_bytes(40000, 1);
const std::string ROOTFS_IMAGE = pattern_bytes(16384, 2);
const std::string SUCCESS = "UPGRADE_LUMO_UGRADE_SUCCESS";

// One upgrade of two modules, in a camera in its initial state: with two copies of what a slot
// starts, except for "Combined".
class World {
  public:
    // "Files", "AutoFlash" (files with its flag) or "Combined".
    explicit World(const std::string& mode)
        : message_(Camera::request(mode == "Combined", {KERNEL, ROOTFS})) {
        write_file(OTA_DATA_PATH, OLD_RECORD);
        if (mode != "Combined") {
            Camera::make_two_copies();
        }
        if (mode == "AutoFlash") {
            write_file("/tmp/autoflash", "");
        }
        if (mode == "Combined") {
            package_ = {{"all.pkg", KERNEL_IMAGE + ROOTFS_IMAGE}};
            message_.moduleInfo[0] = {.size = KERNEL_IMAGE.size(), .offset = 0};
            message_.moduleInfo[1] = {.size = ROOTFS_IMAGE.size(), .offset = KERNEL_IMAGE.size()};
        }
        for (const auto& [file, content] : package_) {
            write_file(Camera::PACKAGE_DIR + file, content);
        }
    }

    Outcome run(const std::vector<Fault>& faults = {}) { return camera.run(message_, faults); }

    static bool written() {
        return Camera::partition("kernel").starts_with(KERNEL_IMAGE) &&
               Camera::partition("rootfs").starts_with(ROOTFS_IMAGE);
    }
    [[nodiscard]] bool package_is_there() const {
        return std::ranges::all_of(package_, [](const auto& file) {
            return std::filesystem::exists(Camera::PACKAGE_DIR + file.first);
        });
    }
    static bool others_untouched() {
        return Camera::running_copies_untouched() &&
               std::ranges::all_of(Camera::partitions(), [](const std::string& name) {
                   return name == "kernel" || name == "rootfs" ||
                          Camera::partition(name) == std::string(Camera::PARTITION_SIZE, 'o');
               });
    }

    Camera camera;

  private:
    std::map<std::string, std::string> package_ = {{"kernel.bin", KERNEL_IMAGE},
                                                   {"rootfs.img", ROOTFS_IMAGE}};
    OtaMessage message_;
};

// The record's other keys must have their old values. A short file is allowed: the power cut
// interrupted its rewrite.
void expect_other_keys_kept(const std::string& record) {
    for (size_t key = 0; key < record.size(); ++key) {
        if (key != OTA_DATA_KEY_RESULT && key != OTA_DATA_KEY_STATE) {
            EXPECT_EQ(record[key], OLD_RECORD[key]) << "key " << key;
        }
    }
}

// Parameter: the mode, and the moment of the power cut: before a change ("Cut") or in the middle of
// a write ("Torn").
struct PowerCut : testing::TestWithParam<const char*> {};

TEST_P(PowerCut, LeavesWhatTheNextRunNeeds) {
    const std::string name = GetParam();
    const bool torn = name.ends_with("Torn");
    const std::string mode = name.substr(0, name.size() - strlen(torn ? "Torn" : "Cut"));
    bool complete = false;
    for (int place = std::max(1, ONLY); !complete; place += sweep_stride()) {
        SCOPED_TRACE(name + " " + std::to_string(place));
        World world(mode);
        const Outcome outcome =
            world.run({torn ? Fault{"write", place, TEAR} : Fault{"change", place, CUT}});
        complete = outcome.ended || ONLY != 0;
        const bool resultStored = contains(outcome.text, "ota hal init end");
        const bool verdict = contains(outcome.text, SUCCESS);
        const std::string record = read_file(OTA_DATA_PATH);
        expect_other_keys_kept(record);
        if (resultStored && !verdict) {
            EXPECT_TRUE(record.size() < 2 || record[OTA_DATA_KEY_RESULT] != OTA_RESULT_SUCCEEDED);
        }
        // The initial record cannot contain the state of a success of auto-flash, so this run
        // stored it.
        EXPECT_TRUE(record.size() < OTA_DATA_KEY_COUNT ||
                    record[OTA_DATA_KEY_STATE] != OTA_STATE_AUTO_FLASH_SUCCESS ||
                    record[OTA_DATA_KEY_RESULT] == OTA_RESULT_SUCCEEDED);
        EXPECT_TRUE(verdict || world.package_is_there());
        EXPECT_TRUE(!Camera::asked("/etc/init.d/S99checkboot", 0) ||
                    (World::written() && record.size() == OTA_DATA_KEY_COUNT &&
                     record[OTA_DATA_KEY_RESULT] == OTA_RESULT_SUCCEEDED &&
                     record[OTA_DATA_KEY_STATE] ==
                         (mode == "AutoFlash" ? OTA_STATE_AUTO_FLASH_SUCCESS : OTA_STATE_SUCCESS)));
        EXPECT_TRUE(!verdict || World::written());
        EXPECT_TRUE(World::others_untouched());
        if (!verdict) {
            EXPECT_TRUE(contains(world.run().text, SUCCESS)) << "on the next run";
            EXPECT_TRUE(World::written());
            const std::string after = read_file(OTA_DATA_PATH);
            ASSERT_EQ(after.size(), OTA_DATA_KEY_COUNT);
            EXPECT_EQ(after[OTA_DATA_KEY_RESULT], OTA_RESULT_SUCCEEDED);
            expect_other_keys_kept(after.substr(0, record.size()));
        }
        if (outcome.ended) {
            std::string success = OLD_RECORD;
            success[OTA_DATA_KEY_STATE] =
                mode == "AutoFlash" ? OTA_STATE_AUTO_FLASH_SUCCESS : OTA_STATE_SUCCESS;
            EXPECT_EQ(record, success);
            EXPECT_GT(place, 20) << "too few places: is anything counted?";
        }
        ASSERT_FALSE(testing::Test::HasFailure());
    }
}

INSTANTIATE_TEST_SUITE_P(Modes, PowerCut,
                         testing::Values("FilesCut", "CombinedCut", "AutoFlashCut", "FilesTorn"),
                         [](const auto& name) { return std::string(name.param); });

TEST(PowerCut, FindsTheBuffersFlushedBehindTheDeletion) {
    World world("Files");
    const Outcome outcome = world.run({{"sync", 1, CUT}});
    EXPECT_FALSE(outcome.ended);
    EXPECT_TRUE(contains(outcome.text, "delete file") && !contains(outcome.text, "umount disk"));
}

int reported(int which) {
    int numbers[2] = {0, 0};
    std::ifstream(FAULTS_REPORT) >> numbers[0] >> numbers[1];
    return numbers[which];
}

TEST(Descriptors, DoNotGrowWithTheWork) {
    World world("Files");
    world.camera.run(Camera::request(0, {}));
    const int withoutModules = reported(1);
    EXPECT_GT(withoutModules, 3);
    World("Files").run();
    EXPECT_EQ(reported(1), withoutModules);
}

std::vector<std::string> disturbances() {
    std::vector<std::string> all = lines_of(read_file(TEXTS "cases/disturbances.txt"));
    std::erase_if(all, [](const std::string& line) { return line.starts_with('#'); });
    return all;
}

struct Disturbed : testing::TestWithParam<std::string> {};

TEST_P(Disturbed, EndsWithTheVerdictItDeserves) {
    std::string call, effect, howOften, mode, daemon;
    std::istringstream(GetParam()) >> call >> effect >> howOften >> mode >> daemon;
    World(mode).run();
    const int descriptors = reported(1);
    bool struck = true;
    for (int place = std::max(1, ONLY); struck; place += sweep_stride()) {
        SCOPED_TRACE(call + " " + std::to_string(place));
        World world(mode);
        const Fault fault = {.call = call.c_str(),
                             .ordinal = howOften == "once" ? place : -place,
                             .effect = error_number(effect),
                             .count = static_cast<size_t>(atoi(effect.c_str()))};
        const Outcome outcome = world.run({fault, {"pthread_cond_timedwait", -1, SHORT, 10}});
        EXPECT_TRUE(outcome.ended);
        struck = reported(0) >= place && ONLY == 0;
        const bool verdict = contains(outcome.text, SUCCESS);
        EXPECT_TRUE(!verdict || World::written()) << "success, but not written";
        EXPECT_TRUE(World::others_untouched());
        EXPECT_LE(reported(1), descriptors) << "descriptors left open";
        EXPECT_TRUE(daemon == "deaf" || Camera::asked("reboot", 3000));
        ASSERT_FALSE(testing::Test::HasFailure()) << outcome.text;
    }
}

INSTANTIATE_TEST_SUITE_P(Calls, Disturbed, testing::ValuesIn(disturbances()),
                         [](const auto& row) { return replaced(row.param, " +", ""); });

}  // namespace
