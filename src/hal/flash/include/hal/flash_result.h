// Result codes of the two flash drivers.
#ifndef HAL_FLASH_RESULT_H
#define HAL_FLASH_RESULT_H

enum FlashResult : int {
    FLASH_OK = 0,
    FLASH_FAILED = -1,                // cannot open the partition; whole-image copy: any failure
    FLASH_ERASE_NO_GEOMETRY = -2,     // MTD erase: the geometry query failed
    FLASH_ERASE_FAILED = -3,          // MTD erase: the erase request failed
    FLASH_NO_DEVICE = -11,            // MTD range copy: the device cannot be opened
    FLASH_NO_GEOMETRY = -13,          // MTD range copy: the geometry query failed
    FLASH_NO_PACKAGE = -21,           // the package file cannot be opened
    FLASH_NO_PACKAGE_STATUS = -22,    // the package file's status cannot be read
    FLASH_BAD_LENGTH = -23,           // eMMC: length 0 or negative; MTD: longer than the package
    FLASH_PARTITION_TOO_SMALL = -24,  // the length exceeds the partition's size
    FLASH_MTD_PACKAGE_UNREAD = -25,   // MTD: reading the package failed
    FLASH_SHORT_WRITE = -31,          // the flash stored fewer bytes than were read
    FLASH_MMC_PACKAGE_UNREAD = -32,   // eMMC: reading the package failed
    FLASH_SHORT_READ_BACK = -32,      // MTD: the read-back failed or returned fewer bytes
    FLASH_DATA_DIFFER = -33,          // MTD: the read-back returned different data
};

// Copies read and write this many bytes per system call.
constexpr unsigned FLASH_CHUNK_SIZE = 16384;

#endif  // HAL_FLASH_RESULT_H
