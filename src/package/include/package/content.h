// Checks files against a manifest. The bytes may come from a file or from the network. They are
// processed once, in order, with a fixed amount of memory.
#ifndef PACKAGE_CONTENT_H
#define PACKAGE_CONTENT_H

#include <stdint.h>
#include <sys/stat.h>
#include <sys/types.h>
#include <time.h>

#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "package/manifest.h"
#include "package/status.h"

struct evp_md_ctx_st;  // OpenSSL's

struct DigestDeleter {
    void operator()(evp_md_ctx_st* digest) const;
};

// Computes the SHA-256 of bytes that arrive in pieces. Throws std::bad_alloc when memory is short.
class Sha256Stream {
  public:
    Sha256Stream();
    void update(std::span<const char> bytes);
    // Returns the digest of the bytes so far, and resets the stream.
    Sha256 take();

  private:
    void start();
    std::unique_ptr<evp_md_ctx_st, DigestDeleter> digest_;
};

// One file of a package: an image, or the combined file with all modules.
struct PackageFile {
    std::string name;                     // from the manifest; empty in version 1
    uint64_t size;                        // bytes, up to the end of the last module
    bool mayBeLonger;                     // version 1 allows more bytes after the last module
    std::vector<ManifestModule> modules;  // ordered by offset
};

// Lists the files of the package, each with the modules that it must contain.
std::vector<PackageFile> package_files(const Manifest& manifest);

// Checks one file while its bytes arrive, in order from the first to the last.
class ContentCheck {
  public:
    // `path` is the name of the file in messages.
    ContentCheck(PackageFile file, std::string path);

    // Adds the next bytes. Returns PACKAGE_OK, or PACKAGE_DIFFERENT when a module that is now
    // complete has another digest than in the manifest, or when the file is longer than allowed.
    // After PACKAGE_DIFFERENT this object must not be used again.
    PackageStatus feed(std::span<const char> bytes);

    // Must be called at the end of the file. Returns PACKAGE_OK, or PACKAGE_DIFFERENT when the file
    // is too short.
    PackageStatus finish() const;

    // The offset in bytes of the end of the last module that has a digest or checksum. Bytes after
    // it are not checked. 0: no module has one.
    [[nodiscard]] uint64_t checkedSize() const { return checkedSize_; }

  private:
    PackageStatus end_module(const ManifestModule& module);

    PackageFile file_;
    std::string path_;
    size_t module_ = 0;      // the first module that ends after position_
    uint64_t position_ = 0;  // offset of the next byte in the file
    uint64_t checkedSize_ = 0;
    Sha256Stream sha256_;
    uint32_t crc_ = 0;
};

// How to treat a symbolic link in the folder part of a path.
enum class Links { FOLLOWED, REFUSED };

// The identity and state of a file at the time it was checked.
struct CheckedFile {
    std::string path;
    Links links;
    dev_t device;
    ino_t inode;
    off_t size;
    timespec modified;
    timespec changed;
};

// Makes such a record, from the result of stat(2), for a file that was checked in another way.
CheckedFile stamp_of(const std::string& path, Links links, const struct stat& status);

// Called about once per megabyte with the number of bytes of the file that have been checked.
using ContentProgress = std::function<void(uint64_t bytes)>;

// Reads the whole file and checks it. Refuses anything but a regular file, including a symbolic
// link to one, and does not wait on a FIFO. Returns PACKAGE_OK, PACKAGE_UNREADABLE, or
// PACKAGE_DIFFERENT, which also means a missing file. With Links::REFUSED `path` must be absolute.
PackageStatus check_file(const std::string& path, const PackageFile& file,
                         const ContentProgress& progress, CheckedFile& checked,
                         Links links = Links::FOLLOWED);

// Checks that the path still names the same file and that the file was not changed since it was
// checked. Returns PACKAGE_OK, or PACKAGE_DIFFERENT.
PackageStatus check_unchanged(const CheckedFile& checked);

#endif  // PACKAGE_CONTENT_H
