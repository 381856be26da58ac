// Raw-flash driver: partitions are MTD character devices, found by name in "/proc/mtd".
//
// Every operation opens the files that it needs and closes them before it returns. All operations
// block until the flash has finished. No lock is taken. The copies use static buffers, so two of
// them must not run concurrently; the upgrade mutex of the platform abstraction prevents that.
// Partition names and paths are NUL-terminated and must not be null, except for
// flash_mtd_erase_write_partition_by_offset(). Failures are reported. The result codes are
// FlashResult unless stated otherwise.
#ifndef HAL_FLASH_MTD_H
#define HAL_FLASH_MTD_H

#include <stdint.h>

#include "hal/flash_result.h"

// Opens the device of the partition with exactly this name; flags as for open(2). Failures are not
// reported. Returns a descriptor, which the caller closes, or a negative value.
int flash_mtd_open(const char* part, int flags);

// Returns the size of an open partition in bytes, or -1 with errno set.
int64_t flash_mtd_size(int device);

// Erases the whole partition in one request. Returns FLASH_OK, FLASH_FAILED (cannot open the
// device), FLASH_ERASE_NO_GEOMETRY or FLASH_ERASE_FAILED.
int flash_mtd_erase_partition(const char* part);

// Copies the whole image file to the start of the partition, which must be erased. The image must
// not be larger than the partition and must be writable. Returns FLASH_OK or FLASH_FAILED.
int flash_mtd_write_partition(const char* part, const char* image);

// Calls flash_mtd_erase_partition(), then flash_mtd_write_partition(). Returns FLASH_OK, the code
// of a failed erase, or FLASH_FAILED when the copy fails.
int flash_mtd_erase_write_partion(const char* part, const char* image);

// Copies `length` bytes of the package file, starting at byte `offset`, to the start of the
// partition, which must be erased, and reads every chunk back. A length of 0 is not a failure, and
// neither is a package that ends early. Returns FLASH_OK, FLASH_NO_DEVICE, FLASH_NO_GEOMETRY,
// FLASH_NO_PACKAGE, FLASH_NO_PACKAGE_STATUS, FLASH_BAD_LENGTH, FLASH_PARTITION_TOO_SMALL,
// FLASH_MTD_PACKAGE_UNREAD, FLASH_SHORT_WRITE, FLASH_SHORT_READ_BACK or FLASH_DATA_DIFFER.
int flash_mtd_write_partition_by_offset(const char* part, const char* package, uint64_t offset,
                                        uint64_t length);

// Erases the partition, then copies as flash_mtd_write_partition_by_offset() does. If `package` is
// null, only erases. If both `part` and `package` are null, does nothing and returns FLASH_OK; if
// only `part` is null, returns FLASH_NO_DEVICE. Otherwise returns the code of the erase when it
// fails, else the code of the copy.
int flash_mtd_erase_write_partition_by_offset(const char* part, const char* package,
                                              uint64_t offset, uint64_t length);

#endif  // HAL_FLASH_MTD_H
