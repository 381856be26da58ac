// Opens the partition of a row of the package table for reading. Neither call takes a lock; both
// block only as long as the device driver does.
#ifndef PACKAGE_PARTITION_H
#define PACKAGE_PARTITION_H

#include <stdint.h>

#include <string>

#include "base/unique_fd.h"
#include "ota/ota_package.h"

// Returns the open partition, or an invalid descriptor with errno set (ENOENT: this camera has no
// such partition).
corvo::UniqueFd open_partition(const OtaPackageEntry& entry);

// Opens the copy of the partition from which the running system was started. Where the board has
// one copy of the partition, or where it is in raw flash, this is open_partition().
corvo::UniqueFd open_running_partition(const OtaPackageEntry& entry);

// Returns the path of the device to which the partition's name leads; "-" when it does not exist,
// or when it is in raw flash, where names are not paths.
std::string partition_device(const OtaPackageEntry& entry);

// Returns the size of an open partition in bytes, or -1 with errno set. Moves the file position of
// a block device.
int64_t partition_size(const OtaPackageEntry& entry, const corvo::UniqueFd& partition);

#endif  // PACKAGE_PARTITION_H
