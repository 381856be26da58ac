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

constexpr uint32_t MMC = STORAGE_TYPE_MMC;
constexpr uint32_t MTD = STORAGE_TYPE_MTD;
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
    }
    NorChip chip_{12, SIZE,
                  "dev:    size   erasesize  name\n"
                  "mtd0: 00028100 00001000 \"rootfs\"\nmtd12: 00028100 00001000 \"root\"\n"};
};

struct Case {
    uint32_t storage;
    char copies;  // 'r': by range, 'w': whole image, 'b': both
    Fault fault;  // ordinals count from the erase on, which comes before each copy
    int code;     // of the driver by range; its whole-image code is -1 unless the erase failed
    int mapped;   // of the platform by range; it passes the whole-image code unchanged
    const char* message;
    int stored;  // bytes of the image in the partition; -1: not even erased
};

constexpr const char* NO_MMC = "Could not open mmc device:root for write.";
constexpr const char* NO_MTD = "Could not open mtd device:root for write.";
constexpr const char* NO_GEOMETRY = "Could not get mtd device info.";
constexpr const char* NO_IMAGE = "failed to open /tmp/image.";
constexpr const char* NO_STATUS = "failed to get file status.";
constexpr const char* UNREAD = "read file failed!readSize = 0xffffffff";
const Case CASES[] = {
    {MMC, 'b', {"open", 1, ENOENT}, -1, 7, NO_MMC, -1},
    {MMC, 'b', {"open", 2, ENOENT}, -1, 7, NO_MMC, 0},
    {MMC, 'b', {"open", 3, EROFS}, -21, 12, NO_IMAGE, 0},
    {MMC, 'b', {"fstat", 1, EIO}, -22, 13, NO_STATUS, 0},
    {MMC, 'r', {"lseek", 3, EIO}, -24, 15, "partition upgrade file size is too big!!!", 0},
    {MMC, 'w', {"lseek", 3, EIO}, -1, 0, "file size is too big!!!", 0},
    {MMC, 'b', {"lseek", 4, EIO}, -32, 17, UNREAD, 0},
    {MMC, 'b', {"read", 3, EINTR}, -32, 17, UNREAD, 32768},
    {MMC,
     'b',
     {"write", 13, ENOSPC},
     -31,
     17,
     "write flash failed!writeSize = 0xffffffff,readSize=0x4000",
     16384},
    {MMC,
     'b',
     {"write", 14, 0, 100},
     -31,
     17,
     "write flash failed!writeSize = 0x64,readSize=0x1c40",
     32868},
    {MTD, 'b', {"fopen", 1, EACCES}, -1, 9, NO_MTD, -1},
    {MTD, 'b', {"ioctl", 1, EINVAL}, -2, 10, NO_GEOMETRY, -1},
    {MTD, 'b', {"ioctl", 2, EIO}, -3, 11, "failed to erase MTD.", -1},
    {MTD, 'b', {"fopen", 2, EMFILE}, -11, 9, NO_MTD, 0},
    {MTD, 'b', {"ioctl", 3, EINVAL}, -13, 10, NO_GEOMETRY, 0},
    {MTD, 'b', {"open", 3, EROFS}, -21, 12, NO_IMAGE, 0},
    {MTD, 'b', {"fstat", 1, EIO}, -22, 13, NO_STATUS, 0},
    {MTD, 'b', {"read", 1, EIO}, -25, 16, "read file failed.", 0},
    {MTD,
     'r',
     {"write", 2, 0, 9},
     -31,
     17,
     "write flash failed! writeSize = 0x9, readSize=0x4000",
     16393},
    {MTD,
     'w',
     {"write", 3, 0, 9},
     -1,
     0,
     "write flash failed!writeSize = 0x9,readSize=0x1c40",
     32777},
    {MTD,
     'r',
     {"lseek", 2, EIO},
     -32,
     17,
     "read back flash failed! readBackSize = 0xffffffff, writeSize=0x4000",
     16384},
    {MTD,
     'r',
     {"read", 4, 0, 5},
     -32,
     17,
     "read back flash failed! readBackSize = 0x5, writeSize=0x4000",
     32768},
};

// What the drivers reported at this level, "message" per line.
std::string reports(const std::string& output, const std::string& level) {
    std::string text;
    for (const std::string& line : lines_of(output)) {
        const size_t at =
            std::min(line.find("FLASH_MMC 1 " + level), line.find("FLASH_MTD 2 " + level));
        text += at == std::string::npos ? "" : line.substr(at + 14) + "\n";
    }
    return text;
}

int upgrade(uint32_t storage, bool whole, bool platform) {
    if (platform) {
        return whole ? PAL_OTA_Upgrade(MODULE_TYPE_ROOTFS, "root", IMAGE, storage)
                     : PAL_OTA_UpgradeByOffset(MODULE_TYPE_ROOTFS, "root", IMAGE, 100, 40000,
                                               storage);
    }
    if (storage == MMC) {
        return whole ? flash_mmc_erase_write_partion("root", IMAGE)
                     : flash_mmc_erase_write_partion_by_offset("root", IMAGE, 100, 40100);
    }
    return whole ? flash_mtd_erase_write_partion("root", IMAGE)
                 : flash_mtd_erase_write_partition_by_offset("root", IMAGE, 100, 40000);
}

TEST_F(Flash, FaultsGiveTheirCodeAndMessageThroughDriverAndPlatform) {
    const int descriptors = open_descriptors();
    for (const Case& c : CASES) {
        for (int way = 0; way < 4; ++way) {
            const bool whole = way % 2 == 1;
            const bool platform = way > 1;
            if (c.copies == (whole ? 'r' : 'w')) {
                continue;
            }
            write_file(PART, OLD);
            chip_.set_content(OLD);
            write_file(IMAGE, whole ? PACKAGE.substr(100, 40000) : PACKAGE);
            CapturedOutput output;
            int code = 0;
            {
                const Faults faults({c.fault});
                code = upgrade(c.storage, whole, platform);
            }
            const bool erased = c.stored >= 0;
            std::string errors = c.message + std::string("\n");
            errors += !erased                     ? "failed to erase partion root\n"
                      : c.storage == MMC || whole ? "failed to write partion root\n"
                                                  : "";
            std::string content = PACKAGE.substr(100, static_cast<size_t>(std::max(c.stored, 0)));
            content.resize(SIZE, !erased ? 'o' : c.storage == MMC ? '\0' : '\xff');
            EXPECT_EQ(reports(output.take(), "4 "), errors) << way;
            EXPECT_EQ(code, whole && erased      ? -1
                            : whole || !platform ? c.code
                                                 : c.mapped)
                << errors;
            EXPECT_TRUE((c.storage == MMC ? read_file(PART) : chip_.content()) == content)
                << errors;
        }
    }
    EXPECT_EQ(open_descriptors(), descriptors);
}

TEST_F(Flash, MmcCopiesUpToThePartitionsSizeAndPrintsEachTenth) {
    const std::string image = PACKAGE.substr(0, SIZE);
    const std::string report = "hal error flash_mmc_write_partition,#,FLASH_MMC 1 2 ";
    std::string expected = report + "flash_mmc_write_partition.\n" + report +
                           "mmc size = 0x28100,file size = 0x28100\n";
    for (const int percent : {10, 20, 30, 40, 50, 60, 70, 80, 90, 100, 100}) {
        expected += ">>> write flash progress " + std::to_string(percent) + "%.\n";
    }
    write_file(IMAGE, image);
    devices.write = [](int fd, std::string&) { EXPECT_NE(fcntl(fd, F_GETFL) & O_DSYNC, 0); };
    CapturedOutput output;
    EXPECT_EQ(flash_mmc_write_partition("root", IMAGE), 0);
    EXPECT_EQ(without_source_lines(output.take()), expected + report + "write flash complete!!\n");
    write_file(IMAGE, image + "y");
    EXPECT_EQ(flash_mmc_write_partition("root", IMAGE), -1);
    write_file(IMAGE, "");
    CapturedOutput empty;
    EXPECT_EQ(flash_mmc_write_partition("root", IMAGE), 0);
    EXPECT_EQ(lines_of(empty.take())[2], ">>> write flash progress 100%.");
    EXPECT_TRUE(read_file(PART) == image);
}

TEST_F(Flash, MmcRangesThatCannotBeAreRefusedAndAShortPackageIsNot) {
    for (const auto& [start, end] : {std::pair(512, 512),
                                     {INT_MIN, INT_MIN + 256},
                                     {-256, 256},
                                     {INT_MIN, INT_MAX},
                                     {INT_MAX - 255, INT_MIN}}) {
        EXPECT_EQ(flash_mmc_erase_write_partion_by_offset("root", IMAGE, start, end), -1);
    }
    EXPECT_EQ(flash_mmc_write_partition_by_offset("root", IMAGE, 0, 0), -23);
    EXPECT_EQ(flash_mmc_write_partition_by_offset("root", IMAGE, 0, INT_MIN), -23);
    EXPECT_EQ(flash_mmc_write_partition_by_offset("root", IMAGE, 0, SIZE + 1), -24);
    EXPECT_EQ(flash_mmc_write_partition_by_offset("root", IMAGE, -1, 100), -32);
    EXPECT_TRUE(read_file(PART) == OLD);
    CapturedOutput output;
    EXPECT_EQ(flash_mmc_write_partition_by_offset("root", IMAGE, 190000, 20000), 0);
    EXPECT_NE(output.take().find("progress 50%.\nhal"), std::string::npos);
    EXPECT_TRUE(read_file(PART) == PACKAGE.substr(190000) + OLD.substr(10000));
    EXPECT_EQ(flash_mmc_erase_write_partion_by_offset("root", IMAGE, 7, SIZE + 7), 0);
    EXPECT_TRUE(read_file(PART) == PACKAGE.substr(7, SIZE));
}

TEST_F(Flash, MmcEraseOfABlockDeviceIsOneRequestAndElseWritesZeros) {
    devices = {};
    const auto erase = [](int writes, std::vector<Fault> refusal) {
        const Faults faults(std::move(refusal));
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
    EXPECT_EQ(write(disk.get(), OLD.data(), 40960), 40960);
    erase(3, {{"ioctl", 1, EOPNOTSUPP}});
    EXPECT_EQ(system((std::string("losetup --detach $(readlink ") + PART + ")").c_str()), 0);
}

TEST_F(Flash, MmcSectorsEndAtTheirLimitAndShortTransfersAreCounts) {
    char buffer[200] = {};
    EXPECT_EQ(flash_mmc_write_sector_partition("root", buffer, 65436, 100), 100);
    EXPECT_EQ(read_file(PART).substr(65435, 102), "o" + std::string(100, '\0') + "o");
    EXPECT_EQ(flash_mmc_read_sector("root", buffer, SIZE - 72, sizeof(buffer)), 72);
    CapturedOutput output;
    EXPECT_EQ(flash_mmc_write_sector_partition("root", buffer, 65437, 100), -1);
    EXPECT_EQ(flash_mmc_write_sector_partition("root", buffer, 1, UINT_MAX), -1);
    EXPECT_EQ(flash_mmc_read_sector("root", buffer, -1, 10), -1);
    EXPECT_EQ(flash_mmc_read_sector("none", buffer, 0, 10), -1);
    const Faults faults({{"write", 1, EIO}, {"write", 2, 0, 7}});
    EXPECT_EQ(flash_mmc_write_sector_partition("root", buffer, 0, 10), -1);
    EXPECT_EQ(flash_mmc_write_sector_partition("root", buffer, 0, 10), 7);
    const std::string printed = output.take();
    EXPECT_EQ(reports(printed, "4 "),
              "too much data!!!\ntoo much data!!!\nReading from mmc failed\n"
              "Could not open mmc device:none for read.\nwrite sector fail,ret = -1!!!\n");
    EXPECT_TRUE(printed.ends_with(" ----------------------------> nv write end!\n\n"));
}

std::string tenths(int first) {
    std::string text;
    for (int percent = first; percent <= 100; percent += 10) {
        text += "write flash progress " + std::to_string(percent) + "%.\n";
    }
    return text + "write flash complete!!\n";
}

TEST_F(Flash, MtdWornCellIsFoundAtItsChunkAndASoundOneIsNot) {
    const std::string image = PACKAGE.substr(7, SIZE);
    chip_.wornCells[20000] = static_cast<char>(~image[20000]);
    CapturedOutput output;
    EXPECT_EQ(flash_mtd_erase_write_partition_by_offset("root", IMAGE, 7, SIZE), -33);
    EXPECT_TRUE(output.take().ends_with("write and read back data not match!\n"));
    EXPECT_TRUE(chip_.content().substr(0, 16384) == image.substr(0, 16384));
    EXPECT_EQ(chip_.content().substr(32768).find_first_not_of('\xff'), std::string::npos);
    EXPECT_EQ(PAL_OTA_UpgradeByOffset(MODULE_TYPE_ROOTFS, "root", IMAGE, 7, SIZE, MTD), 17);
    chip_.wornCells.clear();
    CapturedOutput sound;
    EXPECT_EQ(flash_mtd_erase_write_partition_by_offset("root", IMAGE, 7, SIZE), 0);
    EXPECT_TRUE(reports(sound.take(), "2 ").ends_with("data len = 164096\n" + tenths(0)));
    EXPECT_TRUE(chip_.content() == image);
}

TEST_F(Flash, MtdImagesUpToThePartitionAreWrittenAfterOneErase) {
    write_file(IMAGE, PACKAGE.substr(0, SIZE));
    CapturedOutput output;
    EXPECT_EQ(flash_mtd_erase_write_partion("root", IMAGE), 0);
    EXPECT_EQ(reports(output.take(), "2 "),
              "flash_mtd_erase_partition.\nmtd size = 0x28100\nerase ok.\n"
              "flash_mtd_write_partition.\nmtd size = 0x28100,file size = 0x28100\n" +
                  tenths(10));
    EXPECT_TRUE(chip_.content() == PACKAGE.substr(0, SIZE));
    write_file(IMAGE, PACKAGE.substr(0, SIZE + 1));
    EXPECT_EQ(flash_mtd_erase_write_partion("root", IMAGE), -1);
    EXPECT_EQ(chip_.content().find_first_not_of('\xff'), std::string::npos);
}

TEST_F(Flash, MtdRangesAreCheckedAgainstPackageAndPartition) {
    const std::string done = "write flash complete!!\n";
    for (const auto& [offset, length, code, report, stored] :
         {std::tuple(uint64_t{0}, uint64_t{0}, 0, done, 0U),
          {0, SIZE + 1, -24, "file size is too big!!!\n", 0},
          {0, 200001, -23, "data len is too big!!!\n", 0},
          {0, UINT64_MAX, -23, "data len is too big!!!\n", 0},
          {199000, 10000, 0, done, 1000},  // the package ends first
          {UINT32_MAX, 100, 0, done, 0},
          {UINT64_MAX, 100, -25, "read file failed.\n", 0}}) {
        CapturedOutput output;
        EXPECT_EQ(flash_mtd_erase_write_partition_by_offset("root", IMAGE, offset, length), code);
        EXPECT_TRUE(output.take().ends_with(report)) << length;
        std::string expected = PACKAGE.substr(PACKAGE.size() - stored);
        expected.resize(SIZE, '\xff');
        EXPECT_TRUE(chip_.content() == expected) << length;
    }
}

TEST_F(Flash, MtdPartitionsAreFoundByWholeNameAtEitherPath) {
    const std::string longName(70, 'n');
    write_file("/tmp/proc_mtd",
               "\"\n\nmtd7: 1 2 noname\nmtd8: 1 2 \"\"\nmtd9: 1 2 \"open\nmtd3: 1 2 \"" + longName +
                   "\"root\"\n" + read_file("/tmp/proc_mtd") + "mtd4: 1 2 \"last\"");
    for (const auto& [part, opened] : std::map<std::string, std::vector<std::string>>{
             {"root", {"/proc/mtd", "/dev/mtd/12"}},
             {"rootfs", {"/proc/mtd", "/dev/mtd/0", "/dev/mtd0"}},
             {"last", {"/proc/mtd", "/dev/mtd/4", "/dev/mtd4"}},
             {"", {"/proc/mtd", "/dev/mtd/8", "/dev/mtd8"}},
             {"roo", {"/proc/mtd"}},
             {"open", {"/proc/mtd"}}}) {
        const Faults faults({});
        EXPECT_EQ(corvo::UniqueFd(flash_mtd_open(part.c_str(), 0)).valid(), part == "root");
        EXPECT_EQ(Faults::opened(), opened);
    }
    EXPECT_EQ(parse_mtd_table_line("mtd99999999999999999999: \"a\"")->number, 0);
    EXPECT_EQ(parse_mtd_table_line(": d5 \"a\"b\"")->number, 0);
}

}  // namespace
