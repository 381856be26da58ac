#include "package/files.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

#include "base/open_without_links.h"
#include "base/unique_fd.h"

namespace {

constexpr size_t PIECE_SIZE = 65536;  // bytes

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

int64_t read_pieces(int file, uint64_t size, const TakeBytes& take) {
    const auto pieceSize = static_cast<size_t>(std::min<uint64_t>(size, PIECE_SIZE));
    const auto piece = std::make_unique_for_overwrite<char[]>(pieceSize);
    uint64_t done = 0;
    while (done < size) {
        const auto wanted = static_cast<size_t>(std::min<uint64_t>(size - done, pieceSize));
        const ssize_t taken = read(file, piece.get(), wanted);
        if (taken < 0) {
            return -1;
        }
        if (taken == 0) {
            break;
        }
        done += static_cast<uint64_t>(taken);
        if (!take({piece.get(), static_cast<size_t>(taken)})) {
            break;
        }
    }
    return static_cast<int64_t>(done);
}

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
    const int64_t taken = read_pieces(file.get(), limit + 1, [&](std::span<const char> bytes) {
        content.append(bytes.data(), bytes.size());
        return true;
    });
    if (taken < 0) {
        return cannot_read(path, errno);
    }
    return content.size() <= limit
               ? PackageStatus{}
               : package_fault(PACKAGE_MISSING, "cannot read " + path + ": longer than " +
                                                    std::to_string(limit) + " bytes");
}
