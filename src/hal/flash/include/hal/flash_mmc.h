// eMMC driver: partitions are block devices, found by name.
//
// Every operation opens the files that it needs and closes them before it returns. All operations
// block until the data is stored on the device. No lock is taken.
// flash_mmc_write_partition_by_offset() uses a static buffer, so two of these copies must not run
// concurrently; the upgrade mutex of the platform abstraction prevents that. Partition names and
// paths are NUL-terminated and must not be null. Failures are reported. The result codes are
// FlashResult unless stated otherwise.
#ifndef HAL_FLASH_MMC_H
#define HAL_FLASH_MMC_H

#include <stdint.h>

#include "hal/flash_result.h"

// Folder of the partitions' names, which are links to their block devices.
constexpr char FLASH_MMC_NAMES[] = "/dev/block/by-name/";

// Size in bytes of the range, at the start of a partition, in which
// flash_mmc_write_sector_partition() may write.
constexpr unsigned FLASH_MMC_SECTOR_LIMIT = 0x10000;

// Opens the partition; flags as for open(2). Failures are not reported. Returns a descriptor, which
// the caller closes, or a negative value with errno set.
int flash_mmc_open(const char* part, int flags);

// Returns the size of an open partition in bytes, or -1 with errno set. Moves its file position.
int64_t flash_mmc_size(int device);

// Reads len bytes at byte `offset` of the partition into buf. Returns the number of bytes read,
// which is less than len near the end of the partition, or -1.
int flash_mmc_read_sector(const char* part, void* buf, int offset, unsigned len);

// Writes len bytes at byte `offset` of the partition; the range must end within
// FLASH_MMC_SECTOR_LIMIT. Returns the number of bytes written, which may be less than len, or -1.
int flash_mmc_write_sector_partition(const char* part, const void* buf, int offset, unsigned len);

// Fills the whole partition with zeros. Write errors are ignored, because the next copy starts at
// the beginning of the partition in any case and reports its own errors. Returns FLASH_OK, or
// FLASH_FAILED when the partition cannot be opened.
int flash_mmc_erase_partition(const char* part);

// Copies the whole image file to the start of the partition and prints progress lines on standard
// output. The image must not be larger than the partition and must be writable. Returns FLASH_OK or
// FLASH_FAILED; after a failure the partition contains the chunks written so far.
int flash_mmc_write_partition(const char* part, const char* image);

// Calls flash_mmc_erase_partition(), then flash_mmc_write_partition(). Does not erase when the copy
// cannot begin because the image is missing, read-only, empty or too large. Returns FLASH_OK or
// FLASH_FAILED.
int flash_mmc_erase_write_partion(const char* part, const char* image);

// Copies `length` bytes of the package file, starting at byte `offset`, to the start of the
// partition and prints progress lines on standard output. If the package ends early, the copy ends
// there and counts as successful. Returns FLASH_OK, FLASH_FAILED (cannot open the partition),
// FLASH_NO_PACKAGE, FLASH_NO_PACKAGE_STATUS, FLASH_BAD_LENGTH, FLASH_PARTITION_TOO_SMALL,
// FLASH_SHORT_WRITE or FLASH_MMC_PACKAGE_UNREAD (also for a negative offset).
int flash_mmc_write_partition_by_offset(const char* part, const char* package, int offset,
                                        int length);

// Erases the partition and copies the bytes [start, end) of the package to it. Does not erase when
// the copy cannot begin: the package is missing, read-only or ends before the range begins, or the
// range is larger than the partition. Returns FLASH_FAILED without erasing when the range is empty
// or a position is negative (positions from 2 GiB on become negative in the caller). Otherwise
// returns the code of the erase if it fails, else of flash_mmc_write_partition_by_offset().
int flash_mmc_erase_write_partion_by_offset(const char* part, const char* package, int start,
                                            int end);

#endif  // HAL_FLASH_MMC_H
