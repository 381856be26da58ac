// The platform abstraction down to its modules: checks and codes, the slot switch (the daemon's
// client is played here), NV, and the reporters.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <sstream>
#include <thread>

#include "faults.h"
#include "files.h"
#include "nor_chip.h"
#include "nv_factory_cache.h"
#include "pal/pal_nv.h"
#include "pal/pal_ota.h"
#include "pal_common/error_log.h"
#include "registry.h"

namespace {

std::string bootSlot;           // what the boot environment answers
std::atomic<int> slowQuery{0};  // of the boot slot. 1: asked for, 2: runs, 3: done

const std::string BY_NAME = "/dev/block/by-name/";

TEST(Reporters, CutAtTheirLimits) {
    const std::string text(1200, 'a');
    CapturedOutput output;
    PAL_ErrorLog("f", 7, "TAG", 3, 2, "%.600s", text.c_str());
    HAL_ErrorLog("f", 7, "TAG", 3, 4, "%s", text.c_str());
    EXPECT_EQ(output.take(), "PAL error f,7,TAG 3 2 " + text.substr(0, 508) +
                                 "\nhal error f,7,TAG 3 4 " + text.substr(0, 1020) + "\n");
}

TEST(Pal, UpgradesAreCheckedBeforeAnythingIsWritten) {
    write_file("/tmp/image", "new");
    expect_cases("upgrade_arguments.txt", [](std::istream& input) {
        uint32_t module = 0;
        uint32_t storage = 0;
        std::string part, image;
        input >> module >> part >> image >> storage;
        const char* const name = part == "null" ? nullptr : part.c_str();
        const char* const path = image == "null" ? nullptr : image.c_str();
        write_file(BY_NAME + "kernel", "old");
        CapturedOutput output;
        std::ostringstream text;
        text << PAL_OTA_UpgradeByOffset(module, name, path, 0, 3, storage) << " "
             << PAL_OTA_Upgrade(module, name, path, storage) << " "
             << read_file(BY_NAME + "kernel");
        for (const std::string& line : lines_of(output.take())) {
            const size_t error = line.find(" 4 ");
            text << (error == std::string::npos ? "" : ", " + line.substr(error + 3));
        }
        return text.str();
    });
}

TEST(Pal, PartitionsOfBothStoragesAreOpenedForReadingOnly) {
    NorChip chip{"/dev/mtd/1", 4096};
    chip.install("mtd1: 00001000 00001000 \"part\"\n");
    write_file(BY_NAME + "part", "x");
    int32_t fd = -7;
    for (const auto& [storage, missing] : {std::pair(STORAGE_TYPE_MMC, 7), {STORAGE_TYPE_MTD, 9}}) {
        EXPECT_EQ(PAL_OTA_OpenPartition("part", 0, storage, &fd), 0);
        EXPECT_EQ(pwrite(fd, "y", 1, 0), -1);
        EXPECT_EQ(close(fd), 0);
        EXPECT_EQ(PAL_OTA_OpenPartition("none", 0, storage, &fd), missing);
        EXPECT_EQ(fd, -1);
        CapturedOutput output;
        EXPECT_EQ(PAL_OTA_OpenPartition("part", O_RDWR, storage, &fd), 2);
        EXPECT_TRUE(output.take().ends_with("PAL_OTA 10 4 Param invalid\n"));
        EXPECT_EQ(PAL_OTA_OpenPartition("part", 0, storage, nullptr), 2);
    }
    EXPECT_EQ(PAL_OTA_OpenPartition("part", 0, 5, &fd), 4);
}

// What the layer above never asks for.
TEST(Ota, ModuleGuardsItsOwnOperations) {
    write_file(BY_NAME + "kernel", "old");
    NorChip chip{"/dev/mtd/1", 4096};
    chip.install("mtd1: 00001000 00001000 \"kernel\"\n");
    const HalOtaInterface& ota = *HAL_OTA_GetInterface(0);
    const struct {
        const char* part;
        uint32_t storage;
        int erased, opened, whole, range;
    } cases[] = {{nullptr, STORAGE_TYPE_MMC, 2, 2, 2, 2},
                 {"kernel", STORAGE_TYPE_MMC, 0, 0, -1, 12},
                 {"kernel", STORAGE_TYPE_MTD, 0, 0, -1, 12},
                 {"kernel", 5, 4, 4, 4, 4}};
    for (const auto& c : cases) {
        int32_t fd = -1;
        EXPECT_EQ(ota.erasePartition(c.part, c.storage), c.erased);
        EXPECT_EQ(ota.openPartition(c.part, 0, c.storage, &fd), c.opened);
        EXPECT_EQ(ota.upgrade(MODULE_TYPE_KERNEL, c.part, "/none", c.storage), c.whole);
        EXPECT_EQ(ota.upgradeByOffset(MODULE_TYPE_KERNEL, c.part, "/none", 0, 1, c.storage),
                  c.range);
        close(fd);
    }
    EXPECT_EQ(read_file(BY_NAME + "kernel"), std::string(3, '\0'));
    EXPECT_EQ(HAL_NV_GetInterface(0)->init() + HAL_NV_GetInterface(0)->deinit(), 0);
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
    EXPECT_EQ(printed, read_file(TEXTS "consoles/slot_switch.txt"));
}

TEST(Ota, OperationsWaitForEachOther) {
    slowQuery = 1;
    std::thread holder([] { PAL_OTA_AB_SWITCH(0, 0); });
    while (slowQuery == 1) {
        std::this_thread::yield();
    }
    EXPECT_EQ(PAL_OTA_Init(), 0);
    EXPECT_EQ(slowQuery, 3);
    holder.join();
    EXPECT_EQ(PAL_OTA_DeInit(), 0);
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
    const Faults faults({{"open", -1, ENOENT}});
    EXPECT_EQ(PAL_NV_Init(), 5);
    EXPECT_EQ(Faults::calls("open"), 1001);
    EXPECT_EQ(Faults::calls("usleep"), 1000 * 5000);
}

}  // namespace

// Both print what they are asked to run, and for how long at the most, milliseconds.
int32_t popen_call(const char* cmd, void* output, int32_t outputSize, int32_t timeoutMs) {
    printf("popen %d bytes, %d: %s\n", outputSize, timeoutMs, cmd);
    if (slowQuery == 1) {
        slowQuery = 2;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        slowQuery = 3;
    }
    memcpy(output, bootSlot.data(), bootSlot.size());
    return static_cast<int32_t>(bootSlot.size());
}

int32_t system_call(const char* cmd, int32_t timeoutMs) {
    printf("system %d: %s\n", timeoutMs, cmd);
    return 0;
}
