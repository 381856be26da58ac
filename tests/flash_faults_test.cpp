// Every failure of the two flash drivers at its place: the driver's code and message, what the
// platform makes of the code, what the flash holds then, and that nothing stays open.
#include <errno.h>
#include <gtest/gtest.h>

#include "faults.h"
#include "files.h"
#include "hal/flash_mmc.h"
#include "hal/flash_mtd.h"
#include "nor_chip.h"
#include "pal/pal_ota.h"

namespace {

constexpr uint32_t MMC = STORAGE_TYPE_MMC;
constexpr uint32_t MTD = STORAGE_TYPE_MTD;
constexpr uint32_t SIZE = 40960;  // of the partition
constexpr const char* IMAGE = "/tmp/image";
constexpr const char* PART = "/dev/block/by-name/root";

struct Case {
    uint32_t storage;
    char copies;  // 'r': by range, 'w': whole image, 'b': both
    Fault fault;  // ordinals count from the erase on, which comes before each copy
    int code;     // of the driver by range; its whole-image code is -1 unless the erase failed
    int mapped;   // of the platform by range; it passes the whole-image code unchanged
    const char* message;
    int stored;  // bytes of the image in the partition; -1: not even erased
};

const Case CASES[] = {
    {MMC, 'b', {"open", 1, ENOENT}, -1, 7, "Could not open mmc device:root for write.", -1},
    {MMC, 'b', {"open", 2, ENOENT}, -1, 7, "Could not open mmc device:root for write.", 0},
    {MMC, 'b', {"open", 3, EROFS}, -21, 12, "failed to open /tmp/image.", 0},
    {MMC, 'b', {"fstat", 1, EIO}, -22, 13, "failed to get file status.", 0},
    {MMC, 'r', {"lseek", 3, EIO}, -24, 15, "partition upgrade file size is too big!!!", 0},
    {MMC, 'w', {"lseek", 3, EIO}, -1, 0, "file size is too big!!!", 0},
    {MMC, 'b', {"lseek", 4, EIO}, -32, 17, "read file failed!readSize = 0xffffffff", 0},
    {MMC,
     'b',
     {"lseek", 5, EIO},
     -31,
     17,
     "write flash failed!writeSize = 0xffffffff,readSize=0x0",
     0},
    {MMC, 'b', {"read", 3, EINTR}, -32, 17, "read file failed!readSize = 0xffffffff", 32768},
    {MMC,
     'b',
     {"write", 5, ENOSPC},
     -31,
     17,
     "write flash failed!writeSize = 0xffffffff,readSize=0x4000",
     16384},
    {MMC,
     'b',
     {"write", 6, 0, 100},
     -31,
     17,
     "write flash failed!writeSize = 0x64,readSize=0x1c40",
     32868},
    {MTD, 'b', {"open", 1, EACCES}, -1, 9, "Could not open mtd device:root for write.", -1},
    {MTD, 'b', {"fopen", 1, EACCES}, -1, 9, "Could not open mtd device:root for write.", -1},
    {MTD, 'b', {"ioctl", 1, EINVAL}, -2, 10, "Could not get mtd device info.", -1},
    {MTD, 'b', {"ioctl", 2, EIO}, -3, 11, "failed to erase MTD.", -1},
    {MTD, 'b', {"fopen", 2, EMFILE}, -11, 9, "Could not open mtd device:root for write.", 0},
    {MTD, 'b', {"ioctl", 3, EINVAL}, -13, 10, "Could not get mtd device info.", 0},
    {MTD, 'b', {"open", 3, EROFS}, -21, 12, "failed to open /tmp/image.", 0},
    {MTD, 'b', {"fstat", 1, EIO}, -22, 13, "failed to get file status.", 0},
    {MTD, 'r', {"lseek", 1, EIO}, -25, 16, "read file failed.", 0},
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

// The failure messages of the drivers among what was printed.
std::string errors_in(const std::string& output) {
    std::string errors;
    for (const std::string& line : lines_of(output)) {
        for (const std::string mark : {"FLASH_MMC 1 4 ", "FLASH_MTD 2 4 "}) {
            const size_t at = line.find(mark);
            errors += at == std::string::npos ? "" : line.substr(at + mark.size()) + "\n";
        }
    }
    return errors;
}

int run(const Case& c, bool whole, bool platform) {
    if (platform) {
        return whole ? PAL_OTA_Upgrade(MODULE_TYPE_ROOTFS, "root", IMAGE, c.storage)
                     : PAL_OTA_UpgradeByOffset(MODULE_TYPE_ROOTFS, "root", IMAGE, 100, 40000,
                                               c.storage);
    }
    if (c.storage == MMC) {
        return whole ? flash_mmc_erase_write_partion("root", IMAGE)
                     : flash_mmc_erase_write_partion_by_offset("root", IMAGE, 100, 40100);
    }
    return whole ? flash_mtd_erase_write_partion("root", IMAGE)
                 : flash_mtd_erase_write_partition_by_offset("root", IMAGE, 100, 40000);
}

void check(const Case& c, bool whole, bool platform, NorChip& chip) {
    const std::string package = pattern_bytes(65536, 1);
    const std::string old(SIZE, 'o');
    write_file(PART, old);
    chip.set_content(old);
    write_file(IMAGE, whole ? package.substr(100, 40000) : package);
    const int descriptors = open_descriptors();
    int code = 0;
    std::string output;
    {
        CapturedOutput captured;
        const Faults faults({c.fault});
        code = run(c, whole, platform);
        output = captured.take();
    }
    const bool erased = c.stored >= 0;
    const std::string wrapper = !erased                     ? "failed to erase partion root\n"
                                : c.storage == MMC || whole ? "failed to write partion root\n"
                                                            : "";
    EXPECT_EQ(errors_in(output), c.message + ("\n" + wrapper));
    EXPECT_EQ(code, whole ? (erased ? -1 : c.code) : platform ? c.mapped : c.code);
    EXPECT_EQ(open_descriptors(), descriptors);
    const auto stored = static_cast<size_t>(std::max(c.stored, 0));
    const char rest = !erased ? 'o' : c.storage == MMC ? '\0' : '\xff';
    EXPECT_TRUE((c.storage == MMC ? read_file(PART) : chip.content()) ==
                package.substr(100, stored) + std::string(SIZE - stored, rest));
}

TEST(FlashFaults, GiveTheirCodeAndMessageThroughDriverAndPlatform) {
    NorChip chip(12, SIZE, "mtd12: 0000a000 00001000 \"root\"\n");
    for (const Case& c : CASES) {
        for (const bool platform : {false, true}) {
            SCOPED_TRACE(std::string(c.storage == MMC ? "mmc " : "mtd ") + c.fault.call +
                         std::to_string(c.fault.ordinal) + (platform ? " platform" : " driver"));
            if (c.copies != 'r') {
                check(c, true, platform, chip);
            }
            if (c.copies != 'w') {
                check(c, false, platform, chip);
            }
        }
    }
}

}  // namespace
