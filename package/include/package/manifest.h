// The manifest of a package: what it is, and each module's place, size and digest. Text, in lines
// that end with a line feed.
//
// Version 2 says whom the package is for and can be signed; it has one form only: nothing may be
// added, left out or put elsewhere, and numbers and digests have one way to be written.
//
//     corvo-manifest 2
//     compatible R5C20
//     version 2.7.1
//     description Night mode is less noisy
//     kernel kernel.bin 4999174 6d0c...
//     rootfs rootfs.img 9001007 91ab...
//
// "description" may be missing. A module's line is NAME FILE SIZE SHA256: its partition, its image
// in the package's folder, bytes in decimal, 64 hexadecimal digits in lower case. With a line
// "package FILE" at the end of the head all modules lie in that one file, and their lines are NAME
// OFFSET SIZE SHA256.
//
// Version 1 knows combined packages only. It has no head; a line is NAME OFFSET SIZE [CRC32], with
// spaces or tabs between: NAME may be a module type in decimal, CRC32 is eight hexadecimal digits
// as gzip has it. Lines that are empty or begin with "#" say nothing.
#ifndef PACKAGE_MANIFEST_H
#define PACKAGE_MANIFEST_H

#include <stddef.h>
#include <stdint.h>

#include <array>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "package/status.h"

constexpr size_t MANIFEST_SIZE_MAX = 65536;      // bytes
constexpr size_t MANIFEST_LINE_SIZE_MAX = 1024;  // bytes

constexpr size_t SHA256_SIZE = 32;
using Sha256 = std::array<unsigned char, SHA256_SIZE>;

struct ManifestModule {
    std::string name;  // partition; of the package table in version 1, else perhaps of another one
    std::string file;  // image, without a folder; empty in a combined package
    uint64_t offset;   // bytes, in a combined package; else 0
    uint64_t size;     // bytes, at least 1; offset + size is at most IMAGE_SIZE_MAX
    std::optional<uint32_t> crc;  // version 1 only
    std::optional<Sha256> sha256;
};

struct Manifest {
    int format = 0;           // version of the manifest: 1 or 2
    std::string compatible;   // the kind of camera; this and what follows is empty in version 1
    std::string version;      // as package/version.h has it
    std::string description;  // printable ASCII
    std::string package;      // the file that holds all modules, or empty: each has a file
    // At least one, at most as many as a request holds; no two of one name or one file, no two that
    // share a byte of the combined file.
    std::vector<ManifestModule> modules;

    [[nodiscard]] bool combined() const { return format == 1 || !package.empty(); }
};

// Reads a manifest, which may be any bytes at all. Returns PACKAGE_OK, or PACKAGE_MALFORMED with
// what is wrong ("line 3: ...") for anything that the format does not allow.
PackageStatus parse_manifest(std::string_view text, Manifest& manifest);

// The text of a manifest; parse_manifest() reads the same back. For version 2 it is the only one.
std::string format_manifest(const Manifest& manifest);

// Whether these are fit for a manifest: a file name without a folder, a kind of camera, a sentence.
bool is_file_name(std::string_view text);
bool is_camera_kind(std::string_view text);
bool is_description(std::string_view text);

// 64 hexadecimal digits.
std::string digest_text(const Sha256& digest);

#endif  // PACKAGE_MANIFEST_H
