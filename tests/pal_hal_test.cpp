// The platform abstraction down to its modules: checks and codes, the slot switch (the daemon's
// client is played here), NV, and the reporters.
#include <errno.h>
#include <gtest/gtest.h>
#include <string.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <thread>

#include "faults.h"
#include "files.h"
#include "nor_chip.h"
#include "nv_factory_cache.h"
#include "pal/pal_led.h"
#include "pal/pal_nv.h"
#include "pal/pal_ota.h"
#include "pal/pal_pmu.h"
#include "pal_common/error_log.h"
#include "registry.h"

namespace {

std::string bootSlot;  // what the boot environment answers
std::string commands;  // that the daemon was asked to run, with their time-outs
std::function<void()> duringQuery = [] {};

const std::string BY_NAME = "/dev/block/by-name/";
constexpr const char* IMAGE = "/tmp/image";
constexpr uint32_t MMC = STORAGE_TYPE_MMC;

const std::string EXEC_FAIL = ",#,PAL_OTA 10 4 HAL interface exec fail\n";

TEST(Reporters, CutAtTheirLimits) {
    const std::string text(1200, 'a');
    CapturedOutput output;
    PAL_ErrorLog("f", 7, "TAG", 3, 2, "%.600s", text.c_str());
    HAL_ErrorLog("f", 7, "TAG", 3, 4, "%.600s", text.c_str());
    HAL_ErrorLog("f", 7, "TAG", 3, 4, "%s", text.c_str());
    EXPECT_EQ(output.take(), "PAL error f,7,TAG 3 2 " + text.substr(0, 508) +
                                 "\nhal error f,7,TAG 3 4 " + text.substr(0, 600) +
                                 "\nhal error f,7,TAG 3 4 " + text.substr(0, 1020) + "\n");
}

TEST(Pal, ArgumentsOutOfRangeAreRefusedOnceAndReachNothing) {
    int32_t fd = 5;
    CapturedOutput output;
    EXPECT_EQ(PAL_OTA_Upgrade(0, "k", IMAGE, MMC), 2);
    EXPECT_EQ(PAL_OTA_Upgrade(22, "k", IMAGE, MMC), 2);
    EXPECT_EQ(PAL_OTA_Upgrade(3, "k", nullptr, MMC), 2);
    EXPECT_EQ(PAL_OTA_Upgrade(3, "k", IMAGE, 0), 2);
    EXPECT_EQ(PAL_OTA_Upgrade(3, "k", IMAGE, 37), 2);
    EXPECT_EQ(PAL_OTA_OpenPartition(nullptr, 0, MMC, &fd), 2);
    EXPECT_EQ(PAL_OTA_OpenPartition("k", 1, MMC, &fd), 2);
    EXPECT_EQ(PAL_OTA_OpenPartition("k", 0, MMC, nullptr), 2);
    EXPECT_EQ(PAL_OTA_OpenPartition("k", 0, 37, &fd), 2);
    EXPECT_EQ(PAL_OTA_UpgradeByOffset(3, nullptr, IMAGE, 0, 1, MMC), 2);
    EXPECT_EQ(PAL_OTA_UpgradeByOffset(3, "k", nullptr, 0, 1, MMC), 2);
    EXPECT_EQ(PAL_OTA_AB_SWITCH(-2, 0), 2);
    const auto lines = lines_of(without_source_lines(output.take()));
    ASSERT_EQ(lines.size(), 12U);
    EXPECT_EQ(lines.front(), "PAL error PAL_OTA_Upgrade,#,PAL_OTA 10 4 Param invalid");
    EXPECT_EQ(lines.back(), "PAL error PAL_OTA_AB_SWITCH,#,PAL_OTA 10 4 Param invalid");
    EXPECT_EQ(fd, 5);
}

TEST(Pal, ModulesThatAreNotThereOrRunAlready) {
    EXPECT_FALSE(HAL_OTA_GetInterface(1) || HAL_LED_GetInterface(1) || HAL_NV_GetInterface(1));
    CapturedOutput output;
    EXPECT_EQ(PAL_LED_Init(), 0);
    EXPECT_EQ(PAL_LED_Init(), 1);
    HAL_LED_GetInterface(0)->deinit(0);
    EXPECT_EQ(PAL_Pmu_Init(0), 1);
    const std::string printed = without_source_lines(output.take());
    EXPECT_NE(printed.find("PAL error PAL_LED_Init,#,PAL_LED 7 4 HAL interface exec fail\n"),
              std::string::npos);
    EXPECT_TRUE(
        printed.ends_with("\nhal error PAL_Pmu_Init,#,PAL_PMU 21 4 Get HAL interface fail\n\n"));
}

TEST(Ota, UnsupportedModuleAndStorageTypesWriteNothing) {
    write_file(BY_NAME + "kernel", "old");
    write_file(IMAGE, "new");
    const std::string report =
        "hal error axera_ota_write_partition_by_offset,#,BATTERY_CAM_OTA 48 ";
    CapturedOutput output;
    EXPECT_EQ(PAL_OTA_UpgradeByOffset(22, "kernel", IMAGE, 0, 3, MMC), 2);
    EXPECT_EQ(without_source_lines(output.take()),
              report + "2 eModuleType=22, eStorageType=33\n" + report +
                  "4 unsupport module type = 22\nPAL error PAL_OTA_UpgradeByOffset" + EXEC_FAIL);
    for (const uint32_t type : {1U, 7U, 8U, 9U, 10U, 18U, 19U}) {
        EXPECT_EQ(PAL_OTA_Upgrade(type, "kernel", IMAGE, MMC), 2);
    }
    int32_t fd = 5;
    EXPECT_EQ(PAL_OTA_Upgrade(3, nullptr, IMAGE, MMC), 2);
    EXPECT_EQ(PAL_OTA_Upgrade(3, "kernel", IMAGE, 5), 4);
    EXPECT_EQ(PAL_OTA_UpgradeByOffset(3, "kernel", IMAGE, 0, 3, 5), 4);
    EXPECT_EQ(PAL_OTA_UpgradeByOffset(3, "kernel", IMAGE, 0, 0x90000000, MMC), 7);
    EXPECT_EQ(PAL_OTA_OpenPartition("kernel", 0, 5, &fd), 4);
    EXPECT_EQ(fd, 5);
    EXPECT_EQ(read_file(BY_NAME + "kernel"), "old");
    for (const uint32_t type : {2U, 3U, 4U, 5U, 6U, 11U, 12U, 13U, 14U, 15U, 16U, 17U, 20U, 21U}) {
        EXPECT_EQ(PAL_OTA_Upgrade(type, "kernel", IMAGE, MMC), 0);
    }
    EXPECT_EQ(read_file(BY_NAME + "kernel"), "new");
}

TEST(Ota, OpensPartitionsOfBothStoragesForReadingOnly) {
    const NorChip chip(1, 4096, "mtd1: 00001000 00001000 \"part\"\n");
    write_file(BY_NAME + "part", "x");
    for (const auto& [storage, missing] : {std::pair(STORAGE_TYPE_MMC, 7), {STORAGE_TYPE_MTD, 9}}) {
        int32_t fd = -7;
        EXPECT_EQ(PAL_OTA_OpenPartition("part", 0, storage, &fd), 0);
        EXPECT_EQ(pwrite(fd, "y", 1, 0), -1);
        EXPECT_EQ(close(fd), 0);
        EXPECT_EQ(PAL_OTA_OpenPartition("none", 0, storage, &fd), missing);
        EXPECT_EQ(fd, -1);
    }
}

TEST(Ota, SlotSwitchRunsTheScriptOfTheOtherSlot) {
    const std::string query = "fw_printenv | grep bootsystem= | awk -F = '{ print $2 }' 2000\n";
    const std::string script = "/etc/init.d/S99checkboot system";
    const std::string failed = "switch bootsystem failedPAL error PAL_OTA_AB_SWITCH" + EXEC_FAIL;
    for (const std::string answer : {"A\n", "B\n", "ab\ncd", ""}) {
        bootSlot = answer;
        commands = {};
        std::string expected = "current bootsystem=" + answer + "\n";
        for (size_t i = 0; i < 4; ++i) {
            expected +=
                "retbuf[" + std::to_string(i) + "]=" + answer.c_str()[std::min(i, answer.size())];
            expected += "\n";
        }
        const bool known = answer[0] == 'A' || answer[0] == 'B';
        std::string asked = query;
        if (known) {
            const char* const other = answer[0] == 'A' ? "B" : "A";
            expected.append("checkboot system ").append(other).append("\n");
            asked.append(script).append(other).append(" -1\n");
        } else {
            expected += failed;
        }
        CapturedOutput output;
        EXPECT_EQ(PAL_OTA_AB_SWITCH(-1, 0), known ? 0 : 4);
        EXPECT_EQ(without_source_lines(output.take()), expected);
        EXPECT_EQ(commands, asked);
    }
}

TEST(Ota, OperationsWaitForEachOther) {
    std::atomic<int> query{0};  // 1: runs, holding the module; 2: done
    duringQuery = [&] {
        query = 1;
        usleep(100000);
        query = 2;
    };
    std::thread holder([] { PAL_OTA_AB_SWITCH(0, 0); });
    while (query == 0) {
        usleep(1000);
    }
    EXPECT_EQ(PAL_OTA_Init(), 0);
    EXPECT_EQ(query, 2);
    holder.join();
    duringQuery = [] {};
    EXPECT_EQ(PAL_OTA_DeInit(), 0);
}

TEST(Nv, PartitionsAndRecoveryCommand) {
    const HalNvInterface& nv = *HAL_NV_GetInterface(0);
    for (const auto& [part, read, write] :
         {std::tuple("nv_user", nv.userRead, nv.userWrite),
          std::tuple("nv_factory", nv.factoryRead, nv.factoryWrite),
          std::tuple("rec_data", nv.recordRead, nv.recordWrite)}) {
        write_file(BY_NAME + part, std::string(64, '.'));
        char buffer[7] = {};
        EXPECT_EQ(write(part, 8, 6), 6);
        EXPECT_EQ(read(buffer, 8, 6), 6);
        EXPECT_EQ(read_file(BY_NAME + part).substr(7, 8), "." + std::string(buffer) + ".");
        EXPECT_EQ(strncmp(buffer, part, 6), 0);
    }
    write_file(BY_NAME + "misc", std::string(16500, 'm'));
    EXPECT_EQ(nv.enterRecovery(), 32);
    EXPECT_EQ(read_file(BY_NAME + "misc"), std::string(16384, 'm') + "boot-recovery" +
                                               std::string(19, '\0') + std::string(84, 'm'));
    EXPECT_EQ(nv.exitRecovery(), 32);
    EXPECT_EQ(read_file(BY_NAME + "misc").substr(16383, 34), "m" + std::string(32, '\0') + "m");
}

TEST(Nv, FactoryCacheIsFilledOnceTheNodeIsThere) {
    const std::string data = pattern_bytes(4096, 7);
    for (const size_t size : {4096U, 100U}) {
        write_file(BY_NAME + "nv_factory", data.substr(0, size));
        const Faults faults({{"open", 1, ENOENT}, {"open", 2, ENOENT}});
        EXPECT_EQ(PAL_NV_Init(), 0);
        EXPECT_EQ(Faults::calls("open"), 4);
        std::string expected = data.substr(0, size);
        expected.resize(PalNvFactoryCache.size());
        EXPECT_EQ(memcmp(PalNvFactoryCache.data(), expected.data(), expected.size()), 0);
    }
    CapturedOutput output;
    const Faults faults({{"open", 0, ENOENT}});
    EXPECT_EQ(PAL_NV_Init(), 5);
    EXPECT_EQ(Faults::calls("open"), 1001);
    EXPECT_EQ(without_source_lines(output.take()),
              "hal error flash_mmc_read_sector,#,FLASH_MMC 1 4 "
              "Could not open mmc device:nv_factory for read.\n"
              "PAL error PAL_NV_Init,#,PAL_NV 20 4 HAL interface exec fail\n");
}

}  // namespace

int32_t popen_call(const char* cmd, void* output, int32_t outputSize, int32_t timeoutMs) {
    duringQuery();
    EXPECT_EQ(outputSize, 16);
    commands += std::string(cmd) + " " + std::to_string(timeoutMs) + "\n";
    memcpy(output, bootSlot.data(), bootSlot.size());
    return static_cast<int32_t>(bootSlot.size());
}

int32_t system_call(const char* cmd, int32_t timeoutMs) {
    commands += std::string(cmd) + " " + std::to_string(timeoutMs) + "\n";
    return 0;
}
