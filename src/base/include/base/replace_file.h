// The steps by which a file is replaced so that a power cut leaves its old or its new content:
// write the new content to another file and flush that, rename it, flush the folder. All calls may
// block on the storage, and return false with errno set when a system call fails.
#ifndef BASE_REPLACE_FILE_H
#define BASE_REPLACE_FILE_H

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string_view>

#include "base/unique_fd.h"

namespace corvo {

// Writes all bytes at the current position of an open file.
inline bool write_all(int file, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t written = write(file, bytes.data(), bytes.size());
        if (written < 0) {
            return false;
        }
        bytes.remove_prefix(static_cast<size_t>(written));
    }
    return true;
}

// Creates the file `name`, relative to an open folder or AT_FDCWD, with this content, and flushes
// it. Fails if the name exists already, even as a link. After another failure the file may exist.
inline bool create_flushed_file(int folder, const char* name, mode_t mode,
                                std::string_view content) {
    const UniqueFd file(openat(folder, name, O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, mode));
    return file.valid() && write_all(file.get(), content) && fsync(file.get()) == 0;
}

// Flushes the entries of a folder: files that were created, renamed or removed in it.
inline bool flush_folder(const char* path) {
    const UniqueFd folder(open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return folder.valid() && fsync(folder.get()) == 0;
}

}  // namespace corvo

#endif  // BASE_REPLACE_FILE_H
