// The eMMC driver over partitions that are files, and over a loop device where there is one.
#include "hal/flash_mmc.h"

#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <limits.h>
#include <stdlib.h>
#include <unistd.h>

#include "faults.h"
#include "files.h"

namespace {

constexpr const char* PART = "/dev/block/by-name/kernel";
constexpr const char* IMAGE = "/tmp/image";
const std::string OLD = pattern_bytes(40960, 1);
const std::string PACKAGE = pattern_bytes(65536, 2);

class FlashMmc : public testing::Test {
  protected:
    void SetUp() override {
        unlink(PART);
        write_file(PART, OLD);
        write_file(IMAGE, PACKAGE);
    }
};

TEST_F(FlashMmc, CopiesUpToThePartitionsSizeAndPrintsEachTenth) {
    const std::string image = pattern_bytes(1 << 20, 3);
    const std::string report = "hal error flash_mmc_write_partition,#,FLASH_MMC 1 2 ";
    std::string expected = report + "flash_mmc_write_partition.\n" + report +
                           "mmc size = 0x100000,file size = 0x100000\n";
    for (const int percent : {10, 20, 30, 40, 50, 60, 70, 80, 90, 100, 100}) {
        expected += ">>> write flash progress " + std::to_string(percent) + "%.\n";
    }
    write_file(PART, std::string(image.size(), 'x'));
    write_file(IMAGE, image);
    devices.write = [](int fd, std::string&) { EXPECT_NE(fcntl(fd, F_GETFL) & O_DSYNC, 0); };
    CapturedOutput output;
    EXPECT_EQ(flash_mmc_write_partition("kernel", IMAGE), 0);
    devices = {};
    EXPECT_EQ(without_source_lines(output.take()), expected + report + "write flash complete!!\n");
    EXPECT_TRUE(read_file(PART) == image);
    write_file(IMAGE, image + "y");
    EXPECT_EQ(flash_mmc_write_partition("kernel", IMAGE), -1);
    write_file(IMAGE, "");
    CapturedOutput empty;
    EXPECT_EQ(flash_mmc_write_partition("kernel", IMAGE), 0);
    EXPECT_EQ(lines_of(empty.take())[2], ">>> write flash progress 100%.");
    EXPECT_TRUE(read_file(PART) == image);
}

TEST_F(FlashMmc, RangesThatCannotBeAreRefusedAndAShortPackageIsNot) {
    for (const auto& [start, end] : {std::pair(512, 512),
                                     {512, 511},
                                     {INT_MIN, INT_MIN + 256},
                                     {-256, 256},
                                     {INT_MIN, INT_MAX},
                                     {INT_MAX - 255, INT_MIN}}) {
        EXPECT_EQ(flash_mmc_erase_write_partion_by_offset("kernel", IMAGE, start, end), -1);
    }
    for (const auto& [offset, length, code] :
         {std::tuple(0, 0, -23), {0, INT_MIN, -23}, {0, 40961, -24}, {-1, 100, -32}}) {
        EXPECT_EQ(flash_mmc_write_partition_by_offset("kernel", IMAGE, offset, length), code);
    }
    EXPECT_TRUE(read_file(PART) == OLD);
    CapturedOutput output;
    EXPECT_EQ(flash_mmc_write_partition_by_offset("kernel", IMAGE, 45536, 40000), 0);
    EXPECT_NE(output.take().find("progress 50%.\nhal"), std::string::npos);
    EXPECT_TRUE(read_file(PART) == PACKAGE.substr(45536) + OLD.substr(20000));
    EXPECT_EQ(flash_mmc_erase_write_partion_by_offset("kernel", IMAGE, 7, 40967), 0);
    EXPECT_TRUE(read_file(PART) == PACKAGE.substr(7, 40960));
}

TEST_F(FlashMmc, EraseOfABlockDeviceIsOneRequestAndElseWritesZeros) {
    const auto erase = [](int writes, std::vector<Fault> refusal) {
        const Faults faults(std::move(refusal));
        EXPECT_EQ(flash_mmc_erase_partition("kernel"), 0);
        EXPECT_EQ(Faults::calls("write"), writes);
        EXPECT_EQ(Faults::calls("fdatasync"), writes == 0 ? 1 : 0);
        EXPECT_TRUE(read_file(PART) == std::string(OLD.size(), '\0'));
    };
    erase(3, {});
    write_file("/tmp/disk", OLD);
    const std::string attach = "disk=$(losetup --find --show /tmp/disk 2>&1) && ln -sf $disk ";
    if (system((attach + PART).c_str()) != 0) {
        GTEST_SKIP() << "no loop devices here: the request to zero a block device is not tested";
    }
    erase(0, {});
    const corvo::UniqueFd disk(open(PART, O_WRONLY | O_DSYNC));
    EXPECT_EQ(write(disk.get(), OLD.data(), OLD.size()), static_cast<ssize_t>(OLD.size()));
    erase(3, {{"ioctl", 1, EOPNOTSUPP}});
    EXPECT_EQ(system((std::string("losetup --detach $(readlink ") + PART + ")").c_str()), 0);
}

TEST_F(FlashMmc, SectorsEndAtTheirLimitAndShortTransfersAreCounts) {
    write_file(PART, std::string(131072, 'o'));
    char buffer[200] = {};
    EXPECT_EQ(flash_mmc_write_sector_partition("kernel", buffer, 65436, 100), 100);
    EXPECT_EQ(read_file(PART).substr(65435, 102), "o" + std::string(100, '\0') + "o");
    EXPECT_EQ(flash_mmc_read_sector("kernel", buffer, 131000, sizeof(buffer)), 72);
    CapturedOutput output;
    EXPECT_EQ(flash_mmc_write_sector_partition("kernel", buffer, 65437, 100), -1);
    EXPECT_EQ(flash_mmc_write_sector_partition("kernel", buffer, 1, UINT_MAX), -1);
    EXPECT_EQ(flash_mmc_read_sector("kernel", buffer, -1, 10), -1);
    EXPECT_EQ(flash_mmc_read_sector("none", buffer, 0, 10), -1);
    const Faults faults({{"write", 1, EIO}, {"write", 2, 0, 7}});
    EXPECT_EQ(flash_mmc_write_sector_partition("kernel", buffer, 0, 10), -1);
    EXPECT_EQ(flash_mmc_write_sector_partition("kernel", buffer, 0, 10), 7);
    const std::string write = "hal error flash_mmc_write_sector_partition,#,FLASH_MMC 1 ";
    const std::string read = "hal error flash_mmc_read_sector,#,FLASH_MMC 1 4 ";
    EXPECT_EQ(without_source_lines(output.take()),
              write + "4 too much data!!!\n" + write + "4 too much data!!!\n" + read +
                  "Reading from mmc failed\n\n" + read +
                  "Could not open mmc device:none for read.\n" + write +
                  "4 write sector fail,ret = -1!!!\n" + write +
                  "2 ----------------------------> nv write end!\n\n");
}

}  // namespace
