// eMMC driver: partitions are block devices, found by name under "/dev/block/by-name".
//
// Every operation opens what it needs and closes it before it returns. All of them block until the
// data is on the device. No lock is taken; flash_mmc_write_partition_by_offset() keeps its chunk in
// a static buffer, so two of these copies must not run at once (the platform abstraction's mutex of
// the upgrade module sees to it). Partition names and paths are NUL-terminated and must not be
// null. Failures are reported; the codes are FlashResult's unless said otherwise.
#ifndef HAL_FLASH_MMC_H
#define HAL_FLASH_MMC_H

#include "hal/flash_result.h"

// The first byte behind the range that flash_mmc_write_sector_partition() writes to.
constexpr unsigned FLASH_MMC_SECTOR_LIMIT = 0x10000;

// Opens the partition with flags as open(2) takes them. Reports nothing. Returns a descriptor,
// which the caller closes, or a negative value with errno set.
int flash_mmc_open(const char* part, int flags);

// Reads len bytes at byte `offset` of the partition into buf. Returns the count read, which is less
// than len near the partition's end, or -1.
int flash_mmc_read_sector(const char* part, void* buf, int offset, unsigned len);

// Writes len bytes at byte `offset` of the partition; the range must end within
// FLASH_MMC_SECTOR_LIMIT. Returns the count written, which may be less than len, or -1.
int flash_mmc_write_sector_partition(const char* part, const void* buf, int offset, unsigned len);

// Fills the whole partition with zeros, as far as the device takes them: whether it did is not
// examined, for what is written next starts at the partition's beginning either way.
// Returns FLASH_OK, or FLASH_FAILED when the partition cannot be opened.
int flash_mmc_erase_partition(const char* part);

// Copies the whole image file to the partition's start, with progress lines on standard output. The
// image must not be larger than the partition and must be writable. Returns FLASH_OK or
// FLASH_FAILED; after a failure the partition holds the chunks written so far.
int flash_mmc_write_partition(const char* part, const char* image);

// flash_mmc_erase_partition(), then flash_mmc_write_partition(). Nothing is erased when the copy
// cannot begin: the image is missing, read-only, empty or too large. Returns FLASH_OK or
// FLASH_FAILED.
int flash_mmc_erase_write_partion(const char* part, const char* image);

// Copies `length` bytes of the package file, from byte `offset` on, to the partition's start, with
// progress lines on standard output. A package that ends early ends the copy, which then counts as
// done. Returns FLASH_OK, FLASH_FAILED (partition not opened), FLASH_NO_PACKAGE,
// FLASH_NO_PACKAGE_STATUS, FLASH_BAD_LENGTH, FLASH_PARTITION_TOO_SMALL, FLASH_SHORT_WRITE or
// FLASH_MMC_PACKAGE_UNREAD (a negative offset too).
int flash_mmc_write_partition_by_offset(const char* part, const char* package, int offset,
                                        int length);

// Erases the partition and copies the package's bytes [start, end) to it. Nothing is erased when
// the copy cannot begin: the package is missing, read-only or ends before the range begins, or the
// range is larger than the partition. Returns FLASH_FAILED, with nothing erased, when the range is
// empty or a position is negative (as positions from 2 GiB on arrive here); else the code of the
// erase or of flash_mmc_write_partition_by_offset().
int flash_mmc_erase_write_partion_by_offset(const char* part, const char* package, int start,
                                            int end);

#endif  // HAL_FLASH_MMC_H
