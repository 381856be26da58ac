// Small files, read whole.
#ifndef PACKAGE_FILES_H
#define PACKAGE_FILES_H

#include <stddef.h>

#include <string>

#include "package/status.h"

enum class FileKind {
    ANY,      // a pipe serves too; waits for its other end
    REGULAR,  // whatever lies there, the call does not wait
};

// Reads a file of at most `limit` bytes. Returns PACKAGE_OK, PACKAGE_MISSING when no such file is
// there or it is larger, or PACKAGE_UNREADABLE; both name the path and the reason.
PackageStatus read_small_file(const std::string& path, size_t limit, FileKind kind,
                              std::string& content);

#endif  // PACKAGE_FILES_H
