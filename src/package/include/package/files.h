// Reads a small file completely into memory.
#ifndef PACKAGE_FILES_H
#define PACKAGE_FILES_H

#include <stddef.h>

#include <string>

#include "package/status.h"

enum class FileKind {
    ANY,         // also a FIFO or device; the call may wait for the writer of a FIFO
    REGULAR,     // only a regular file; never waits
    NOT_A_LINK,  // as REGULAR, but the last component of the path must not be a symbolic link
    NO_LINK,     // as REGULAR, but no component of the path, which is absolute, may be one
};

// Reads a file of at most `limit` bytes. Returns PACKAGE_OK, PACKAGE_MISSING when the file does not
// exist, is of another kind or is larger, or PACKAGE_UNREADABLE. The message of both errors names
// the path and the reason.
PackageStatus read_small_file(const std::string& path, size_t limit, FileKind kind,
                              std::string& content);

#endif  // PACKAGE_FILES_H
