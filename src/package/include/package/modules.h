// Looks up rows of the package table by the names that users type.
#ifndef PACKAGE_MODULES_H
#define PACKAGE_MODULES_H

#include <span>
#include <string>
#include <string_view>

#include "ota/ota_package.h"

// The flash driver stores sizes and positions in int32_t, so images and packages are below 2 GiB.
constexpr uint64_t IMAGE_SIZE_MAX = INT32_MAX;

// The package table's rows, in the order in which the service writes them.
std::span<const OtaPackageEntry> package_entries();

// Finds a row by its partition name ("kernel") or its module type in decimal ("3"). Returns null
// when there is no such row.
const OtaPackageEntry* find_module(std::string_view nameOrNumber);

// Returns all module names for use in messages: "spl, uboot, ...".
std::string module_names();

// Returns the table as text, one line per row. The columns, separated by spaces, are the module
// type in decimal, the partition, the file name of the image, "emmc" or "mtd", and the device to
// which the partition's name leads.
std::string describe_modules();

#endif  // PACKAGE_MODULES_H
