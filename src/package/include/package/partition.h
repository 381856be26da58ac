// Opens the partition of a row of the package table for reading. Neither call takes a lock; both
// block only as long as the device driver does.
#ifndef PACKAGE_PARTITION_H
#define PACKAGE_PARTITION_H

#include <stdint.h>

#include "base/unique_fd.h"
#include "ota/ota_package.h"

// Returns the open partition, or an invalid descriptor with errno set (ENOENT: this camera has no
// such partition).
corvo::UniqueFd open_partition(const OtaPackageEntry& entry);

// Returns the size of an open partition in bytes, or -1 with errno set. Moves the file position of
// a block device.
int64_t partition_size(const OtaPackageEntry& entry, const corvo::UniqueFd& partition);

#endif  // PACKAGE_PARTITION_H
