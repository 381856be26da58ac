#include "hal/flash_mtd.h"

#include <fcntl.h>
#include <mtd/mtd-user.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <optional>
#include <string_view>

#include "base/owned.h"
#include "base/unique_fd.h"
#include "mtd_table.h"
#include "package_file.h"
#include "pal/error_log.h"

namespace {

constexpr ReportSource REPORT_SOURCE = REPORT_FLASH_MTD;

// The ioctl numbers and structure sizes of the kernel are the same on 32-bit and 64-bit machines.
static_assert(sizeof(mtd_info_user) == 32 && MEMGETINFO == 0x80204d01);
static_assert(sizeof(erase_info_user) == 8 && MEMERASE == 0x40084d02);

using Chunk = std::array<char, FLASH_CHUNK_SIZE>;

constexpr size_t LINE_SIZE = 64;  // bytes, terminator included; also enough for a device's path

// O_DSYNC as in the eMMC driver: each chunk is stored before the next one is read.
constexpr int WRITE_FLAGS = O_RDWR | O_DSYNC;

// Whole-image copies and range copies share this buffer; they never run concurrently.
Chunk g_data_chunk;
Chunk g_read_back_chunk;

// Returns the number of the MTD device that holds the partition.
std::optional<int> find_device_number(std::string_view part) {
    const corvo::OwnedFile table(fopen("/proc/mtd", "r"));
    if (!table) {
        return std::nullopt;
    }
    char buffer[LINE_SIZE] = {};
    bool startsLine = true;
    while (fgets(buffer, sizeof(buffer), table.get()) != nullptr) {
        const std::string_view text(buffer);
        // fgets() returns a long line in pieces. Only the first piece is parsed, because quoted
        // text in a later piece is not a whole partition name.
        const auto entry = startsLine ? parse_mtd_table_line(text) : std::nullopt;
        if (entry && entry->name == part) {
            return entry->number;
        }
        startsLine = text.ends_with('\n');
    }
    return std::nullopt;
}

struct Device {
    corvo::UniqueFd fd;
    uint32_t size = 0;  // bytes
};

// Opens the device of the partition and gets its size. Reports a failure under the name
// `operation`. Returns FLASH_OK, FLASH_NO_DEVICE or FLASH_NO_GEOMETRY.
int open_to_write(const char* operation, const char* part, Device& device) {
    device.fd.reset(flash_mtd_open(part, WRITE_FLAGS));
    if (!device.fd.valid()) {
        HAL_ERROR_AS(operation, "Could not open mtd device:%s for write.", part);
        return FLASH_NO_DEVICE;
    }
    const int64_t size = flash_mtd_size(device.fd.get());
    if (size < 0) {
        HAL_ERROR_AS(operation, "Could not get mtd device info.");
        return FLASH_NO_GEOMETRY;
    }
    device.size = static_cast<uint32_t>(size);
    return FLASH_OK;
}

int copy_image(const char* operation, int file, int device, uint64_t imageSize) {
    uint64_t copied = 0;
    uint64_t loggedTenth = 0;
    for (;;) {
        const ssize_t count = read(file, g_data_chunk.data(), g_data_chunk.size());
        if (count < 0) {
            HAL_ERROR_AS(operation, "read file failed.");
            return FLASH_FAILED;
        }
        if (count == 0) {
            HAL_INFO_AS(operation, "write flash complete!!");
            return FLASH_OK;
        }
        const ssize_t written = write(device, g_data_chunk.data(), static_cast<size_t>(count));
        if (written != count) {
            HAL_ERROR_AS(operation, "write flash failed!writeSize = 0x%x,readSize=0x%x",
                         static_cast<unsigned>(written), static_cast<unsigned>(count));
            return FLASH_FAILED;
        }
        copied += static_cast<uint64_t>(count);
        // Avoids a division by zero: an image that was empty at first may grow during the copy.
        const uint64_t tenth = copied * 10 / std::max<uint64_t>(imageSize, 1);
        if (tenth != loggedTenth) {
            loggedTenth = tenth;
            HAL_INFO_AS(operation, "write flash progress %d%%.", static_cast<int>(tenth * 10));
        }
    }
}

// Writes the first count bytes of g_data_chunk at `position`, the current position of the device,
// and reads them back: a write to worn-out flash may succeed although the data is not stored.
int write_and_check(const char* operation, int device, uint64_t position, ssize_t count) {
    const auto size = static_cast<size_t>(count);
    const ssize_t written = write(device, g_data_chunk.data(), size);
    if (written != count) {
        HAL_ERROR_AS(operation, "write flash failed! writeSize = 0x%x, readSize=0x%x",
                     static_cast<unsigned>(written), static_cast<unsigned>(count));
        return FLASH_SHORT_WRITE;
    }
    ssize_t readBack = -1;
    if (lseek(device, static_cast<off_t>(position), SEEK_SET) >= 0) {
        readBack = read(device, g_read_back_chunk.data(), size);
    }
    if (readBack != count) {
        HAL_ERROR_AS(operation, "read back flash failed! readBackSize = 0x%x, writeSize=0x%x",
                     static_cast<unsigned>(readBack), static_cast<unsigned>(count));
        return FLASH_SHORT_READ_BACK;
    }
    if (memcmp(g_data_chunk.data(), g_read_back_chunk.data(), size) != 0) {
        HAL_ERROR_AS(operation, "write and read back data not match!");
        return FLASH_DATA_DIFFER;
    }
    return FLASH_OK;
}

int copy_range(const char* operation, int package, int device, uint64_t length) {
    uint64_t copied = 0;
    std::optional<uint64_t> loggedTenth;
    while (copied < length) {
        const auto wanted = std::min<uint64_t>(length - copied, FLASH_CHUNK_SIZE);
        const ssize_t count = read(package, g_data_chunk.data(), static_cast<size_t>(wanted));
        if (count < 0) {
            HAL_ERROR_AS(operation, "read file failed.");
            return FLASH_MTD_PACKAGE_UNREAD;
        }
        if (count == 0) {
            break;
        }
        const int result = write_and_check(operation, device, copied, count);
        if (result != FLASH_OK) {
            return result;
        }
        copied += static_cast<uint64_t>(count);
        const uint64_t tenth = copied * 10 / length;
        if (tenth != loggedTenth) {
            loggedTenth = tenth;
            HAL_INFO_AS(operation, "write flash progress %d%%.", static_cast<int>(tenth * 10));
        }
    }
    HAL_INFO_AS(operation, "write flash complete!!");
    return FLASH_OK;
}

}  // namespace

int flash_mtd_open(const char* part, int flags) {
    const std::optional<int> number = find_device_number(part);
    if (!number) {
        return FLASH_FAILED;
    }
    char path[LINE_SIZE] = {};
    snprintf(path, sizeof(path), "/dev/mtd/%d", *number);
    const int fd = open(path, flags);
    if (fd >= 0) {
        return fd;
    }
    snprintf(path, sizeof(path), "/dev/mtd%d", *number);
    return open(path, flags);
}

int64_t flash_mtd_size(int device) {
    mtd_info_user geometry = {};
    return ioctl(device, MEMGETINFO, &geometry) == 0 ? int64_t{geometry.size} : -1;
}

int flash_mtd_erase_partition(const char* part) {
    HAL_INFO("flash_mtd_erase_partition.");
    Device device;
    const int opened = open_to_write(__func__, part, device);
    if (opened != FLASH_OK) {
        return opened == FLASH_NO_GEOMETRY ? FLASH_ERASE_NO_GEOMETRY : FLASH_FAILED;
    }
    HAL_INFO("mtd size = 0x%x", device.size);
    // One request is enough: the kernel erases all erase blocks of the range.
    erase_info_user range = {.start = 0, .length = device.size};
    if (ioctl(device.fd.get(), MEMERASE, &range) < 0) {
        HAL_ERROR("failed to erase MTD.");
        return FLASH_ERASE_FAILED;
    }
    HAL_INFO("erase ok.");
    return FLASH_OK;
}

int flash_mtd_write_partition(const char* part, const char* image) {
    HAL_INFO("flash_mtd_write_partition.");
    Device device;
    corvo::UniqueFd file;
    int64_t size = 0;
    // The image is opened read-write although it is only read, see flash_mmc_write_partition().
    if (open_to_write(__func__, part, device) != FLASH_OK ||
        open_package_file(REPORT_SOURCE, __func__, image, WRITE_FLAGS, file, size) != FLASH_OK) {
        return FLASH_FAILED;
    }
    const auto imageSize = static_cast<unsigned long long>(size);
    HAL_INFO("mtd size = 0x%x,file size = 0x%llx", device.size, imageSize);
    if (device.size < imageSize) {
        HAL_ERROR("file size is too big!!!");
        return FLASH_FAILED;
    }
    // Both descriptors have just been opened, so both are at position 0.
    return copy_image(__func__, file.get(), device.fd.get(), imageSize);
}

int flash_mtd_erase_write_partion(const char* part, const char* image) {
    const int result = flash_mtd_erase_partition(part);
    if (result < 0) {
        HAL_ERROR("failed to erase partion %s", part);
        return result;
    }
    if (flash_mtd_write_partition(part, image) < 0) {
        HAL_ERROR("failed to write partion %s", part);
        return FLASH_FAILED;
    }
    return FLASH_OK;
}

int flash_mtd_write_partition_by_offset(const char* part, const char* package, uint64_t offset,
                                        uint64_t length) {
    HAL_INFO("flash_mtd_write_partition_by_offset.");
    Device device;
    corvo::UniqueFd file;
    int64_t fileSize = 0;
    int result = open_to_write(__func__, part, device);
    if (result == FLASH_OK) {
        result = open_package_file(REPORT_SOURCE, __func__, package, O_RDONLY, file, fileSize);
    }
    if (result != FLASH_OK) {
        return result;
    }
    const auto packageSize = static_cast<unsigned long long>(fileSize);
    HAL_INFO("part:%s mtd size = 0x%x, file size = %llu, offset = %llu, data len = %llu", part,
             device.size, packageSize, static_cast<unsigned long long>(offset),
             static_cast<unsigned long long>(length));
    if (packageSize < length) {
        HAL_ERROR("data len is too big!!!");
        return FLASH_BAD_LENGTH;
    }
    if (device.size < length) {
        HAL_ERROR("file size is too big!!!");
        return FLASH_PARTITION_TOO_SMALL;
    }
    if (lseek(file.get(), static_cast<off_t>(offset), SEEK_SET) < 0) {
        HAL_ERROR("read file failed.");
        return FLASH_MTD_PACKAGE_UNREAD;
    }
    return copy_range(__func__, file.get(), device.fd.get(), length);
}

int flash_mtd_erase_write_partition_by_offset(const char* part, const char* package,
                                              uint64_t offset, uint64_t length) {
    if (part == nullptr && package == nullptr) {
        return FLASH_OK;
    }
    if (part == nullptr) {
        HAL_ERROR("Could not open mtd device:%s for write.", "(null)");
        return FLASH_NO_DEVICE;
    }
    const int result = flash_mtd_erase_partition(part);
    if (result < 0) {
        HAL_ERROR("failed to erase partion %s", part);
        return result;
    }
    if (package == nullptr) {
        return result;
    }
    return flash_mtd_write_partition_by_offset(part, package, offset, length);
}
