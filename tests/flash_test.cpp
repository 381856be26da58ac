// The two flash drivers: every failure at its place through the driver and through the platform,
// and their bounds. eMMC partitions are files and a loop device, raw flash is an emulated NOR chip.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <stdlib.h>
#include <unistd.h>

#include "faults.h"
#include "files.h"
#include "hal/flash_mmc.h"
#include "hal/flash_mtd.h"
#include "mtd_table.h"
#include "nor_chip.h"
#include "pal/pal_ota.h"

namespace {

constexpr uint32_t SIZE = 164096;  // of the partitions; more than ten chunks
constexpr const char* PART = "/dev/block/by-name/root";
constexpr const char* IMAGE = "/tmp/image";
const std::string OLD(SIZE, 'o');
const std::string PACKAGE = pattern_bytes(200000, 1);

class Flash : public testing::Test {
  protected:
    void SetUp() override {
        unlink(PART);
        write_file(PART, OLD);
        write_file(IMAGE, PACKAGE);
        chip_.install(
            "dev:    size   erasesize  name\n"
            "mtd0: 00028100 00001000 \"rootfs\"\nmtd12: 00028100 00001000 \"root\"\n");
    }
    NorChip chip_{"/dev/mtd/12", SIZE};
};

// The package's bytes from `offset` on are written as an image of their own, or as a range of it.
struct Request {
    bool mtd;
    bool whole;
    int64_t offset;
    int64_t length;
};

int by_driver(const Request& r) {
    const auto start = static_cast<int>(r.offset);
    const auto end = static_cast<int>(r.offset + r.length);
    if (r.whole) {
        return r.mtd ? flash_mtd_erase_write_partion("root", IMAGE)
                     : flash_mmc_erase_write_partion("root", IMAGE);
    }
    return r.mtd ? flash_mtd_erase_write_partition_by_offset("root", IMAGE,
                                                             static_cast<uint64_t>(r.offset),
                                                             static_cast<uint64_t>(r.length))
                 : flash_mmc_erase_write_partion_by_offset("root", IMAGE, start, end);
}

int by_platform(const Request& r) {
    const uint32_t storage = r.mtd ? STORAGE_TYPE_MTD : STORAGE_TYPE_MMC;
    return r.whole ? PAL_OTA_Upgrade(MODULE_TYPE_ROOTFS, "root", IMAGE, storage)
                   : PAL_OTA_UpgradeByOffset(MODULE_TYPE_ROOTFS, "root", IMAGE,
                                             static_cast<uint32_t>(r.offset),
                                             static_cast<uint32_t>(r.length), storage);
}

// The progress in percent and the drivers' errors.
std::string reported(const std::string& output) {
    std::string text;
    for (const std::string& line : lines_of(output)) {
        for (const std::string report : {"write flash progress ", "_MMC 1 4 ", "_MTD 2 4 "}) {
            const size_t at = line.find(report);
            text += at == std::string::npos ? "" : " " + line.substr(at + report.size());
        }
    }
    return text;
}

TEST_F(Flash, CasesThroughDriverAndPlatform) {
    const int descriptors = open_descriptors();
    expect_cases("flash.txt", [this](std::istream& input) {
        std::string storage, how, call, effect;
        Request request = {};
        Fault fault = {};
        input >> storage >> how >> request.offset >> request.length;
        input >> call >> fault.ordinal >> effect;
        fault.call = call.c_str();
        request.mtd = storage == "mtd";
        request.whole = how == "whole";
        fault.effect = error_number(effect);
        fault.count = strtoul(effect.c_str(), nullptr, 10);
        chip_.wornCell = call == "cell" ? fault.ordinal : -1;
        const auto offset = static_cast<size_t>(std::clamp<int64_t>(request.offset, 0, 200000));
        write_file(IMAGE, request.whole
                              ? PACKAGE.substr(offset, static_cast<size_t>(request.length))
                              : PACKAGE);
        std::string codes;
        std::string rest[2];
        for (const bool platform : {false, true}) {
            write_file(request.mtd ? chip_.path : PART, OLD);
            CapturedOutput output;
            {
                const Faults faults({fault});
                codes += std::to_string(platform ? by_platform(request) : by_driver(request)) + " ";
            }
            const std::string content = read_file(request.mtd ? chip_.path : PART);
            const size_t size = content.find_last_not_of(request.mtd ? '\xff' : '\0') + 1;
            const bool right = content.starts_with(PACKAGE.substr(offset, size));
            rest[platform] =
                content == OLD ? "kept" : std::to_string(size) + (right ? "" : " wrong");
            rest[platform] += reported(output.take());
        }
        EXPECT_EQ(rest[0], rest[1]);
        return codes + rest[0];
    });
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_F(Flash, MtdUpgradesOnTheConsole) {
    CapturedOutput output;
    EXPECT_EQ(by_platform({true, false, 100, 40000}), 0);
    EXPECT_EQ(by_platform({true, true, 0, 0}), -1);
    EXPECT_EQ(without_source_lines(output.take()), read_file(TEXTS "consoles/flash_mtd.txt"));
}

TEST_F(Flash, WritesAreSynchronous) {
    devices.write = [](void*, int fd, char*, size_t) {
        EXPECT_NE(fcntl(fd, F_GETFL) & O_DSYNC, 0);
    };
    for (const bool mtd : {false, true}) {
        EXPECT_EQ(by_driver({mtd, false, 7, 1000}), 0);
        EXPECT_TRUE(read_file(mtd ? chip_.path : PART).starts_with(PACKAGE.substr(7, 1000)));
    }
}

TEST_F(Flash, MmcEraseOfABlockDeviceIsOneRequestAndElseWritesZeros) {
    devices = {};
    const auto erase = [](int writes, const Fault& refusal) {
        const Faults faults({refusal});
        EXPECT_EQ(flash_mmc_erase_partition("root"), 0);
        EXPECT_EQ(Faults::calls("write"), writes);
        EXPECT_EQ(Faults::calls("fdatasync"), writes == 0 ? 1 : 0);
        EXPECT_EQ(read_file(PART).find_last_not_of('\0'), std::string::npos);
    };
    erase(11, {});
    write_file("/tmp/disk", std::string(40960, 'o'));
    const std::string attach = "disk=$(losetup --find --show /tmp/disk 2>&1) && ln -sf $disk ";
    if (system((attach + PART).c_str()) != 0) {
        GTEST_SKIP() << "no loop devices here: the request to zero a block device is not tested";
    }
    erase(0, {});
    const corvo::UniqueFd disk(open(PART, O_WRONLY | O_DSYNC));
    EXPECT_EQ(pwrite(disk.get(), OLD.data(), 40960, 0), 40960);
    erase(3, {"ioctl", 1, EOPNOTSUPP});
    EXPECT_EQ(system((std::string("losetup --detach $(readlink ") + PART + ")").c_str()), 0);
}

TEST_F(Flash, MmcSectorsEndAtTheirLimitAndShortTransfersAreCounts) {
    char buffer[200] = {};
    const Faults faults({{"write", 2, EIO}, {"write", 3, SHORT, 7}, {"read", 2, EIO}});
    CapturedOutput output;
    EXPECT_EQ(flash_mmc_write_sector_partition("root", buffer, 65436, 100), 100);
    EXPECT_EQ(read_file(PART).substr(65435, 102), "o" + std::string(100, '\0') + "o");
    EXPECT_EQ(flash_mmc_read_sector("root", buffer, SIZE - 72, sizeof(buffer)), 72);
    EXPECT_EQ(flash_mmc_write_sector_partition("root", buffer, 65437, 100), -1);
    EXPECT_EQ(flash_mmc_write_sector_partition("root", buffer, 1, UINT_MAX), -1);
    EXPECT_EQ(flash_mmc_read_sector("root", buffer, -1, 10), -1);
    EXPECT_EQ(flash_mmc_read_sector("none", buffer, 0, 10), -1);
    EXPECT_EQ(flash_mmc_write_sector_partition("none", buffer, 0, 10), -1);
    EXPECT_EQ(flash_mmc_write_sector_partition("root", buffer, 0, 10), -1);
    EXPECT_EQ(flash_mmc_write_sector_partition("root", buffer, 0, 10), 7);
    EXPECT_EQ(flash_mmc_read_sector("root", buffer, 0, 10), -1);
    EXPECT_EQ(flash_mmc_write_partition_by_offset("root", IMAGE, 0, 0), FLASH_BAD_LENGTH);
    EXPECT_EQ(reported(output.take()),
              " too much data!!! too much data!!! Reading from mmc failed"
              " Could not open mmc device:none for read. Could not open mmc device:none for write. "
              "write sector fail,ret = -1!!!"
              " Reading from mmc failed partition upgrade file size is zero!!!");
}

TEST_F(Flash, MtdPartitionsAreFoundByWholeNameAtEitherPath) {
    write_file("/tmp/proc_mtd",
               "\"\n\nmtd7: 1 2 noname\nmtd8: 1 2 \"\"\nmtd9: 1 2 \"open\nmtd3: 1 2 \"" +
                   std::string(70, 'n') + "\"root\"\n" + read_file("/tmp/proc_mtd") +
                   "mtd4: 1 2 \"last\"");
    const std::string table = "/proc/mtd ";
    for (const auto& [part, opened] : {std::pair("root", table + "/dev/mtd/12 "),
                                       {"rootfs", table + "/dev/mtd/0 /dev/mtd0 "},
                                       {"last", table + "/dev/mtd/4 /dev/mtd4 "},
                                       {"", table + "/dev/mtd/8 /dev/mtd8 "},
                                       {"roo", table},
                                       {"open", table}}) {
        const Faults faults;
        EXPECT_EQ(corvo::UniqueFd(flash_mtd_open(part, 0)).valid(), part == std::string("root"));
        EXPECT_STREQ(Faults::opened(), opened.c_str());
    }
    EXPECT_EQ(flash_mtd_erase_write_partition_by_offset(nullptr, nullptr, 0, 1), FLASH_OK);
    EXPECT_EQ(flash_mtd_erase_write_partition_by_offset(nullptr, IMAGE, 0, 1), FLASH_NO_DEVICE);
    EXPECT_EQ(flash_mtd_erase_write_partition_by_offset("root", nullptr, 0, 1), FLASH_OK);
    EXPECT_EQ(parse_mtd_table_line("mtd99999999999999999999: \"a\"")->number, 0);
    EXPECT_EQ(parse_mtd_table_line(": d5 \"a\"b\"")->number, 0);
}

}  // namespace
