// The manifest of a combined package: where each module lies in the package file.
//
// Text, one module per line, fields separated by spaces or tabs:
//
//     NAME OFFSET SIZE [CRC32]
//
// NAME is a partition name of the package table (a module type in decimal serves too); OFFSET and
// SIZE are bytes in decimal; CRC32 is eight hexadecimal digits, the checksum of the module's bytes.
// Lines that are empty or begin with "#" say nothing.
#ifndef TOOLS_OTACTL_MANIFEST_H
#define TOOLS_OTACTL_MANIFEST_H

#include <stddef.h>
#include <stdint.h>

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ota/ota_package.h"

constexpr size_t MANIFEST_SIZE_MAX = 65536;      // bytes
constexpr size_t MANIFEST_LINE_SIZE_MAX = 1024;  // bytes

struct ManifestModule {
    const OtaPackageEntry* entry;
    uint64_t offset;  // bytes
    uint64_t size;    // bytes, at least 1; offset + size is at most IMAGE_SIZE_MAX
    std::optional<uint32_t> crc;
};

using Manifest = std::vector<ManifestModule>;

// Reads a manifest, which may be any bytes at all. Returns false, with what is wrong ("line 3:
// ...") in error, for anything that the format above does not allow, a module named twice, none at
// all, more than a request can hold, or a manifest above the size limits.
bool parse_manifest(std::string_view text, Manifest& manifest, std::string& error);

// The text of a manifest, which parse_manifest() reads back.
std::string format_manifest(const Manifest& manifest);

#endif  // TOOLS_OTACTL_MANIFEST_H
