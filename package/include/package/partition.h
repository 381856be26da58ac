// The partition that a row of the package table names, opened for reading. Neither call takes a
// lock; both block only as long as the device driver does.
#ifndef PACKAGE_PARTITION_H
#define PACKAGE_PARTITION_H

#include <stdint.h>

#include "base/unique_fd.h"
#include "ota/ota_package.h"

// Returns the open partition, or one that is not valid, with errno set (ENOENT: this camera has no
// such partition).
corvo::UniqueFd open_partition(const OtaPackageEntry& entry);

// The size in bytes of that partition, or -1 with errno set. Moves the position in a block device.
int64_t partition_size(const OtaPackageEntry& entry, const corvo::UniqueFd& partition);

#endif  // PACKAGE_PARTITION_H
