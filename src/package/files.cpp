#include "package/files.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>

#include "base/open_without_links.h"
#include "base/unique_fd.h"

namespace {

constexpr size_t CHUNK_SIZE = 4096;

int open_file(const char* path, FileKind kind) {
    switch (kind) {
        case FileKind::ANY:
            return open(path, O_RDONLY | O_CLOEXEC);
        case FileKind::REGULAR:
            return open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK);
        case FileKind::NOT_A_LINK:
            return open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW);
        case FileKind::NO_LINK:
            break;
    }
    return corvo::open_without_links(path, O_RDONLY | O_NONBLOCK);
}

PackageStatus cannot_read(const std::string& path, int error) {
    const bool missing = error == ENOENT || error == ENOTDIR || error == EISDIR;
    return package_fault(missing ? PACKAGE_MISSING : PACKAGE_UNREADABLE,
                         "cannot read " + path + ": " + strerror(error));
}

}  // namespace

PackageStatus read_small_file(const std::string& path, size_t limit, FileKind kind,
                              std::string& content) {
    const corvo::UniqueFd file(open_file(path.c_str(), kind));
    if (!file.valid()) {
        return cannot_read(path, errno);
    }
    struct stat status = {};
    if (fstat(file.get(), &status) != 0) {
        return cannot_read(path, errno);
    }
    if (kind != FileKind::ANY && !S_ISREG(status.st_mode)) {
        return package_fault(PACKAGE_MISSING, "cannot read " + path + ": not a file");
    }
    content.clear();
    std::array<char, CHUNK_SIZE> chunk;
    for (;;) {
        const ssize_t taken = read(file.get(), chunk.data(), chunk.size());
        if (taken < 0) {
            return cannot_read(path, errno);
        }
        if (taken == 0) {
            break;
        }
        content.append(chunk.data(), static_cast<size_t>(taken));
        if (content.size() > limit) {
            return package_fault(PACKAGE_MISSING, "cannot read " + path + ": longer than " +
                                                      std::to_string(limit) + " bytes");
        }
    }
    return {};
}
