// Reads files: in pieces, or a small file completely into memory.
#ifndef PACKAGE_FILES_H
#define PACKAGE_FILES_H

#include <stddef.h>
#include <stdint.h>

#include <functional>
#include <span>
#include <string>

#include "package/status.h"

// Takes the next bytes of a file. Returns false to end the reading.
using TakeBytes = std::function<bool(std::span<const char> bytes)>;

constexpr uint64_t WHOLE_FILE = UINT64_MAX;

// Reads at most `size` bytes (WHOLE_FILE: no limit) from the current position of an open file, and
// passes them to `take` in pieces of at most 64 KiB. Ends at the end of the file, or when `take`
// returns false. Returns the number of bytes that were passed, or -1 with errno set when the file
// cannot be read.
int64_t read_pieces(int file, uint64_t size, const TakeBytes& take);

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
