// The platform abstraction and its modules: checks and codes, the slot switch (with a fake of the
// daemon's client), NV, and the reporters.

#include "faults.h"
#include "files.h"
#include "hal/axera_ota.h"
#include "hal/flash_mmc.h"
#include "hal/flash_mtd.h"
#include "hal/t31_led.h"
#include "mtd_table.h"
#include "nv_factory_cache.h"
#include "pal/error_log.h"
#include "pal/pal_led.h"
#include "pal/pal_nv.h"
#include "pal/pal_ota.h"
#include "pal/pal_pmu.h"

namespace {

std::string bootSlot;              // answer of the boot environment
std::atomic<int> g_slow_query{0};  // slow query of the boot slot. 1: requested, 2: runs, 3: done

const std::string BY_NAME = "/dev/block/by-name/";

TEST(Reporters, CutAtTheirLimits) {
    const std::string text(1200, 'a');
    CapturedOutput output;
    PAL_ErrorLog("f", 7, "TAG", 3, 2, "%.600s", text.c_str());
    HAL_ErrorLog("f", 7, "TAG", 3, 4, "%s", text.c_str());
    EXPECT_EQ(output.take(), "PAL error f,7,TAG 3 2 " + text.substr(0, 508) +
                                 "\nhal error f,7,TAG 3 4 " + text.substr(0, 1020) + "\n");
}

// Arguments that no request and no operation of hal_tool can contain.
TEST(Hal, GuardsAgainstNullAndOpensForReadingOnly) {
    write_file(BY_NAME + "kernel", "old");
    int32_t fd = -7;
    EXPECT_EQ(PAL_OTA_OpenPartition("kernel", 0, STORAGE_TYPE_MMC, &fd), 0);
    EXPECT_EQ(pwrite(fd, "y", 1, 0), -1);
    EXPECT_EQ(close(fd), 0);
    CapturedOutput output;
    EXPECT_EQ(PAL_OTA_OpenPartition("kernel", O_RDWR, STORAGE_TYPE_MMC, &fd), 2);
    EXPECT_TRUE(output.take().ends_with("PAL_OTA 10 4 Param invalid\n"));
    const HalOtaInterface& ota = AXERA_OTA_INTERFACE;
    const auto guarded = {
        PAL_OTA_OpenPartition("kernel", 0, STORAGE_TYPE_MMC, nullptr),
        PAL_OTA_OpenPartition("kernel", 0, STORAGE_TYPE_MIN - 1, &fd),
        PAL_OTA_OpenPartition("kernel", 0, STORAGE_TYPE_MAX + 1, &fd),
        PAL_OTA_Upgrade(MODULE_TYPE_KERNEL, nullptr, "/none", STORAGE_TYPE_MMC),
        PAL_OTA_Upgrade(MODULE_TYPE_KERNEL, "kernel", nullptr, STORAGE_TYPE_MMC),
        PAL_OTA_UpgradeByOffset(MODULE_TYPE_KERNEL, nullptr, "", 0, 1, STORAGE_TYPE_MMC),
        ota.upgradeByOffset(MODULE_TYPE_KERNEL, nullptr, "", 0, 1, STORAGE_TYPE_MMC),
        ota.openPartition(nullptr, 0, STORAGE_TYPE_MMC, &fd),
        ota.openPartition("kernel", O_RDWR, STORAGE_TYPE_MMC, &fd),
        ota.erasePartition(nullptr, STORAGE_TYPE_MMC)};
    EXPECT_EQ(std::vector<int32_t>(guarded), std::vector<int32_t>(10, 2));
    EXPECT_EQ(read_file(BY_NAME + "kernel"), "old");
    EXPECT_EQ(NV_INTERFACE.init() + NV_INTERFACE.deinit(), 0);
    EXPECT_EQ(flash_mmc_write_sector_partition("kernel", "", 1, UINT_MAX), -1);
    EXPECT_EQ(flash_mtd_erase_write_partition_by_offset(nullptr, nullptr, 0, 1), FLASH_OK);
    EXPECT_EQ(flash_mtd_erase_write_partition_by_offset(nullptr, "", 0, 1), FLASH_NO_DEVICE);
    write_file("/tmp/proc_mtd", "mtd7: 1 1 \"dtb\"");
    write_file("/dev/mtd7", "");
    devices.ioctl = [](int, unsigned long, void*) { return 0; };
    EXPECT_EQ(flash_mtd_erase_write_partition_by_offset("dtb", nullptr, 0, 1), FLASH_OK);
    devices = {};
    EXPECT_EQ(PAL_Pmu_Init(0), PAL_PMU_NO_INTERFACE);
    CapturedOutput report;
    EXPECT_EQ(PAL_LED_Init() + PAL_LED_Init(), 1);
    EXPECT_TRUE(contains(report.take(), "PAL error PAL_LED_Init"));
    T31_LED_INTERFACE.deinit(0);
    EXPECT_EQ(parse_mtd_table_line("mtd99999999999999999999: \"a\"")->number, 0);
    EXPECT_EQ(parse_mtd_table_line(": d5 \"a\"b\"")->number, 0);
}

TEST(Ota, SlotSwitchRunsTheScriptOfTheOtherSlot) {
    CapturedOutput output;
    for (const auto& [answer, code] : {std::pair("A\n", 0), {"B\n", 0}, {"ab\ncd", 4}, {"", 4}}) {
        bootSlot = answer;
        EXPECT_EQ(PAL_OTA_AB_SWITCH(-1, 0), code);
    }
    EXPECT_EQ(PAL_OTA_AB_SWITCH(-2, 0), 2);
    std::string printed = without_source_lines(output.take());
    std::ranges::replace(printed, '\0', '0');
    EXPECT_EQ(printed, read_file(TEXTS "expected/slot_switch.txt"));
}

TEST(Ota, OperationsWaitForEachOther) {
    g_slow_query = 1;
    std::thread holder([] { PAL_OTA_AB_SWITCH(0, 0); });
    EXPECT_TRUE(eventually(10000, [] { return g_slow_query == 2; }));
    EXPECT_EQ(PAL_OTA_Init(), 0);
    EXPECT_EQ(g_slow_query, 3);
    holder.join();
    EXPECT_EQ(PAL_OTA_DeInit(), 0);
}

TEST(Nv, FactoryCacheIsFilledOnceTheNodeIsThere) {
    const std::string data = pattern_bytes(4096, 7);
    for (const size_t size : {4096U, 100U, 0U}) {
        std::string expected = data.substr(0, size);
        write_file(BY_NAME + "nv_factory", expected);
        const Faults faults({{"open", 1, ENOENT}, {"open", 2, ENOENT}});
        EXPECT_EQ(PAL_NV_Init(), 0);
        EXPECT_EQ(Faults::calls("open"), 4);
        expected.resize(PalNvFactoryCache.size());
        EXPECT_EQ(memcmp(PalNvFactoryCache.data(), expected.data(), expected.size()), 0);
    }
    const Faults faults({{"open", -1, ENOENT}});
    EXPECT_EQ(PAL_NV_Init(), 5);
    EXPECT_EQ(Faults::calls("open"), 1001);
    EXPECT_EQ(Faults::calls("usleep"), 1000 * 5000);
}

}  // namespace

// Fakes of the daemon's client: print the command and its time-out in milliseconds.
int32_t popen_call(const char* cmd, void* output, int32_t outputSize, int32_t timeoutMs) {
    printf("popen %d bytes, %d: %s\n", outputSize, timeoutMs, cmd);
    if (g_slow_query == 1) {
        g_slow_query = 2;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        g_slow_query = 3;
    }
    memcpy(output, bootSlot.data(), bootSlot.size());
    return static_cast<int32_t>(bootSlot.size());
}

int32_t system_call(const char* cmd, int32_t timeoutMs) {
    printf("system %d: %s\n", timeoutMs, cmd);
    return 0;
}
