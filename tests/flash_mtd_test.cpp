// The raw-flash driver over an emulated NOR chip.
#include "hal/flash_mtd.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include "faults.h"
#include "files.h"
#include "mtd_table.h"
#include "nor_chip.h"

namespace {

constexpr const char* TABLE =
    "dev:    size   erasesize  name\n"
    "mtd0: 00080000 00001000 \"rootfs\"\n"
    "mtd12: 00028100 00001000 \"root\"\n";
constexpr uint32_t SIZE = 164096;
constexpr const char* IMAGE = "/tmp/image";
const std::string PACKAGE = pattern_bytes(200000, 4);

class FlashMtd : public testing::Test {
  protected:
    void SetUp() override { write_file(IMAGE, PACKAGE); }
    NorChip chip_{12, SIZE, TABLE};
};

// The reports of progress and information, without what is the same in all of them.
std::string progress_in(const std::string& output) {
    std::string text;
    for (const std::string& line : lines_of(output)) {
        const size_t at = line.find("FLASH_MTD 2 2 ");
        text += at == std::string::npos ? "" : line.substr(at + 14) + "\n";
    }
    return text;
}

std::string tenths(int first) {
    std::string text;
    for (int percent = first; percent <= 100; percent += 10) {
        text += "write flash progress " + std::to_string(percent) + "%.\n";
    }
    return text + "write flash complete!!\n";
}

TEST_F(FlashMtd, WornCellIsFoundAtItsChunkAndASoundOneIsNot) {
    const std::string image = PACKAGE.substr(7, SIZE);
    chip_.wornCells[20000] = static_cast<char>(~image[20000]);
    CapturedOutput output;
    EXPECT_EQ(flash_mtd_erase_write_partition_by_offset("root", IMAGE, 7, SIZE), -33);
    EXPECT_TRUE(output.take().ends_with("write and read back data not match!\n"));
    EXPECT_TRUE(chip_.content().substr(0, 16384) == image.substr(0, 16384));
    EXPECT_TRUE(chip_.content().substr(32768) == std::string(SIZE - 32768, '\xff'));
    chip_.wornCells.clear();
    CapturedOutput sound;
    EXPECT_EQ(flash_mtd_erase_write_partition_by_offset("root", IMAGE, 7, SIZE), 0);
    EXPECT_TRUE(progress_in(sound.take()).ends_with("data len = 164096\n" + tenths(0)));
    EXPECT_TRUE(chip_.content() == image);
}

TEST_F(FlashMtd, ImagesUpToThePartitionAreWrittenAfterOneErase) {
    const std::string image = PACKAGE.substr(0, SIZE);
    write_file(IMAGE, image);
    CapturedOutput output;
    EXPECT_EQ(flash_mtd_erase_write_partion("root", IMAGE), 0);
    EXPECT_EQ(progress_in(output.take()),
              "flash_mtd_erase_partition.\nmtd size = 0x28100\nerase ok.\n"
              "flash_mtd_write_partition.\nmtd size = 0x28100,file size = 0x28100\n" +
                  tenths(10));
    EXPECT_TRUE(chip_.content() == image);
    write_file(IMAGE, image + "x");
    EXPECT_EQ(flash_mtd_erase_write_partion("root", IMAGE), -1);
    EXPECT_TRUE(chip_.content() == std::string(SIZE, '\xff'));
}

TEST_F(FlashMtd, RangesAreCheckedAgainstPackageAndPartition) {
    const struct {
        uint64_t offset, length;
        int code;
        const char* report;
        size_t stored;
    } cases[] = {
        {0, 0, 0, "write flash complete!!\n", 0},
        {0, SIZE + 1, -24, "file size is too big!!!\n", 0},
        {0, 200001, -23, "data len is too big!!!\n", 0},
        {0, UINT64_MAX, -23, "data len is too big!!!\n", 0},
        {199000, 10000, 0, "write flash complete!!\n", 1000},  // the package ends first
        {UINT32_MAX, 100, 0, "write flash complete!!\n", 0},
        {UINT64_MAX, 100, -25, "read file failed.\n", 0},
    };
    for (const auto& c : cases) {
        CapturedOutput output;
        EXPECT_EQ(flash_mtd_erase_write_partition_by_offset("root", IMAGE, c.offset, c.length),
                  c.code);
        EXPECT_TRUE(output.take().ends_with(c.report)) << c.length;
        std::string expected = PACKAGE.substr(PACKAGE.size() - c.stored);
        expected.resize(SIZE, '\xff');
        EXPECT_TRUE(chip_.content() == expected) << c.length;
    }
}

TEST_F(FlashMtd, PartitionsAreFoundByWholeNameAtEitherPath) {
    write_file("/tmp/proc_mtd",
               "\"\n\nmtd7: 1 2 noname\nmtd8: 1 2 \"\"\nmtd9: 1 2 \"open\nmtd3: 1 2 \"" +
                   std::string(70, 'n') + "\"root\"\n" + TABLE + "mtd4: 1 2 \"last\"");
    const std::pair<const char*, std::vector<std::string>> cases[] = {
        {"root", {"/proc/mtd", "/dev/mtd/12"}},
        {"rootfs", {"/proc/mtd", "/dev/mtd/0", "/dev/mtd0"}},
        {"last", {"/proc/mtd", "/dev/mtd/4", "/dev/mtd4"}},
        {"", {"/proc/mtd", "/dev/mtd/8", "/dev/mtd8"}},
        {"roo", {"/proc/mtd"}},
        {"open", {"/proc/mtd"}},
    };
    for (const auto& [part, opened] : cases) {
        const Faults faults({});
        const corvo::UniqueFd device(flash_mtd_open(part, O_RDONLY));
        EXPECT_EQ(device.valid(), std::string("root") == part);
        EXPECT_EQ(Faults::opened(), opened);
    }
    EXPECT_EQ(parse_mtd_table_line("mtd99999999999999999999: \"a\"")->number, 0);
    EXPECT_EQ(parse_mtd_table_line(": d5 \"a\"b\"")->number, 0);
}

}  // namespace
