// The rows of the package table, as a person names them.
#ifndef PACKAGE_MODULES_H
#define PACKAGE_MODULES_H

#include <span>
#include <string>
#include <string_view>

#include "ota/ota_package.h"

// What the flash driver keeps sizes and positions in: images and packages stay below 2 GiB.
constexpr uint64_t IMAGE_SIZE_MAX = INT32_MAX;

// The package table's rows, in the order in which the service writes them.
std::span<const OtaPackageEntry> package_entries();

// The row of this partition name ("kernel") or module type in decimal ("3"), or null.
const OtaPackageEntry* find_module(std::string_view nameOrNumber);

// The names to choose from, for messages: "spl, uboot, ...".
std::string module_names();

// The rows as text, a line each, in words that are set apart by spaces: the number, the partition,
// the image's file, the kind of flash ("emmc" or "mtd").
std::string describe_modules();

#endif  // PACKAGE_MODULES_H
