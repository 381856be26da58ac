// Whether files hold what a manifest says. Bytes are taken as they come, from a file or from the
// network, once and in memory of a fixed size.
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

// The SHA-256 of bytes that come in pieces. Throws std::bad_alloc when memory is short.
class Sha256Stream {
  public:
    Sha256Stream();
    void update(std::span<const char> bytes);
    // What has come so far; the stream then starts anew.
    Sha256 take();

  private:
    void start();
    std::unique_ptr<evp_md_ctx_st, DigestDeleter> digest_;
};

// One file of a package: an image, or the combined file with all modules.
struct PackageFile {
    std::string name;                     // as the manifest has it; empty in version 1
    uint64_t size;                        // bytes: where its last module ends
    bool mayBeLonger;                     // version 1 says nothing of what lies behind
    std::vector<ManifestModule> modules;  // in the order of their offsets
};

// The files of the package: what is to be fetched, and what each must be.
std::vector<PackageFile> package_files(const Manifest& manifest);

// Checks one file as its bytes arrive, from its first to its last.
class ContentCheck {
  public:
    // `path` is what messages call the file.
    ContentCheck(PackageFile file, std::string path);

    // Takes the next bytes. Returns PACKAGE_OK; PACKAGE_DIFFERENT once a module that has ended is
    // another one, or the file is longer than it may be. After that only a new check goes on.
    PackageStatus feed(std::span<const char> bytes);

    // To be called at the file's end. Returns PACKAGE_OK, or PACKAGE_DIFFERENT when it came early.
    PackageStatus finish() const;

    // Bytes from the start on behind which nothing is checked any more.
    [[nodiscard]] uint64_t checkedSize() const { return checkedSize_; }

  private:
    PackageStatus end_module(const ManifestModule& module);

    PackageFile file_;
    std::string path_;
    size_t module_ = 0;      // the one that the next byte belongs to, or that begins behind it
    uint64_t position_ = 0;  // of the next byte
    uint64_t checkedSize_ = 0;
    Sha256Stream sha256_;
    uint32_t crc_ = 0;
};

// What becomes of a symbolic link in a folder on the way to a file.
enum class Links { FOLLOWED, REFUSED };

// A file that was checked, as it was then.
struct CheckedFile {
    std::string path;
    Links links;
    dev_t device;
    ino_t inode;
    off_t size;
    timespec modified;
    timespec changed;
};

// The same of a file that was checked in another way, by what stat(2) says of it.
CheckedFile stamp_of(const std::string& path, Links links, const struct stat& status);

// Told the bytes of a file that have been checked, after every megabyte or so.
using ContentProgress = std::function<void(uint64_t bytes)>;

// Reads a file from its start to its end and checks it. What is not a regular file itself, a link
// to one included, is refused, and not waited for. Returns PACKAGE_OK, PACKAGE_UNREADABLE, or
// PACKAGE_DIFFERENT, for a file that is missing too. With Links::REFUSED the path is absolute.
PackageStatus check_file(const std::string& path, const PackageFile& file,
                         const ContentProgress& progress, CheckedFile& checked,
                         Links links = Links::FOLLOWED);

// Whether the path still leads to the file that was checked and nobody has changed it since.
// Returns PACKAGE_OK, or PACKAGE_DIFFERENT.
PackageStatus check_unchanged(const CheckedFile& checked);

#endif  // PACKAGE_CONTENT_H
