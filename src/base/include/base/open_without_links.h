// Opens a file and refuses symbolic links in every component of its path. For directories that
// other parties can write to: a symbolic link on a memory card could point to any file of the
// camera.
#ifndef BASE_OPEN_WITHOUT_LINKS_H
#define BASE_OPEN_WITHOUT_LINKS_H

#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <stdint.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "base/unique_fd.h"

namespace corvo {

// Opens one component of a path. Fails with ELOOP if it is a symbolic link, whatever the flags are.
inline int open_component(int folder, const char* name, int flags, mode_t mode) {
    UniqueFd file(openat(folder, name, flags | O_NOFOLLOW | O_CLOEXEC, mode));
    const int error = errno;
    struct stat status = {};
    const bool isLink = file.valid()
                            ? fstat(file.get(), &status) == 0 && S_ISLNK(status.st_mode)
                            : error == ENOTDIR &&
                                  fstatat(folder, name, &status, AT_SYMLINK_NOFOLLOW) == 0 &&
                                  S_ISLNK(status.st_mode);
    errno = isLink ? ELOOP : error;
    return isLink ? -1 : file.release();
}

// For kernels without openat2(2): opens the path one directory after the other.
inline int open_step_by_step(const char* path, int flags, mode_t mode) {
    UniqueFd folder(open("/", O_PATH | O_DIRECTORY | O_CLOEXEC));
    path += strspn(path, "/");
    while (folder.valid()) {
        const size_t size = strcspn(path, "/");
        const char* const rest = path + size + strspn(path + size, "/");
        char name[NAME_MAX + 1] = ".";  // stays "." when the path is "/"
        if (size >= sizeof(name)) {
            errno = ENAMETOOLONG;
            return -1;
        }
        if (size > 0) {
            memcpy(name, path, size);
            name[size] = '\0';
        }
        if (*rest == '\0') {
            return open_component(folder.get(), name,
                                  path[size] == '/' ? flags | O_DIRECTORY : flags, mode);
        }
        folder.reset(open_component(folder.get(), name, O_PATH | O_DIRECTORY, 0));
        path = rest;
    }
    return -1;
}

// As open(2), for an absolute path; sets O_CLOEXEC. Fails with ELOOP when any component of the
// path, including the last one, is a symbolic link.
inline int open_without_links(const char* path, int flags, mode_t mode = 0) {
#ifdef SYS_openat2
    // Same layout as struct open_how of <linux/openat2.h>, which older kernel headers do not have.
    struct {
        uint64_t flags;
        uint64_t mode;
        uint64_t resolve;
    } how = {static_cast<uint64_t>(flags | O_CLOEXEC), mode, 0x04};  // RESOLVE_NO_SYMLINKS
    const long fd = syscall(SYS_openat2, AT_FDCWD, path, &how, sizeof(how));
    // A system-call filter that does not know openat2(2) returns EPERM.
    if (fd >= 0 || (errno != ENOSYS && errno != EPERM)) {
        return static_cast<int>(fd);
    }
#endif
    return open_step_by_step(path, flags, mode);
}

}  // namespace corvo

#endif  // BASE_OPEN_WITHOUT_LINKS_H
