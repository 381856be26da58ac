// Whole upgrades with the real program; compares output, commands, record, partitions and files
// exactly.

#include "console.h"
#include "files.h"
#include "ota/ota_data.h"
#include "ota/ota_package.h"
#include "ota/ota_result.h"
#include "ota_partition.h"
#include "otactl/log_stream.h"
#include "simulated_camera.h"

namespace {

using Lines = std::vector<std::string>;

constexpr uint32_t KERNEL = 3;

// Returns the commands that the output mentions, and the query of the slot, which it does not
// mention.
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

// Returns the values that depend on the package table and on the run.
ConsoleValues console_values(int pid) {
    ConsoleValues values;
    const std::pair<std::string, std::string> words[] = {
        {"pid=PID", "pid=" + std::to_string(pid)},
        {"echo PID", "echo " + std::to_string(pid)},
        {"module length ROWS", "module length " + std::to_string(package_entries().size())},
        {"moduleLen:ROWS", "moduleLen:" + std::to_string(package_entries().size())}};
    values.words.insert(values.words.end(), std::begin(words), std::end(words));
    if (const char* const runsAs = getenv("CORVO_VALGRIND")) {
        values.words.emplace_back("(corvo_upgrade", "(" + std::string(runsAs));
    }
    Lines& deleted = values.lines["deleted"];
    for (const OtaPackageEntry& row : package_entries()) {
        const std::string image =
            ";upgrade_handler;#;0d737004;3;delete file " + Camera::PACKAGE_DIR + row.fileName;
        deleted.insert(deleted.end(), {image, image + ".md5"});
    }
    return values;
}

// Removes from the output the lines about modules that the request does not name: one for each
// module whose image exists, up to the module that fails.
void expect_others_refused(Outcome& outcome, const OtaMessage& message,
                           const std::map<std::string, std::string>& files) {
    Lines wanted;
    for (const OtaPackageEntry& row : package_entries()) {
        const bool named = std::ranges::count(message.moduleTypes, row.moduleType) != 0;
        if (!named && (message.packageType != 0 || files.contains(row.fileName))) {
            wanted.push_back(";OTA_CheckNeedUpgrade;#;0d737000;3;no find upgrade type:" +
                             std::to_string(row.moduleType) + ", " + row.fileName);
        }
    }
    const auto is_other = [](const std::string& line) {
        return !contains(line, "no find upgrade type:");
    };
    const auto refusals =
        std::stable_partition(outcome.lines.begin(), outcome.lines.end(), is_other);
    const Lines said(refusals, outcome.lines.end());
    outcome.lines.erase(refusals, outcome.lines.end());
    wanted.resize(contains(outcome.text, "UGRADE_SUCCESS") ? wanted.size() : said.size());
    EXPECT_EQ(said, wanted);
}

struct Upgrade : testing::Test {
    // Runs the upgrade of a line of cases/upgrades.txt; returns the outcome in the same format.
    std::string outcome_of(std::istream& input) {
        std::map<std::string, std::string> files;  // files of the package
        std::vector<Fault> faults;
        std::string name, word;
        int32_t packageType = 0;
        input >> name >> packageType;
        OtaMessage message = Camera::request(packageType, {});
        Camera::clear();
        while (input >> word) {
            const std::string key = word.substr(0, word.find('='));
            const std::string value = word.substr(key.size() + 1);
            const int number = atoi(value.c_str());
            if (isdigit(key[0]) != 0) {
                const int i = message.moduleCount++;
                message.moduleTypes[i] = static_cast<uint32_t>(stoul(key));
                std::istringstream range(value);
                uint64_t size = 0, offset = 0;
                range >> size >> offset;  // "SIZE+OFFSET"
                message.moduleInfo[i] = {.size = size, .offset = offset};
            } else if (key == "count") {
                message.moduleCount = number;
            } else if (key == "record") {
                write_file(OTA_DATA_PATH, std::string("\0\2\0\0\0\6\0+", 8));
            } else if (key == "weak") {
                faults = {{"image", number, FLIP}};
            } else if (key[0] == '/') {
                write_file(key, value);
            } else {
                files[key] = pattern_bytes(static_cast<size_t>(number), 1);
                write_file(Camera::PACKAGE_DIR + key, files[key]);
            }
        }
        camera.start(faults);
        const int camera_pid = camera.pid();
        Camera::post(message);
        Outcome outcome = camera.finish();
        EXPECT_TRUE(outcome.ended && Camera::queue() < 0);
        expect_others_refused(outcome, message, files);
        const ConsoleValues values = console_values(camera_pid);
        expect_console(name, values, outcome.lines);
        EXPECT_EQ(Camera::take_commands(), commands_of(console_lines(name, values)));

        const auto mode = std::filesystem::status(OTA_DATA_PATH).permissions();
        EXPECT_EQ(mode, std::filesystem::perms(0644)) << "others read the record";
        std::ostringstream text;
        for (const char key :
             std::filesystem::exists(OTA_DATA_PATH) ? read_file(OTA_DATA_PATH) : "") {
            text << " " << static_cast<int>(key);
        }
        for (const OtaPackageEntry& row : package_entries()) {
            const std::string content = Camera::partition(row.partitionName);
            if (content == std::string(Camera::PARTITION_SIZE, 'o')) {
                continue;
            }
            const std::string image = content.substr(0, content.find_last_not_of('\0') + 1);
            std::string source = "spoilt";
            for (const auto& [file, bytes] : files) {
                const size_t at = bytes.find(image);
                const std::string place = std::string(file).append("+").append(std::to_string(at));
                source = at == bytes.npos ? source : place;
            }
            text << " " << row.partitionName << "=" << source << ":" << image.size();
        }
        for (const auto& [file, bytes] : files) {
            text << (std::filesystem::exists(Camera::PACKAGE_DIR + file) ? " " + file : "");
        }
        return text.str().substr(1);
    }

    Camera camera;
};

TEST_F(Upgrade, RequestsToTheEnd) {
    expect_cases("upgrades.txt", [this](std::istream& input) { return outcome_of(input); });
}

// Maps the numbers of modules and storages from requests to the platform, also those that no row of
// the package table uses.
TEST(Package, TypesOfTheRequestAreTurnedIntoThePlatforms) {
    std::string modules;
    for (uint32_t type = 0; type < 30; ++type) {
        modules += std::to_string(OTA_GetHalModuleType(type)) + " ";
    }
    EXPECT_EQ(
        modules,
        "12 1 2 3 4 5 6 12 12 12 12 11 12 13 14 15 16 17 12 12 12 12 12 12 12 12 14 12 12 12 ");
    EXPECT_EQ(OTA_GetHalStorageType(OTA_FLASH_TYPE_EMMC), 33U);
    EXPECT_EQ(OTA_GetHalStorageType(OTA_FLASH_TYPE_MTD), 17U);
    EXPECT_EQ(OTA_GetHalStorageType(7), 0U);
    OtaMessage tooMany = Camera::request(1, {});
    tooMany.moduleCount = OTA_MSG_MAX_MODULES + 1;
    memcpy(tooMany.packageFile, &KERNEL, sizeof(KERNEL));  // follows the array of types
    const OtaPackageEntry* const kernel = OTA_LumoFindModuleByMoudleType(KERNEL);
    const OtaMessage none = Camera::request(1, {});
    uint64_t offset = 0;
    const auto refused = {OTA_CheckNeedUpgrade(kernel, &tooMany),
                          OTA_CheckNeedUpgrade(nullptr, nullptr),
                          get_partition_info_by_msg(kernel, &none, &offset, &offset),
                          get_partition_info_by_msg(nullptr, nullptr, nullptr, nullptr)};
    EXPECT_EQ(std::vector<int32_t>(refused), std::vector<int32_t>(4, OTA_FAILED));
}

// The chunks of the image are equal, so the bytes of the previous chunk must not count as read.
TEST(ReadBack, PartitionThatEndsBeforeTheImageDiffers) {
    const std::string image(size_t{2} * OTA_VERIFY_CHUNK, 'x');
    write_file("/dev/block/by-name/kernel", image.substr(1));
    write_file("/tmp/image", image);
    EXPECT_EQ(
        upgrade_verifyPartition("kernel", "/tmp/image", OTA_GetHalStorageType(OTA_FLASH_TYPE_EMMC)),
        OTA_FAILED);
}

// A daemon that receives commands and never answers: the service waits for each command until its
// time-out. It must not request the restart again, because the daemon may still perform it.
TEST_F(Upgrade, SlowDaemonHasItsTimeAndIsAskedForTheRebootOnce) {
    camera.daemon.reset();
    const corvo::UniqueFd listener = listening_as_daemon();
    EXPECT_TRUE(
        camera.run(Camera::request(0, {}), {{"pthread_cond_timedwait", -1, SHORT, 10}}).ended);
    const std::string report = read_file(FAULTS_REPORT);
    // The 18 commands up to /proc/meminfo; slot, umount, reboot.
    EXPECT_TRUE(matches(report, ".*( 10){18} 20 100 100")) << report;
    const corvo::UniqueFd connection(accept4(listener.get(), nullptr, nullptr, 0));
    SystemCallDbusMsg command = {};
    int count = 0;
    while (recv(connection.get(), &command, sizeof(command), MSG_WAITALL) == sizeof(command)) {
        ++count;
    }
    EXPECT_EQ(count, 21);
    EXPECT_STREQ(reinterpret_cast<const char*>(command.data), "reboot");
    pollfd another = {.fd = listener.get(), .events = POLLIN, .revents = 0};
    EXPECT_EQ(poll(&another, 1, 0), 0);
}

// The power is cut at the end of a pause, which is given by the total seconds slept until then.
TEST_F(Upgrade, ApplicationsHaveTimeToEndAndLogsToBeReadBeforeTheRestart) {
    for (const auto& [second, last] : {std::pair(2, "killall -15 lumo_daemon.sh"),
                                       {7, "/etc/init.d/S99checkboot systemB"},
                                       {8, "umount /media/mmcblk0p1"}}) {
        EXPECT_FALSE(camera.run(Camera::request(0, {}), {{"sleep", second, CUT}}).ended);
        EXPECT_EQ(Camera::take_commands().back(), last);
        EXPECT_EQ(Camera::queue() >= 0, second < 8) << "after " << second << " s";
    }
    EXPECT_FALSE(
        camera.run(Camera::request(0, {}), {{"msgrcv", 1, EINTR}, {"sleep", 5, CUT}}).ended);
}

TEST_F(Upgrade, ShortAndUnterminatedRequestsStayWithinTheirFields) {
    OtaMessage unterminated = Camera::request(0, {KERNEL});
    memset(unterminated.packageDir, '/', sizeof(unterminated.packageDir));
    memset(unterminated.packageFile, 'x', sizeof(unterminated.packageFile));
    const std::string folder(64, '/');
    EXPECT_TRUE(
        contains(camera.run(unterminated).text, "ota file " + folder + "kernel.bin no exist\n"));
    unterminated.packageType = 1;
    unterminated.moduleInfo[0].size = 1;
    const std::string path = folder + std::string(63, 'x');
    EXPECT_TRUE(contains(camera.run(unterminated).text, "failed to open " + path + ".\n"));

    camera.start();
    camera.post(Camera::request(0, {KERNEL}), 0);  // an empty request
    camera.post(Camera::request(0, {255}));
    EXPECT_TRUE(contains(camera.finish().text, "moduleType 255 no find"));

    camera.start();
    camera.post(Camera::request(0, {KERNEL}), 68);  // ends before moduleCount, which reads as 0
    EXPECT_TRUE(contains(camera.finish().text, "UPGRADE_LUMO_UGRADE_SUCCESS"));
}

TEST_F(Upgrade, AsDeliveredPausesPublishesAndTakesTheOldestMessage) {
    write_file(Camera::PACKAGE_DIR + "kernel.bin", "image");
    camera.post(Camera::request(0, {KERNEL}));
    camera.post(Camera::request(0, {255}));
    std::string published, record;
    LogStream subscriber;
    ASSERT_TRUE(subscriber.open("ipc:///tmp/corvo_log_pub_ipc010", record)) << record;
    camera.start({}, true);
    while (!contains(published, "Restart the system")) {
        // The fixed pauses of an upgrade are 8 s in total.
        ASSERT_EQ(subscriber.receive(record, 15000), StreamEvent::MESSAGE) << "the log ended early";
        published += record.substr(34, record.size() - 35);
    }
    const Outcome outcome = camera.finish();
    EXPECT_TRUE(outcome.ended);
    std::string logged;
    for (const std::string& line : lines_of(outcome.text)) {
        const bool isLogged = contains(line, ";0d73700");
        const bool isEarly = contains(line, "vn_init") || contains(line, "version");
        logged += isLogged && !isEarly ? line + "\n" : "";
    }
    EXPECT_EQ(published, logged.substr(logged.size() - published.size()));
    EXPECT_TRUE(contains(published, "UPGRADE_LUMO_UGRADE_SUCCESS"));
    EXPECT_FALSE(contains(outcome.text, "moduleType 255"));
}

}  // namespace
