#include "package/content.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <new>

#include "base/crc32.h"
#include "base/open_without_links.h"
#include "base/unique_fd.h"
#include "manifest_lines.h"
#include "openssl_owned.h"
#include "package/files.h"

namespace {

constexpr uint64_t PROGRESS_STEP = 1048576;

PackageStatus differs(const std::string& text) {
    return package_fault(PACKAGE_DIFFERENT, text);
}

PackageStatus check_size(const std::string& path, const PackageFile& file, uint64_t size) {
    for (const ManifestModule& module : file.modules) {
        if (size < module.offset + module.size) {
            return differs(path + " has " + std::to_string(size) + " bytes, module " + module.name +
                           " ends at " + std::to_string(module.offset + module.size));
        }
    }
    return size > file.size && !file.mayBeLonger
               ? differs(path + " has " + std::to_string(size) + " bytes, expected " +
                         std::to_string(file.size))
               : PackageStatus{};
}

bool same_time(const timespec& left, const timespec& right) {
    return left.tv_sec == right.tv_sec && left.tv_nsec == right.tv_nsec;
}

bool same_file(const CheckedFile& left, const CheckedFile& right) {
    return left.device == right.device && left.inode == right.inode && left.size == right.size &&
           same_time(left.modified, right.modified) && same_time(left.changed, right.changed);
}

}  // namespace

CheckedFile stamp_of(const std::string& path, Links links, const struct stat& status) {
    return {.path = path,
            .links = links,
            .device = status.st_dev,
            .inode = status.st_ino,
            .size = status.st_size,
            .modified = status.st_mtim,
            .changed = status.st_ctim};
}

void DigestDeleter::operator()(evp_md_ctx_st* digest) const {
    EVP_MD_CTX_free(digest);
}

Sha256Stream::Sha256Stream() : digest_(EVP_MD_CTX_new()) {
    start();
}

void Sha256Stream::start() {
    if (!digest_ || EVP_DigestInit_ex(digest_.get(), EVP_sha256(), nullptr) != 1) {
        throw std::bad_alloc();
    }
}

void Sha256Stream::update(std::span<const char> bytes) {
    if (EVP_DigestUpdate(digest_.get(), bytes.data(), bytes.size()) != 1) {
        throw std::bad_alloc();
    }
}

Sha256 Sha256Stream::take() {
    Sha256 digest = {};
    if (EVP_DigestFinal_ex(digest_.get(), digest.data(), nullptr) != 1) {
        throw std::bad_alloc();
    }
    start();
    return digest;
}

std::vector<PackageFile> package_files(const Manifest& manifest) {
    std::vector<PackageFile> files;
    if (!manifest.combined()) {
        for (const ManifestModule& module : manifest.modules) {
            files.push_back({module.file, module.size, false, {module}});
        }
        return files;
    }
    std::vector<ManifestModule> modules = manifest.modules;
    std::ranges::sort(modules, {}, &ManifestModule::offset);
    const uint64_t size = modules.empty() ? 0 : modules.back().offset + modules.back().size;
    files.push_back({manifest.package, size, manifest.format == 1, std::move(modules)});
    return files;
}

ContentCheck::ContentCheck(PackageFile file, std::string path)
    : file_(std::move(file)), path_(std::move(path)) {
    for (const ManifestModule& module : file_.modules) {
        if (module.crc || module.sha256) {
            checkedSize_ = module.offset + module.size;
        }
    }
}

PackageStatus ContentCheck::feed(std::span<const char> bytes) {
    if (!file_.mayBeLonger && bytes.size() > file_.size - position_) {
        return differs(path_ + " is longer than the " + std::to_string(file_.size) +
                       " bytes of the manifest");
    }
    while (!bytes.empty() && module_ < file_.modules.size()) {
        const ManifestModule& module = file_.modules[module_];
        const bool inside = position_ >= module.offset;
        const uint64_t end = inside ? module.offset + module.size : module.offset;
        const auto taken = static_cast<size_t>(std::min<uint64_t>(bytes.size(), end - position_));
        if (inside && module.sha256) {
            sha256_.update(bytes.first(taken));
        }
        if (inside && module.crc) {
            crc_ = corvo::crc32(crc_, bytes.first(taken));
        }
        bytes = bytes.subspan(taken);
        position_ += taken;
        if (inside && position_ == end) {
            PackageStatus status = end_module(module);
            if (!status.ok()) {
                return status;
            }
        }
    }
    position_ += bytes.size();
    return {};
}

PackageStatus ContentCheck::end_module(const ManifestModule& module) {
    ++module_;
    if (module.sha256) {
        const Sha256 found = sha256_.take();
        if (found != *module.sha256) {
            return differs("module " + module.name + " in " + path_ + " has the SHA-256 " +
                           digest_text(found) + ", expected " + digest_text(*module.sha256));
        }
    }
    if (module.crc) {
        const uint32_t found = crc_;
        crc_ = 0;
        if (found != *module.crc) {
            return differs("module " + module.name + " in " + path_ + " has the checksum " +
                           crc_text(found) + ", expected " + crc_text(*module.crc));
        }
    }
    return {};
}

PackageStatus ContentCheck::finish() const {
    return check_size(path_, file_, position_);
}

namespace {

PackageStatus unreadable(const std::string& path) {
    return package_fault(PACKAGE_UNREADABLE, "cannot read " + path + ": " + strerror(errno));
}

// Opens a regular file. Does not wait on a FIFO, and does not follow a symbolic link in the last
// component of the path.
PackageStatus open_file(const std::string& path, Links links, corvo::UniqueFd& file,
                        struct stat& status) {
    file.reset(links == Links::REFUSED
                   ? corvo::open_without_links(path.c_str(), O_RDONLY | O_NONBLOCK)
                   : open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (!file.valid()) {
        if (errno == ELOOP || errno == ENXIO) {
            return differs(path + " is not a file");
        }
        return errno == ENOENT || errno == ENOTDIR ? differs(path + " is missing")
                                                   : unreadable(path);
    }
    if (fstat(file.get(), &status) != 0) {
        return unreadable(path);
    }
    return S_ISREG(status.st_mode) ? PackageStatus{} : differs(path + " is not a file");
}

PackageStatus check_bytes(int file, const std::string& path, ContentCheck& check, uint64_t size,
                          const ContentProgress& progress) {
    PackageStatus status;
    uint64_t done = 0;
    uint64_t reported = 0;
    const int64_t taken = read_pieces(file, size, [&](std::span<const char> bytes) {
        status = check.feed(bytes);
        done += bytes.size();
        if (status.ok() && (done - reported >= PROGRESS_STEP || done == size)) {
            reported = done;
            progress(done);
        }
        return status.ok();
    });
    if (taken < 0) {
        return unreadable(path);
    }
    return status.ok() ? check.finish() : status;
}

}  // namespace

PackageStatus check_file(const std::string& path, const PackageFile& file,
                         const ContentProgress& progress, CheckedFile& checked, Links links) {
    corvo::UniqueFd descriptor;
    struct stat status = {};
    PackageStatus result = open_file(path, links, descriptor, status);
    if (!result.ok()) {
        return result;
    }
    // Report a wrong size at once instead of after reading the whole file.
    result = check_size(path, file, static_cast<uint64_t>(status.st_size));
    if (!result.ok()) {
        return result;
    }
    posix_fadvise(descriptor.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    ContentCheck check(file, path);
    result = check.checkedSize() == 0
                 ? PackageStatus{}
                 : check_bytes(descriptor.get(), path, check, file.size, progress);
    checked = stamp_of(path, links, status);
    return result;
}

PackageStatus check_unchanged(const CheckedFile& checked) {
    struct stat status = {};
    bool exists = false;
    if (checked.links == Links::REFUSED) {
        const corvo::UniqueFd file(corvo::open_without_links(checked.path.c_str(), O_PATH));
        exists = file.valid() && fstat(file.get(), &status) == 0;
    } else {
        exists = lstat(checked.path.c_str(), &status) == 0;
    }
    if (!exists || !same_file(stamp_of(checked.path, checked.links, status), checked)) {
        return differs(checked.path + " was replaced or changed after it was checked");
    }
    return {};
}
