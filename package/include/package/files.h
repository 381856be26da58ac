// Small files, read whole.
#ifndef PACKAGE_FILES_H
#define PACKAGE_FILES_H

#include <stddef.h>

#include <string>

#include "package/status.h"

enum class FileKind {
    ANY,      // a pipe serves too; waits for its other end
    REGULAR,  // whatever lies there, the call does not wait
    // The same; a symbolic link is not followed, in NOT_A_LINK as the file itself, in NO_LINK also
    // as a folder on the way to it. That path is absolute.
    NOT_A_LINK,
    NO_LINK,
};

// Reads a file of at most `limit` bytes. Returns PACKAGE_OK, PACKAGE_MISSING when no such file is
// there or it is larger, or PACKAGE_UNREADABLE; both name the path and the reason.
PackageStatus read_small_file(const std::string& path, size_t limit, FileKind kind,
                              std::string& content);

#endif  // PACKAGE_FILES_H
