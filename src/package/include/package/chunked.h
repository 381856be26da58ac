// Restores a chunked image from its two files, as the manifest describes them.
#ifndef PACKAGE_CHUNKED_H
#define PACKAGE_CHUNKED_H

#include <span>
#include <string>

#include "chunks/index.h"
#include "package/content.h"
#include "package/files.h"
#include "package/manifest.h"
#include "package/status.h"

// Parses the bytes of the index of a chunked module, of which the caller has any, trusted or not.
// They are parsed only if they have the size and the SHA-256 of the manifest. `path` is the file's
// name in messages; `index` refers to `bytes`. Returns PACKAGE_OK or PACKAGE_DIFFERENT.
PackageStatus read_index(const std::string& path, std::span<const char> bytes,
                         const ManifestModule& module, ChunkIndex& index);

// Reads the two files of a chunked module in `directory`, which ends in "/", and passes the bytes
// of the image to `take`, in order. Each chunk is verified before it is passed, and the SHA-256 of
// both files and of the image at the end: if the call fails, what `take` has received must not be
// used. If `take` returns false, the call ends with PACKAGE_OK; the caller knows the reason.
// `progress` gets the number of bytes of the image. Refuses anything but regular files, as
// check_file() does. Needs memory for the index, and 256 KiB. Returns PACKAGE_OK,
// PACKAGE_UNREADABLE, or PACKAGE_DIFFERENT, which also means a missing file.
PackageStatus restore_image(const std::string& directory, const ManifestModule& module,
                            const TakeBytes& take, const ContentProgress& progress);

#endif  // PACKAGE_CHUNKED_H
