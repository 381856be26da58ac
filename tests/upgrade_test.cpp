// Whole upgrades by the real program: console, commands, record and partitions, exactly.
#include <gtest/gtest.h>
#include <nanomsg/nn.h>
#include <nanomsg/pubsub.h>
#include <sys/stat.h>

#include "camera.h"
#include "files.h"
#include "ota/ota_data.h"

namespace {

using Lines = std::vector<std::string>;

constexpr uint32_t KERNEL = 3;
constexpr uint32_t ROOTFS = 4;
constexpr uint32_t SYSTEM = 11;

const char* const APPLICATIONS[] = {"corvo_lumo", "record_lumo", "ai_lumo",    "push_muxer_corvo",
                                    "KvsLumo",    "log_lumo",    "embdb_lumo", "lumo_daemon.sh"};

std::string log(const std::string& function, const std::string& text,
                const std::string& module = "0d737000", int level = 3) {
    return ";" + function + ";#;" + module + ";" + std::to_string(level) + ";" + text;
}

std::string called(const std::string& command) {
    return "\033[32mDBUS: INFO: [system_call:system_call:#] SystemCall_Dbus_Call_Method systemcall "
           "ret:0 cmd:" +
           command + "\033[0m";
}

std::string mmc(const std::string& function, const std::string& text, int level = 2) {
    return "hal error " + function + ",#,FLASH_MMC 1 " + std::to_string(level) + " " + text;
}

Lines operator+(Lines left, const Lines& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

// The shell commands of a run up to and including the memory report.
Lines opening_commands(int pid) {
    Lines commands = {"echo " + std::to_string(pid) + " > /tmp/corvo_upgrade.pid"};
    for (const char* signal : {"-15 ", "-9 "}) {
        for (const char* application : APPLICATIONS) {
            commands.push_back(std::string("killall ") + signal + application);
        }
    }
    commands.emplace_back("cat /proc/meminfo");
    return commands;
}

const Lines CLOSING_COMMANDS = {"umount /media/mmcblk0p1", "reboot"};
const Lines SWITCH_COMMANDS = {"fw_printenv | grep bootsystem= | awk -F = '{ print $2 }'",
                               "/etc/init.d/S99checkboot systemB"};

// What every run prints before it looks at the request.
Lines opening(int pid, int32_t packageType, bool autoFlash = false, bool resultWas2 = false) {
    Lines lines = {log("main", "upgrade version:0.0.2"),
                   log("main", "ota evn_init start"),
                   log("main", "ota evn_init end"),
                   "g_log_level set to:2",
                   log("main", "ota wait for ota message"),
                   log("main", "UPGRADE_LUMO_RECV_MSG", "0d737001", 4)};
    const Lines commands = opening_commands(pid);
    lines.push_back(called(commands[0]));
    lines.push_back(log("stop_applications", "ota kill process start"));
    for (size_t i = 1; i < commands.size(); ++i) {
        lines.push_back(called(commands[i]));
    }
    lines.push_back(log("stop_applications", "ota kill process end"));
    if (autoFlash) {
        lines.push_back(log("prepare", "auto flash flag is set"));
    }
    lines.push_back(log("prepare", "ota hal init start"));
    if (resultWas2) {
        lines.push_back(log("OTA_SetDataNv", "key:1 value is same:2"));
    }
    return lines + Lines{"axera_ota_init ",
                         log("prepare", "ota hal init end"),
                         "hal error PAL_Pmu_Init,#,PAL_PMU 21 4 Get HAL interface fail",
                         "",
                         log("prepare", "watchdog init start"),
                         log("prepare", "watchdog init end"),
                         log("prepare", "package type:" + std::to_string(packageType))};
}

Lines closing(int pid) {
    return {log("shut_down", "umount disk"), called(CLOSING_COMMANDS[0]),
            log("shut_down", "Restart the system"),
            "\033[31mDBUS: ERROR: [system_call:announce_reboot:#] reboot is caused by pid=" +
                std::to_string(pid) + " (corvo_upgrade)\033[0m",
            called(CLOSING_COMMANDS[1])};
}

Lines switched() {
    return {log("conclude", "UPGRADE_LUMO_UGRADE_SUCCESS", "0d737003", 4),
            log("conclude", "otaPackageTableSize:1, moduleLen:7"),
            "current bootsystem=A",
            "",
            "retbuf[0]=A",
            "retbuf[1]=",
            "",
            std::string("retbuf[2]=") + '\0',
            std::string("retbuf[3]=") + '\0',
            "checkboot system B",
            called(SWITCH_COMMANDS[1]),
            log("conclude", "AB switch end, ret=0")};
}

std::string deleted(const std::string& path) {
    return log("log_deleted", "delete file " + path, "0d737004");
}

// The rows in the order in which they are treated: package type, partition, file.
struct Row {
    int type;
    std::string name;
    std::string file;
};
const std::vector<Row> ROWS = {{23, "spl", "spl.bin"},        {2, "uboot", "uboot.bin"},
                               {20, "dtb", "dtb.bin"},        {3, "kernel", "kernel.bin"},
                               {4, "rootfs", "rootfs.img"},   {11, "system", "system.img"},
                               {22, "ota_package", "ota.bin"}};

std::string not_asked(const Row& row) {
    return log("OTA_CheckNeedUpgrade",
               "no find upgrade type:" + std::to_string(row.type) + ", " + row.file);
}

Lines all_deleted() {
    Lines lines;
    for (const Row& row : ROWS) {
        lines.push_back(deleted(Camera::PACKAGE_DIR + row.file));
        lines.push_back(deleted(Camera::PACKAGE_DIR + row.file + ".md5"));
    }
    return lines;
}

// What the write of an image of whole 16 KiB chunks prints, up to and including its end.
Lines written(const std::string& name, size_t size) {
    char sizes[64];
    snprintf(sizes, sizeof(sizes), "mmc size = 0x%zx,file size = 0x%zx", Camera::PARTITION_SIZE,
             size);
    Lines lines = {mmc("flash_mmc_write_partition", "flash_mmc_write_partition."),
                   mmc("flash_mmc_write_partition", sizes)};
    size_t printed = 0;
    for (size_t done = 16384; done <= size; done += 16384) {
        const size_t tenth = done * 10 / size;
        if (tenth != printed) {
            printed = tenth;
            lines.push_back(">>> write flash progress " + std::to_string(tenth * 10) + "%.");
        }
    }
    lines.emplace_back(">>> write flash progress 100%.");
    lines.push_back(mmc("flash_mmc_write_partition", "write flash complete!!"));
    lines.push_back(log("upgrade_upgradePartition", "partition: " + name + " upgrade success"));
    return lines;
}

// The head of a module's upgrade through the platform, as files mode prints it.
Lines started(const std::string& what, int halType, const std::string& function) {
    Lines lines = {log(function, "upgrade " + what + " start, moudle type:" +
                                     std::to_string(halType) + ", flash type:33")};
    lines.push_back("axera_ota_upgrade eModuleType=" + std::to_string(halType) +
                    " line#hal error axera_ota_upgrade,#,BATTERY_CAM_OTA 48 2 eModuleType=" +
                    std::to_string(halType) + ", eStorageType=33");
    return lines;
}

// Differences of two long texts, the first only.
void expect_lines(const Lines& actual, const Lines& expected) {
    for (size_t i = 0; i < std::max(actual.size(), expected.size()); ++i) {
        const std::string a = i < actual.size() ? actual[i] : "(end)";
        const std::string e = i < expected.size() ? expected[i] : "(end)";
        ASSERT_EQ(a, e) << "line " << i << " of the console";
    }
}

std::string record(uint8_t result, uint8_t state) {
    std::string bytes(OTA_DATA_KEY_COUNT, '\0');
    bytes[OTA_DATA_KEY_RESULT] = static_cast<char>(result);
    bytes[OTA_DATA_KEY_STATE] = static_cast<char>(state);
    return bytes;
}

class Upgrade : public testing::Test {
  protected:
    Camera camera;
};

TEST_F(Upgrade, FilesModeToTheEnd) {
    const std::string kernel = pattern_bytes(65536, 1);
    camera.put_image("kernel.bin", kernel);
    camera.put_image("kernel.bin.md5", "sum");
    camera.put_image("spl.bin", "not asked for");
    write_file(OTA_DATA_PATH, "abc");  // short: the keys it lacks read as 0
    camera.start();
    const int pid = camera.pid();
    camera.post(Camera::request(0, {0, KERNEL}));
    const Outcome outcome = camera.finish();

    Lines expected =
        opening(pid, 0) +
        Lines{log("check_request", "rece msg form queue,moduleType 3"),
              log("write_table", "upgrade module length 7"), not_asked(ROWS[0])} +
        started("/media/mmcblk0p1/kernel.bin", 3, "write_from_file") +
        written("kernel", kernel.size()) +
        Lines{log("upgrade_upgradePartition", "partition: kernel read verify success")};
    expect_lines(outcome.lines, expected + switched() + all_deleted() + closing(pid));
    EXPECT_TRUE(outcome.ended);
    EXPECT_EQ(camera.daemon->take_commands(),
              opening_commands(pid) + SWITCH_COMMANDS + CLOSING_COMMANDS);
    EXPECT_TRUE(Camera::partition("kernel") ==
                kernel + std::string(Camera::PARTITION_SIZE - kernel.size(), '\0'));
    EXPECT_TRUE(Camera::partition("spl") == std::string(Camera::PARTITION_SIZE, 'o'));
    EXPECT_EQ(read_file(OTA_DATA_PATH), std::string("a\1c\0\0\3\0", 7));
    EXPECT_FALSE(Camera::has("/media/mmcblk0p1/kernel.bin"));
    EXPECT_FALSE(Camera::has("/media/mmcblk0p1/kernel.bin.md5"));
    EXPECT_FALSE(Camera::has("/media/mmcblk0p1/spl.bin"));
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
    camera.start();
    const int pid = camera.pid();
    camera.post(message);
    const Outcome outcome = camera.finish();

    const auto module = [](const Row& row, const std::string& range, int offset, int size,
                           const Lines& progress) {
        const std::string type = std::to_string(row.type);
        char hex[128];
        snprintf(hex, sizeof(hex), "part %s file /media/mmcblk0p1/all.pkg start 0x%x - end 0x%x",
                 row.name.c_str(), offset, offset + size);
        char sizes[64];
        snprintf(sizes, sizeof(sizes), "mmc size = 0x%zx,file size = 0x%x", Camera::PARTITION_SIZE,
                 size);
        const std::string erase = "flash_mmc_erase_write_partion_by_offset";
        const std::string write = "flash_mmc_write_partition_by_offset";
        return Lines{log("write_from_package",
                         "upgrade " + row.name + " start, moudle type:" + type + ", flash type:33"),
                     log("get_partition_info_by_msg", "find upgrade type:" + type + ", " + range),
                     log("UPGRADE_UpgradePartitionByOffset",
                         "moduleType: " + type + ", partition: " + row.name +
                             ", file: /media/mmcblk0p1/all.pkg, " + range,
                         "0d737000", 2),
                     "hal error axera_ota_write_partition_by_offset,#,BATTERY_CAM_OTA 48 2 "
                     "eModuleType=" +
                         type + ", eStorageType=33",
                     mmc(erase, hex),
                     mmc(erase, "start erase partition..."),
                     mmc(erase, "start write partition size " + std::to_string(size)),
                     mmc(write, "flash_mmc_write_partition."),
                     mmc(write, sizes)} +
               progress +
               Lines{mmc(write, "write flash complete!!"),
                     log("UPGRADE_UpgradePartitionByOffset",
                         "partition: " + row.name + " upgrade success")};
    };
    const auto percent = [](int number) {
        return ">>> write flash progress " + std::to_string(number) + "%.";
    };
    expect_lines(outcome.lines,
                 opening(pid, 1) +
                     Lines{log("write_table", "upgrade module length 7"), not_asked(ROWS[0]),
                           not_asked(ROWS[1]), not_asked(ROWS[2])} +
                     module(ROWS[3], "offset: 4, size: 20000", 4, 20000,
                            {percent(80), percent(100), percent(100)}) +
                     module(ROWS[4], "offset: 20007, size: 50000", 20007, 50000,
                            {percent(30), percent(60), percent(90), percent(100), percent(100)}) +
                     Lines{not_asked(ROWS[5]), not_asked(ROWS[6])} + switched() +
                     Lines{deleted("/media/mmcblk0p1/all.pkg")} + closing(pid));
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
    struct Case {
        OtaMessage message;
        bool autoFlash;
        Lines said;
    };
    OtaMessage tooMany = Camera::request(1, {KERNEL});
    tooMany.moduleCount = 17;
    OtaMessage farTooMany = Camera::request(0, {KERNEL});
    farTooMany.moduleCount = 2147483647;
    const std::vector<Case> cases = {
        {Camera::request(0, {KERNEL, 99, SYSTEM}),
         false,
         {log("check_request", "rece msg form queue,moduleType 3"),
          log("check_request", "rece msg form queue,moduleType 99"),
          log("check_request", "moduleType 99 no find")}},
        {tooMany, false, {log("check_request", "moduleCount 17 is invalid")}},
        {farTooMany, true, {log("check_request", "moduleCount 2147483647 is invalid")}},
    };
    for (const Case& c : cases) {
        const std::string before = std::string("\0\2\0\0\0\6\0", 7);
        write_file(OTA_DATA_PATH, before);
        camera.put_image("kernel.bin", "image");
        if (c.autoFlash) {
            write_file("/tmp/autoflash", "");
        }
        camera.start();
        const int pid = camera.pid();
        camera.post(c.message);
        const Outcome outcome = camera.finish();
        expect_lines(outcome.lines, opening(pid, c.message.packageType, c.autoFlash, true) +
                                        c.said + closing(pid));
        EXPECT_EQ(camera.daemon->take_commands(), opening_commands(pid) + CLOSING_COMMANDS);
        EXPECT_EQ(read_file(OTA_DATA_PATH), before);
        EXPECT_TRUE(Camera::partition("kernel") == std::string(Camera::PARTITION_SIZE, 'o'));
        EXPECT_TRUE(Camera::has("/media/mmcblk0p1/kernel.bin"));
    }
    remove("/tmp/autoflash");
}

TEST_F(Upgrade, MissingImageIsLeftOutAndTheRestSucceeds) {
    camera.put_image("system.img", pattern_bytes(1000, 3));
    const Outcome outcome = camera.run(Camera::request(0, {KERNEL, SYSTEM}));
    EXPECT_NE(outcome.text.find("ota file /media/mmcblk0p1/kernel.bin no exist"),
              std::string::npos);
    EXPECT_TRUE(Camera::partition("system").substr(0, 1000) == pattern_bytes(1000, 3));
    EXPECT_TRUE(Camera::partition("kernel") == std::string(Camera::PARTITION_SIZE, 'o'));
    EXPECT_EQ(read_file(OTA_DATA_PATH), record(1, 3));
}

TEST_F(Upgrade, FailedModuleEndsTheRunAndKeepsThePackage) {
    camera.put_image("kernel.bin", std::string(Camera::PARTITION_SIZE + 1, 'k'));
    camera.put_image("system.img", "never written");
    camera.start();
    const int pid = camera.pid();
    camera.post(Camera::request(0, {SYSTEM, KERNEL}));
    const Outcome outcome = camera.finish();
    const Lines verdict = {
        mmc("flash_mmc_erase_write_partion", "failed to write partion kernel", 4),
        "hal error axera_ota_upgrade,#,BATTERY_CAM_OTA 48 4 battery_cam_ota_upgrade failed, ret=-1",
        "PAL error PAL_OTA_Upgrade,#,PAL_OTA 10 4 HAL interface exec fail",
        log("upgrade_upgradePartition", "partition: kernel upgrade failed"),
        log("write_table", "ota kernel failed"),
        log("conclude", "UPGRADE_LUMO_UGRADE_FAILED", "0d737002", 4),
        log("OTA_SetDataNv", "key:1 value is same:2")};
    const Lines end = verdict + closing(pid);
    ASSERT_GT(outcome.lines.size(), end.size());
    expect_lines(Lines(outcome.lines.end() - static_cast<long>(end.size()), outcome.lines.end()),
                 end);
    EXPECT_NE(outcome.text.find("file size is too big!!!"), std::string::npos);
    EXPECT_EQ(camera.daemon->take_commands(), opening_commands(pid) + CLOSING_COMMANDS);
    EXPECT_EQ(read_file(OTA_DATA_PATH), record(2, 4));
    EXPECT_TRUE(Camera::partition("system") == std::string(Camera::PARTITION_SIZE, 'o'));
    EXPECT_TRUE(Camera::has("/media/mmcblk0p1/system.img"));
}

TEST_F(Upgrade, AutoFlashSkipsTheCheckAndIsRecordedAsSuch) {
    write_file("/tmp/autoflash", "");
    const Outcome outcome = camera.run(Camera::request(0, {KERNEL, 99}));
    EXPECT_EQ(outcome.text.find("rece msg"), std::string::npos);
    EXPECT_NE(outcome.text.find("UPGRADE_LUMO_UGRADE_SUCCESS"), std::string::npos);
    EXPECT_EQ(read_file(OTA_DATA_PATH), record(1, 6));
    remove("/tmp/autoflash");
}

// The image has three chunks; writes 1 to 3 are the first attempt's.
TEST_F(Upgrade, ReadBackFindsWeakFlashAndWritesAgain) {
    struct Case {
        const char* flip;
        int rewrites;
        int percent;
        std::string record;
    };
    const std::string image = pattern_bytes(40000, 4);
    for (const Case& c : {Case{"100", 0, 0, record(1, 3)},  // the control: no write is spoilt
                          Case{"3", 1, 81, record(1, 3)}, Case{"0", 2, 0, record(2, 4)}}) {
        camera.put_image("kernel.bin", image);
        const Outcome outcome = camera.run(Camera::request(0, {KERNEL}), {{"CORVO_FLIP", c.flip}});
        Lines found;
        for (const std::string& line : outcome.lines) {
            const size_t text = line.find(";3;");
            if (line.find("erify") != std::string::npos ||
                line.find("re-up") != std::string::npos) {
                found.push_back(line.substr(text + 3));
            }
        }
        Lines expected;
        for (int i = 1; i <= 3 && i <= c.rewrites + (c.flip == std::string("0") ? 1 : 0); ++i) {
            expected = expected + Lines{"verify schedule: " + std::to_string(c.percent) + ".",
                                        "partition: kernel read verify failed",
                                        "partition: kernel read verify failed"};
            if (i <= c.rewrites) {
                expected.push_back("re-upgrade, cnt: " + std::to_string(i));
            }
        }
        if (c.record == record(1, 3)) {
            expected.emplace_back("partition: kernel read verify success");
            EXPECT_TRUE(Camera::partition("kernel").substr(0, image.size()) == image);
        }
        expect_lines(found, expected);
        EXPECT_EQ(read_file(OTA_DATA_PATH), c.record) << c.flip;
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
