// Opens the file that a flash driver copies to a partition: an image or a package.
#ifndef HAL_FLASH_PACKAGE_FILE_H
#define HAL_FLASH_PACKAGE_FILE_H

#include <stdint.h>

#include "base/unique_fd.h"
#include "pal/error_log.h"

// Opens the file with these flags of open(2), and sets `size` to its size in bytes. A failure is
// reported as one of the driver `source`, under the name `operation`. Returns FLASH_OK,
// FLASH_NO_PACKAGE or FLASH_NO_PACKAGE_STATUS.
int open_package_file(ReportSource source, const char* operation, const char* path, int flags,
                      corvo::UniqueFd& file, int64_t& size);

#endif  // HAL_FLASH_PACKAGE_FILE_H
