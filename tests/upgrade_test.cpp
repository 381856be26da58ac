// Whole upgrades by the real program: console, commands, record and partitions, exactly.
#include <gtest/gtest.h>
#include <nanomsg/nn.h>
#include <nanomsg/pubsub.h>
#include <sys/stat.h>

#include <regex>

#include "camera.h"
#include "files.h"
#include "ota/ota_data.h"

namespace {

using Lines = std::vector<std::string>;

constexpr uint32_t KERNEL = 3;
constexpr uint32_t ROOTFS = 4;
constexpr uint32_t SYSTEM = 11;

// The lines of consoles/NAME.txt, with "@other" replaced by the lines of consoles/other.txt.
Lines console(const std::string& name, int pid) {
    Lines lines;
    for (const std::string& line : lines_of(read_file(CONSOLES + name + ".txt"))) {
        if (line.starts_with('@')) {
            const Lines included = console(line.substr(1), pid);
            lines.insert(lines.end(), included.begin(), included.end());
            continue;
        }
        std::string text = std::regex_replace(line, std::regex("PID"), std::to_string(pid));
        text = std::regex_replace(text, std::regex(R"(\\e)"), "\033");
        lines.push_back(std::regex_replace(text, std::regex(R"(\\0)"), std::string(1, '\0')));
    }
    return lines;
}

std::string record(uint8_t result, uint8_t state) {
    std::string bytes(OTA_DATA_KEY_COUNT, '\0');
    bytes[OTA_DATA_KEY_RESULT] = static_cast<char>(result);
    bytes[OTA_DATA_KEY_STATE] = static_cast<char>(state);
    return bytes;
}

// The commands that a console tells of, and the one that it does not: the query of the slot.
Lines commands_of(const Lines& lines) {
    Lines commands;
    for (const std::string& line : lines) {
        const size_t at = line.find(" cmd:");
        if (line.find("current bootsystem") == 0) {
            commands.emplace_back("fw_printenv | grep bootsystem= | awk -F = '{ print $2 }'");
        } else if (at != std::string::npos) {
            commands.push_back(line.substr(at + 5, line.rfind('\033') - at - 5));
        }
    }
    return commands;
}

// Differences of two long texts, the first only.
void expect_lines(const Lines& actual, const Lines& expected) {
    for (size_t i = 0; i < std::max(actual.size(), expected.size()); ++i) {
        const std::string a = i < actual.size() ? actual[i] : "(end)";
        const std::string e = i < expected.size() ? expected[i] : "(end)";
        ASSERT_EQ(a, e) << "line " << i << " of the console";
    }
}

class Upgrade : public testing::Test {
  protected:
    // Runs the request and compares console and commands with what stands in consoles/.
    void expect_run(const OtaMessage& message, const std::string& name) {
        camera.start();
        const int pid = camera.pid();
        camera.post(message);
        const Outcome outcome = camera.finish();
        EXPECT_TRUE(outcome.ended);
        const Lines expected = console(name, pid);
        expect_lines(outcome.lines, expected);
        EXPECT_EQ(camera.daemon->take_commands(), commands_of(expected));
    }
    static void expect_untouched(const char* name) {
        EXPECT_TRUE(Camera::partition(name) == std::string(Camera::PARTITION_SIZE, 'o')) << name;
    }

    Camera camera;
};

TEST_F(Upgrade, FilesModeToTheEnd) {
    const std::string kernel = pattern_bytes(65536, 1);
    camera.put_image("kernel.bin", kernel);
    camera.put_image("kernel.bin.md5", "sum");
    camera.put_image("spl.bin", "not asked for");
    write_file(OTA_DATA_PATH, "abc");  // short: the keys it lacks read as 0
    expect_run(Camera::request(0, {0, KERNEL}), "files");
    EXPECT_TRUE(Camera::partition("kernel") ==
                kernel + std::string(Camera::PARTITION_SIZE - kernel.size(), '\0'));
    expect_untouched("spl");
    EXPECT_EQ(read_file(OTA_DATA_PATH), std::string("a\1c\0\0\3\0", 7));
    for (const char* file : {"kernel.bin", "kernel.bin.md5", "spl.bin"}) {
        EXPECT_FALSE(Camera::has(Camera::PACKAGE_DIR + std::string(file))) << file;
    }
    EXPECT_FALSE(Camera::queue_exists());
}

TEST_F(Upgrade, CombinedModeTakesEachModuleFromItsOffset) {
    const std::string kernel = pattern_bytes(20000, 1);
    const std::string rootfs = pattern_bytes(50000, 2);
    camera.put_image("all.pkg", "head" + kernel + "gap" + rootfs + "tail");
    OtaMessage message = Camera::request(1, {ROOTFS, KERNEL, ROOTFS});
    message.moduleInfo[0] = {.size = rootfs.size(), .offset = 4 + kernel.size() + 3};
    message.moduleInfo[1] = {.size = kernel.size(), .offset = 4};
    message.moduleInfo[2] = {.size = 1, .offset = 0};  // the first entry of a type wins
    expect_run(message, "combined");
    EXPECT_TRUE(Camera::partition("kernel").substr(0, kernel.size()) == kernel);
    EXPECT_TRUE(Camera::partition("rootfs") ==
                rootfs + std::string(Camera::PARTITION_SIZE - rootfs.size(), '\0'));
    EXPECT_EQ(read_file(OTA_DATA_PATH), record(1, 3));
    EXPECT_FALSE(Camera::has("/media/mmcblk0p1/all.pkg"));
}

TEST_F(Upgrade, OtherPackageTypesAreCheckedAsFilesAndWrittenAsOnePackage) {
    camera.put_image("all.pkg", "0123456789");
    OtaMessage message = Camera::request(2, {KERNEL});
    message.moduleInfo[0] = {.size = 4, .offset = 3};
    const Outcome outcome = camera.run(message);
    EXPECT_NE(outcome.text.find("ota file /media/mmcblk0p1/kernel.bin no exist"),
              std::string::npos);
    EXPECT_TRUE(Camera::partition("kernel").substr(0, 5) == std::string("3456\0", 5));
    EXPECT_EQ(read_file(OTA_DATA_PATH), record(1, 3));
}

// Requests for which nothing may be written: no verdict, nothing deleted, but a restart.
TEST_F(Upgrade, InvalidRequestsWriteNothingAndRestart) {
    OtaMessage tooMany = Camera::request(1, {KERNEL});
    tooMany.moduleCount = 17;
    OtaMessage farTooMany = Camera::request(0, {KERNEL});
    farTooMany.moduleCount = 2147483647;
    const std::string before("\0\2\0\0\0\6\0", 7);
    write_file(OTA_DATA_PATH, before);
    camera.put_image("kernel.bin", "image");
    expect_run(Camera::request(0, {KERNEL, 99, SYSTEM}), "unknown_module");
    expect_run(tooMany, "too_many_modules");
    write_file("/tmp/autoflash", "");
    expect_run(farTooMany, "far_too_many_modules");
    remove("/tmp/autoflash");
    EXPECT_EQ(read_file(OTA_DATA_PATH), before);
    expect_untouched("kernel");
    EXPECT_TRUE(Camera::has("/media/mmcblk0p1/kernel.bin"));
}

TEST_F(Upgrade, MissingImageIsLeftOutAndTheRestSucceeds) {
    camera.put_image("system.img", pattern_bytes(1000, 3));
    const Outcome outcome = camera.run(Camera::request(0, {KERNEL, SYSTEM}));
    EXPECT_NE(outcome.text.find("ota file /media/mmcblk0p1/kernel.bin no exist"),
              std::string::npos);
    EXPECT_TRUE(Camera::partition("system").substr(0, 1000) == pattern_bytes(1000, 3));
    expect_untouched("kernel");
    EXPECT_EQ(read_file(OTA_DATA_PATH), record(1, 3));
}

TEST_F(Upgrade, FailedModuleEndsTheRunAndKeepsThePackage) {
    camera.put_image("kernel.bin", std::string(Camera::PARTITION_SIZE + 1, 'k'));
    camera.put_image("system.img", "never written");
    expect_run(Camera::request(0, {SYSTEM, KERNEL}), "failed_module");
    EXPECT_EQ(read_file(OTA_DATA_PATH), record(2, 4));
    expect_untouched("system");
    EXPECT_TRUE(Camera::has("/media/mmcblk0p1/system.img"));
}

TEST_F(Upgrade, RangesThatThePlatformCannotTakeAreRefused) {
    camera.put_image("all.pkg", "0123456789");
    OtaMessage message = Camera::request(1, {KERNEL});
    message.moduleInfo[0] = {.size = (1ULL << 32) + 4, .offset = 3};
    camera.run(message);
    message.moduleInfo[0] = {.size = 4, .offset = (1ULL << 32) + 3};
    camera.run(message);
    expect_untouched("kernel");
    EXPECT_EQ(read_file(OTA_DATA_PATH), record(2, 4));
}

TEST_F(Upgrade, AutoFlashSkipsTheCheckAndIsRecordedAsSuch) {
    write_file("/tmp/autoflash", "");
    write_file(OTA_DATA_PATH, std::string(9, '\0'));  // of which seven are the record
    const Outcome outcome = camera.run(Camera::request(0, {KERNEL, 99}));
    EXPECT_EQ(outcome.text.find("rece msg"), std::string::npos);
    EXPECT_NE(outcome.text.find("UPGRADE_LUMO_UGRADE_SUCCESS"), std::string::npos);
    EXPECT_EQ(read_file(OTA_DATA_PATH), record(1, 6));
    remove("/tmp/autoflash");
}

// The image has three chunks; writes 1 to 3 are the first attempt's.
TEST_F(Upgrade, ReadBackFindsWeakFlashAndWritesAgain) {
    const std::string image = pattern_bytes(40000, 4);
    const std::string success = "partition: kernel read verify success\n";
    const auto failure = [](int percent) {
        return "verify schedule: " + std::to_string(percent) + ".\n" +
               "partition: kernel read verify failed\npartition: kernel read verify failed\n";
    };
    const std::map<std::string, std::pair<std::string, std::string>> cases = {
        {"100", {success, record(1, 3)}},  // the control: no write is spoilt
        {"3", {failure(81) + "re-upgrade, cnt: 1\n" + success, record(1, 3)}},
        {"0",
         {failure(0) + "re-upgrade, cnt: 1\n" + failure(0) + "re-upgrade, cnt: 2\n" + failure(0),
          record(2, 4)}}};
    for (const auto& [flip, expected] : cases) {
        camera.put_image("kernel.bin", image);
        const Outcome outcome = camera.run(Camera::request(0, {KERNEL}), {{"CORVO_FLIP", flip}});
        std::string said;
        for (const std::string& line : outcome.lines) {
            if (line.find("erify") != std::string::npos ||
                line.find("re-up") != std::string::npos) {
                said += line.substr(line.find(";3;") + 3) + "\n";
            }
        }
        EXPECT_EQ(said, expected.first) << flip;
        EXPECT_EQ(read_file(OTA_DATA_PATH), expected.second) << flip;
        remove(OTA_DATA_PATH);
    }
}

TEST_F(Upgrade, ShortAndUnterminatedRequestsStayWithinTheirFields) {
    OtaMessage unterminated = Camera::request(0, {KERNEL});
    memset(unterminated.packageDir, '/', sizeof(unterminated.packageDir));
    memset(unterminated.packageFile, 'x', sizeof(unterminated.packageFile));
    const Outcome files = camera.run(unterminated);
    EXPECT_NE(files.text.find("ota file " + std::string(64, '/') + "kernel.bin no exist\n"),
              std::string::npos);
    unterminated.packageType = 1;
    unterminated.moduleInfo[0].size = 1;
    const Outcome combined = camera.run(unterminated);
    EXPECT_NE(
        combined.text.find("failed to open " + std::string(64, '/') + std::string(63, 'x') + ".\n"),
        std::string::npos);

    camera.start();
    camera.post(Camera::request(0, {KERNEL}), 0);  // no request at all
    camera.post(Camera::request(0, {99}));
    EXPECT_NE(camera.finish().text.find("moduleType 99 no find"), std::string::npos);

    camera.start();
    camera.post(Camera::request(0, {KERNEL}), 68);  // ends before moduleCount, which reads as 0
    EXPECT_NE(camera.finish().text.find("UPGRADE_LUMO_UGRADE_SUCCESS"), std::string::npos);
}

TEST_F(Upgrade, AsDeliveredPausesPublishesAndTakesTheOldestMessage) {
    camera.put_image("kernel.bin", "image");
    camera.post(Camera::request(0, {KERNEL}));
    camera.post(Camera::request(0, {99}));
    const int socket = nn_socket(AF_SP, NN_SUB);
    nn_setsockopt(socket, NN_SUB, NN_SUB_SUBSCRIBE, "", 0);
    const int patience = 3000;
    nn_setsockopt(socket, NN_SOL_SOCKET, NN_RCVTIMEO, &patience, sizeof(patience));
    nn_connect(socket, "ipc:///tmp/corvo_log_pub_ipc010");
    camera.start({}, true);
    std::string published;
    char message[1024];
    bool last = false;
    while (!last) {
        const int size = nn_recv(socket, message, sizeof(message), 0);
        if (size < 0 && published.empty()) {
            continue;
        }
        ASSERT_GT(size, 34) << "the log ended early";
        const std::string line(message + 34, static_cast<size_t>(size - 35));
        published += line;
        last = line.find("Restart the system") != std::string::npos;
        if (line.find("ota kill process start") != std::string::npos) {
            const int longer = 8000;
            nn_setsockopt(socket, NN_SOL_SOCKET, NN_RCVTIMEO, &longer, sizeof(longer));
        }
    }
    nn_close(socket);
    const Outcome outcome = camera.finish();
    EXPECT_TRUE(outcome.ended);
    std::string logged;
    for (const std::string& line : lines_of(outcome.text)) {
        if (line.find(";0d73700") != std::string::npos &&
            line.find("vn_init") == std::string::npos &&
            line.find("version") == std::string::npos) {
            logged += line + "\n";
        }
    }
    EXPECT_EQ(published, logged.substr(logged.size() - published.size()));
    EXPECT_NE(published.find("UPGRADE_LUMO_UGRADE_SUCCESS"), std::string::npos);
    EXPECT_EQ(outcome.text.find("moduleType 99"), std::string::npos);
}

}  // namespace
