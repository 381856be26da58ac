#include "hal/flash_mmc.h"

#include <fcntl.h>
#include <linux/fs.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <limits>

#include "base/ignore_result.h"
#include "base/unique_fd.h"
#include "package_file.h"
#include "pal/error_log.h"

namespace {

constexpr ReportSource REPORT_SOURCE = REPORT_FLASH_MMC;

using Chunk = std::array<char, FLASH_CHUNK_SIZE>;

constexpr size_t DEVICE_PATH_SIZE = 64;  // bytes, terminator included

// O_DSYNC: each chunk is stored on the device before the next one is read. A power cut then never
// leaves a later chunk stored without an earlier one, and a write error is reported at its chunk.
constexpr int WRITE_FLAGS = O_RDWR | O_DSYNC;

constexpr int64_t WHOLE_FILE = std::numeric_limits<int64_t>::max();

// The size to print in a report. The reports were designed for 32-bit sizes: a failed query (-1)
// prints as 0xffffffff, and larger sizes print all their digits.
unsigned long long shown_size(int64_t size) {
    return size < 0 ? UINT32_MAX : static_cast<unsigned long long>(size);
}

// Opens the partition and reports a failure under the name `operation`.
corvo::UniqueFd open_to_write(const char* operation, const char* part) {
    corvo::UniqueFd device(flash_mmc_open(part, WRITE_FLAGS));
    if (!device.valid()) {
        HAL_ERROR_AS(operation, "Could not open mmc device:%s for write.", part);
    }
    return device;
}

struct Copy {
    const char* operation;  // function name in reports
    int source;             // positioned at the first byte to copy
    int target;             // positioned at the partition's start
    int64_t limit;          // maximum number of bytes to copy
    int64_t expected;       // number of bytes that counts as 100 percent; not negative
};

int report_failed_read(const Copy& copy, ssize_t result) {
    HAL_ERROR_AS(copy.operation, "read file failed!readSize = 0x%x", static_cast<unsigned>(result));
    return FLASH_MMC_PACKAGE_UNREAD;
}

int report_failed_write(const Copy& copy, ssize_t written, ssize_t wanted) {
    HAL_ERROR_AS(copy.operation, "write flash failed!writeSize = 0x%x,readSize=0x%x",
                 static_cast<unsigned>(written), static_cast<unsigned>(wanted));
    return FLASH_SHORT_WRITE;
}

// Copies in chunks up to the limit or to the end of the source. Returns FLASH_OK, FLASH_SHORT_WRITE
// or FLASH_MMC_PACKAGE_UNREAD.
int copy_chunks(const Copy& copy, Chunk& chunk) {
    int64_t copied = 0;
    int64_t printedTenth = 0;
    for (;;) {
        const auto wanted = std::min<int64_t>(copy.limit - copied, FLASH_CHUNK_SIZE);
        const ssize_t count = read(copy.source, chunk.data(), static_cast<size_t>(wanted));
        if (count < 0) {
            return report_failed_read(copy, count);
        }
        if (count == 0) {
            break;
        }
        const ssize_t written = write(copy.target, chunk.data(), static_cast<size_t>(count));
        if (written != count) {
            return report_failed_write(copy, written, count);
        }
        copied += count;
        // Avoids a division by zero: an image that was empty at first may grow during the copy.
        const int64_t tenth = copied * 10 / std::max<int64_t>(copy.expected, 1);
        if (tenth != printedTenth) {
            printedTenth = tenth;
            printf(">>> write flash progress %d%%.\n", static_cast<int>(tenth * 10));
        }
    }
    const int64_t percent = copy.expected > 0 ? copied * 100 / copy.expected : 100;
    printf(">>> write flash progress %ld%%.\n", static_cast<long>(percent));
    HAL_INFO_AS(copy.operation, "write flash complete!!");
    return FLASH_OK;
}

// Positions both descriptors and copies. A failed lseek() counts as a failed read or write, because
// copying from or to a wrong position would be worse.
int copy_from(const Copy& copy, int64_t offset, Chunk& chunk) {
    if (lseek(copy.source, offset, SEEK_SET) < 0) {
        return report_failed_read(copy, -1);
    }
    if (lseek(copy.target, 0, SEEK_SET) < 0) {
        return report_failed_write(copy, -1, 0);
    }
    return copy_chunks(copy, chunk);
}

// Lets the kernel fill the range with zeros. Returns false when the device does not support that; a
// regular file never does.
bool zero_by_device(const corvo::UniqueFd& device, int64_t size) {
    uint64_t range[2] = {0, static_cast<uint64_t>(size)};  // start and length: linux/fs.h
    if (ioctl(device.get(), BLKZEROOUT, range) != 0) {
        return false;
    }
    fdatasync(device.get());
    return true;
}

void zero_by_writing(const corvo::UniqueFd& device, int64_t size) {
    const Chunk zeros{};
    lseek(device.get(), 0, SEEK_SET);
    int64_t remaining = size;
    for (; remaining >= int64_t{FLASH_CHUNK_SIZE}; remaining -= FLASH_CHUNK_SIZE) {
        corvo::ignore_result(write(device.get(), zeros.data(), zeros.size()));
    }
    corvo::ignore_result(write(device.get(), zeros.data(), static_cast<size_t>(remaining)));
}

// Fills the whole partition with zeros. First asks the kernel to do so in one request, because
// writing zeros in synchronous 16 KiB chunks, like the copy that follows, would double the time of
// an upgrade.
void zero(const corvo::UniqueFd& device) {
    const int64_t size = flash_mmc_size(device.get());
    if (size >= 0 && !zero_by_device(device, size)) {
        zero_by_writing(device, size);
    }
}

// Returns whether a copy from byte `offset` of the file can begin: the file can be opened, is
// longer than `offset`, and `length` bytes (the file's size if WHOLE_FILE) fit into the partition.
bool copy_can_begin(const corvo::UniqueFd& device, const char* path, int64_t offset,
                    int64_t length) {
    const corvo::UniqueFd file(open(path, WRITE_FLAGS));
    struct stat status = {};
    if (!file.valid() || fstat(file.get(), &status) != 0 || offset >= status.st_size) {
        return false;
    }
    return (length == WHOLE_FILE ? status.st_size : length) <= flash_mmc_size(device.get());
}

// Erases the partition before a copy. If the copy cannot begin, does not erase, because the
// partition may contain the only boot loader; the copy itself then reports the failure. Returns
// FLASH_OK in both cases. When the partition cannot be opened, reports that and returns
// FLASH_FAILED.
int erase_for_copy(const char* part, const char* path, int64_t offset, int64_t length) {
    const corvo::UniqueFd device = open_to_write("flash_mmc_erase_partition", part);
    if (!device.valid()) {
        return FLASH_FAILED;
    }
    if (copy_can_begin(device, path, offset, length)) {
        zero(device);
    }
    return FLASH_OK;
}

}  // namespace

int flash_mmc_open(const char* part, int flags) {
    char path[DEVICE_PATH_SIZE] = {};
    snprintf(path, sizeof(path), "%s%s", FLASH_MMC_NAMES, part);
    return open(path, flags);
}

int64_t flash_mmc_size(int device) {
    return lseek(device, 0, SEEK_END);
}

int flash_mmc_read_sector(const char* part, void* buf, int offset, unsigned len) {
    const corvo::UniqueFd device(flash_mmc_open(part, O_RDONLY));
    if (!device.valid()) {
        HAL_ERROR("Could not open mmc device:%s for read.", part);
        return FLASH_FAILED;
    }
    if (lseek(device.get(), offset, SEEK_SET) < 0) {
        HAL_ERROR("Reading from mmc failed\n");
        return FLASH_FAILED;
    }
    const ssize_t count = read(device.get(), buf, len);
    if (count < 0) {
        HAL_ERROR("Reading from mmc failed\n");
        return FLASH_FAILED;
    }
    return static_cast<int>(count);
}

int flash_mmc_write_sector_partition(const char* part, const void* buf, int offset, unsigned len) {
    const corvo::UniqueFd device = open_to_write(__func__, part);
    if (!device.valid()) {
        return FLASH_FAILED;
    }
    // The 64-bit sum cannot overflow. A negative offset becomes a large one and is rejected.
    if (uint64_t{static_cast<unsigned>(offset)} + len > FLASH_MMC_SECTOR_LIMIT) {
        HAL_ERROR("too much data!!!");
        return FLASH_FAILED;
    }
    ssize_t count = -1;
    if (lseek(device.get(), offset, SEEK_SET) >= 0) {
        count = write(device.get(), buf, len);
    }
    if (count < 0) {
        HAL_ERROR("write sector fail,ret = %d!!!", static_cast<int>(count));
        return FLASH_FAILED;
    }
    HAL_INFO("----------------------------> nv write end!\n");
    return static_cast<int>(count);
}

int flash_mmc_erase_partition(const char* part) {
    const corvo::UniqueFd device = open_to_write(__func__, part);
    if (!device.valid()) {
        return FLASH_FAILED;
    }
    zero(device);
    return FLASH_OK;
}

int flash_mmc_write_partition(const char* part, const char* image) {
    HAL_INFO("flash_mmc_write_partition.");
    const corvo::UniqueFd device = open_to_write(__func__, part);
    if (!device.valid()) {
        return FLASH_FAILED;
    }
    // Opened read-write although it is only read. A package is deleted after its upgrade; on
    // storage that has become read-only it could not be deleted and would be installed again and
    // again.
    corvo::UniqueFd file;
    int64_t imageSize = 0;
    if (open_package_file(REPORT_SOURCE, __func__, image, WRITE_FLAGS, file, imageSize) !=
        FLASH_OK) {
        return FLASH_FAILED;
    }
    const int64_t size = flash_mmc_size(device.get());
    HAL_INFO("mmc size = 0x%llx,file size = 0x%llx", shown_size(size), shown_size(imageSize));
    if (size < imageSize) {
        HAL_ERROR("file size is too big!!!");
        return FLASH_FAILED;
    }
    Chunk chunk;
    const Copy copy{__func__, file.get(), device.get(), WHOLE_FILE, imageSize};
    return copy_from(copy, 0, chunk) == FLASH_OK ? FLASH_OK : FLASH_FAILED;
}

int flash_mmc_erase_write_partion(const char* part, const char* image) {
    if (erase_for_copy(part, image, 0, WHOLE_FILE) < 0) {
        HAL_ERROR("failed to erase partion %s", part);
        return FLASH_FAILED;
    }
    if (flash_mmc_write_partition(part, image) < 0) {
        HAL_ERROR("failed to write partion %s", part);
        return FLASH_FAILED;
    }
    return FLASH_OK;
}

int flash_mmc_write_partition_by_offset(const char* part, const char* package, int offset,
                                        int length) {
    HAL_INFO("flash_mmc_write_partition.");
    const corvo::UniqueFd device = open_to_write(__func__, part);
    if (!device.valid()) {
        return FLASH_FAILED;
    }
    corvo::UniqueFd file;
    int64_t packageSize = 0;
    const int opened =
        open_package_file(REPORT_SOURCE, __func__, package, WRITE_FLAGS, file, packageSize);
    if (opened != FLASH_OK) {
        return opened;
    }
    const int64_t size = flash_mmc_size(device.get());
    HAL_INFO("mmc size = 0x%llx,file size = 0x%x", shown_size(size), static_cast<unsigned>(length));
    if (length <= 0) {
        HAL_ERROR("partition upgrade file size is zero!!!");
        return FLASH_BAD_LENGTH;
    }
    if (size < length) {
        HAL_ERROR("partition upgrade file size is too big!!!");
        return FLASH_PARTITION_TOO_SMALL;
    }
    static Chunk chunk;
    const Copy copy{__func__, file.get(), device.get(), length, length};
    return copy_from(copy, offset, chunk);
}

int flash_mmc_erase_write_partion_by_offset(const char* part, const char* package, int start,
                                            int end) {
    HAL_INFO("part %s file %s start 0x%x - end 0x%x", part, package, static_cast<unsigned>(start),
             static_cast<unsigned>(end));
    // Callers convert 32-bit unsigned positions to int, so positions from 2 GiB on are negative
    // here.
    if (start < 0 || end <= start) {
        HAL_ERROR("file %s offset invalid start 0x%x - end 0x%x", package,
                  static_cast<unsigned>(start), static_cast<unsigned>(end));
        return FLASH_FAILED;
    }
    const int size = end - start;
    HAL_INFO("start erase partition...");
    if (erase_for_copy(part, package, start, size) < 0) {
        HAL_ERROR("failed to erase partion %s", part);
        return FLASH_FAILED;
    }
    HAL_INFO("start write partition size %d", size);
    const int result = flash_mmc_write_partition_by_offset(part, package, start, size);
    if (result < 0) {
        HAL_ERROR("failed to write partion %s", part);
    }
    return result;
}
