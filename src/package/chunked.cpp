#include "package/chunked.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <new>

#include "base/unique_fd.h"
#include "chunks/frame.h"

namespace {

constexpr uint64_t PROGRESS_STEP = 1048576;  // bytes

PackageStatus differs(const std::string& text) {
    return package_fault(PACKAGE_DIFFERENT, text);
}

PackageStatus unreadable(const std::string& path) {
    return package_fault(PACKAGE_UNREADABLE, "cannot read " + path + ": " + strerror(errno));
}

PackageStatus check_digest(const std::string& what, const Sha256& found, const Sha256& expected) {
    return found == expected ? PackageStatus{}
                             : differs(what + " has the SHA-256 " + digest_text(found) +
                                       ", expected " + digest_text(expected));
}

PackageStatus check_size(const std::string& path, uint64_t size, uint64_t expected) {
    return size == expected ? PackageStatus{}
                            : differs(path + " has " + std::to_string(size) + " bytes, expected " +
                                      std::to_string(expected));
}

PackageStatus chunk_fault(const std::string& path, uint32_t number, ChunkResult result) {
    if (result == CHUNKS_NO_MEMORY) {
        throw std::bad_alloc();
    }
    return differs(path + ": chunk " + std::to_string(number) + ": " + chunk_result_text(result));
}

PackageStatus open_frames(const std::string& path, uint64_t size, corvo::UniqueFd& file) {
    file.reset(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    struct stat status = {};
    if (!file.valid()) {
        return errno == ENOENT || errno == ENOTDIR ? differs(path + " is missing")
               : errno == ELOOP || errno == ENXIO  ? differs(path + " is not a file")
                                                   : unreadable(path);
    }
    if (fstat(file.get(), &status) != 0) {
        return unreadable(path);
    }
    return S_ISREG(status.st_mode) ? check_size(path, static_cast<uint64_t>(status.st_size), size)
                                   : differs(path + " is not a file");
}

// Reads exactly as many bytes as the span has.
PackageStatus read_fully(int file, const std::string& path, std::span<char> bytes) {
    while (!bytes.empty()) {
        const ssize_t taken = read(file, bytes.data(), bytes.size());
        if (taken < 0) {
            return unreadable(path);
        }
        if (taken == 0) {
            return differs(path + " became shorter while it was read");
        }
        bytes = bytes.subspan(static_cast<size_t>(taken));
    }
    return {};
}

struct Restoring {
    const ChunkIndex& index;
    std::string path;  // of the frames
    corvo::UniqueFd file = {};
    ChunkReader reader = {};
    Sha256Stream image = {};
    Sha256Stream frames = {};
    // Too large for the stack of a small system.
    std::unique_ptr<char[]> frame = std::make_unique_for_overwrite<char[]>(FRAME_SIZE_MAX);
    std::unique_ptr<char[]> chunk = std::make_unique_for_overwrite<char[]>(CHUNK_SIZE_MAX);
};

PackageStatus restore_one(Restoring& restoring, uint32_t number, std::span<char>& chunk) {
    const ChunkEntry entry = chunk_entry(restoring.index, number);
    const std::span<char> frame(restoring.frame.get(), entry.frameSize);
    chunk = {restoring.chunk.get(), entry.size};
    PackageStatus status = read_fully(restoring.file.get(), restoring.path, frame);
    if (!status.ok()) {
        return status;
    }
    const ChunkResult result = restore_chunk(restoring.reader, entry, frame, chunk);
    if (result != CHUNKS_OK) {
        return chunk_fault(restoring.path, number, result);
    }
    restoring.frames.update(frame);
    restoring.image.update(chunk);
    return {};
}

}  // namespace

PackageStatus read_index(const std::string& path, std::span<const char> bytes,
                         const ManifestModule& module, ChunkIndex& index) {
    const ManifestFile& file = module.chunked->index;
    PackageStatus status = check_size(path, bytes.size(), file.size);
    if (status.ok()) {
        Sha256Stream sha256;
        sha256.update(bytes);
        status = check_digest(path, sha256.take(), file.sha256);
    }
    if (!status.ok()) {
        return status;
    }
    uint32_t wrong = 0;
    const ChunkResult result =
        read_chunk_index(bytes, module.size, module.chunked->frames.size, index, wrong);
    if (result == CHUNKS_CHUNK_SIZE || result == CHUNKS_FRAME_SIZE) {
        return chunk_fault(path, wrong, result);
    }
    return result == CHUNKS_OK ? PackageStatus{} : differs(path + ": " + chunk_result_text(result));
}

PackageStatus restore_image(const std::string& directory, const ManifestModule& module,
                            const TakeBytes& take, const ContentProgress& progress) {
    const ChunkedFiles& files = *module.chunked;
    const std::string indexPath = directory + files.index.name;
    std::string bytes;
    PackageStatus status = read_small_file(indexPath, static_cast<size_t>(files.index.size),
                                           FileKind::NOT_A_LINK, bytes);
    if (!status.ok()) {
        // A file of the package that is missing or too large differs from the manifest.
        status.result = status.result == PACKAGE_MISSING ? PACKAGE_DIFFERENT : PACKAGE_UNREADABLE;
        return status;
    }
    ChunkIndex index;
    status = read_index(indexPath, bytes, module, index);
    if (!status.ok()) {
        return status;
    }
    Restoring restoring = {.index = index, .path = directory + files.frames.name};
    if (make_chunk_reader(restoring.reader) != CHUNKS_OK) {
        throw std::bad_alloc();
    }
    status = open_frames(restoring.path, files.frames.size, restoring.file);
    uint64_t done = 0;
    uint64_t reported = 0;
    for (uint32_t i = 0; i < index.count && status.ok(); ++i) {
        std::span<char> chunk;
        status = restore_one(restoring, i, chunk);
        if (status.ok() && !take(chunk)) {
            return {};
        }
        done += chunk.size();
        if (status.ok() && (done - reported >= PROGRESS_STEP || done == module.size)) {
            reported = done;
            progress(done);
        }
    }
    if (status.ok()) {
        status = check_digest(restoring.path, restoring.frames.take(), files.frames.sha256);
    }
    return status.ok() ? check_digest("the image in " + restoring.path, restoring.image.take(),
                                      *module.sha256)
                       : status;
}
