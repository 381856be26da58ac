// The manifest of a package: what the package is, and the location, size and digest of each module.
// It is a text file whose lines end with a line feed.
//
// Versions 2 and 3 name the hardware type that the package is for, and can be signed. Their form is
// canonical: no line or field may be added, omitted or moved, and every number and digest can be
// written in one way only.
//
//     corvo-manifest 2
//     compatible R5C20
//     version 2.7.1
//     description Night mode is less noisy
//     kernel kernel.bin 4999174 6d0c...
//     rootfs rootfs.img 9001007 91ab...
//
// The line "description" is optional. A module's line is NAME FILE SIZE SHA256: the name of its
// partition, the name of its image in the package's folder, its size in bytes in decimal, and 64
// lower-case hexadecimal digits. If the head ends with a line "package FILE", that one file
// contains all modules, and their lines are NAME OFFSET SIZE SHA256.
//
// Version 3 is for packages with a chunked image. The line of a chunked image names its two files
// after the image itself: NAME FILE SIZE SHA256 FILE.zst SIZE SHA256 FILE.chunks SIZE SHA256 (see
// docs/signing.md). At least one image is chunked, and no package is combined.
//
// Version 1 describes combined packages only. It has no head. A line is NAME OFFSET SIZE [CRC32],
// separated by spaces or tabs. NAME may also be a module type in decimal; CRC32 is the checksum of
// gzip as eight hexadecimal digits. Empty lines and lines that begin with "#" are ignored.
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

// The names of the two files of a chunked image are that of the image with these suffixes.
constexpr char FRAMES_SUFFIX[] = ".zst";
constexpr char INDEX_SUFFIX[] = ".chunks";

struct ManifestFile {
    std::string name;   // without a folder
    uint64_t size = 0;  // bytes, at least 1
    Sha256 sha256 = {};
};

// The files of which a chunked image is restored.
struct ChunkedFiles {
    ManifestFile frames;  // at most IMAGE_SIZE_MAX bytes
    ManifestFile index;   // at most chunk_index_size_max() bytes
};

struct ManifestModule {
    // The partition. In version 1 it is in the package table; in later versions it need not be.
    std::string name;
    std::string file;             // name of the image without a folder; empty in a combined package
    uint64_t offset;              // bytes from the start of a combined package; otherwise 0
    uint64_t size;                // bytes, at least 1; offset + size is at most IMAGE_SIZE_MAX
    std::optional<uint32_t> crc;  // version 1 only
    std::optional<Sha256> sha256;
    std::optional<ChunkedFiles> chunked;  // version 3 only
};

struct Manifest {
    int format = 0;  // version of the manifest: 1, 2 or 3
    // The next four are empty in version 1.
    std::string compatible;   // the hardware type of the cameras that the package is for
    std::string version;      // format as in package/version.h
    std::string description;  // printable ASCII
    std::string package;      // the combined package file; empty: each module has its own file
    // At least one, and at most as many as a request can hold. Names and files are unique, those of
    // chunked images too; modules in a combined package do not overlap.
    std::vector<ManifestModule> modules;

    [[nodiscard]] bool combined() const { return format == 1 || !package.empty(); }
};

// Parses a manifest. `text` is untrusted and may contain any bytes. Returns PACKAGE_OK, or
// PACKAGE_MALFORMED with the error ("line 3: ...") for anything that the format does not allow.
PackageStatus parse_manifest(std::string_view text, Manifest& manifest);

// Returns the text of a manifest, from which parse_manifest() restores the same record. From
// version 2 on no other text has the same meaning.
std::string format_manifest(const Manifest& manifest);

// Return whether a text is valid in a manifest: as a file name without a folder, as a hardware
// type, as a description.
bool is_file_name(std::string_view text);
bool is_camera_kind(std::string_view text);
bool is_description(std::string_view text);

// 64 hexadecimal digits.
std::string digest_text(const Sha256& digest);

#endif  // PACKAGE_MANIFEST_H
