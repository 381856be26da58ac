// Raw-flash driver: partitions are MTD character devices, found by name in "/proc/mtd".
//
// Every operation opens what it needs and closes it before it returns. All of them block until the
// flash has done its work. No lock is taken; the copies keep their chunks in static buffers, so two
// of them must not run at once (the platform abstraction's mutex of the upgrade module sees to it).
// Partition names and paths are NUL-terminated and must not be null, but for those of
// flash_mtd_erase_write_partition_by_offset(). Failures are reported; the codes are FlashResult's
// unless said otherwise.
#ifndef HAL_FLASH_MTD_H
#define HAL_FLASH_MTD_H

#include <stdint.h>

#include "hal/flash_result.h"

// Opens the device of the partition of exactly this name, with flags as open(2) takes them. Reports
// nothing. Returns a descriptor, which the caller closes, or a negative value.
int flash_mtd_open(const char* part, int flags);

// Erases the whole partition in one request. Returns FLASH_OK, FLASH_FAILED (device not opened),
// FLASH_ERASE_NO_GEOMETRY or FLASH_ERASE_FAILED.
int flash_mtd_erase_partition(const char* part);

// Copies the whole image file to the start of the partition, which must be erased. The image must
// not be larger than the partition and must be writable. Returns FLASH_OK or FLASH_FAILED.
int flash_mtd_write_partition(const char* part, const char* image);

// flash_mtd_erase_partition(), then flash_mtd_write_partition(). Returns FLASH_OK, the erase's
// code, or FLASH_FAILED when the copy fails.
int flash_mtd_erase_write_partion(const char* part, const char* image);

// Copies `length` bytes of the package file, from byte `offset` on, to the start of the partition,
// which must be erased, and reads every chunk back. A length of 0 and a package that ends early are
// no failures. Returns FLASH_OK, FLASH_NO_DEVICE, FLASH_NO_GEOMETRY, FLASH_NO_PACKAGE,
// FLASH_NO_PACKAGE_STATUS, FLASH_BAD_LENGTH, FLASH_PARTITION_TOO_SMALL, FLASH_MTD_PACKAGE_UNREAD,
// FLASH_SHORT_WRITE, FLASH_SHORT_READ_BACK or FLASH_DATA_DIFFER.
int flash_mtd_write_partition_by_offset(const char* part, const char* package, uint64_t offset,
                                        uint64_t length);

// Erases the partition, then copies as above; either is left out when its argument is null, but a
// package needs a partition. Returns the erase's code when it fails, else the copy's.
int flash_mtd_erase_write_partition_by_offset(const char* part, const char* package,
                                              uint64_t offset, uint64_t length);

#endif  // HAL_FLASH_MTD_H
