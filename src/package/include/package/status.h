// The result of a procedure of this library, and a message that explains a failure.
#ifndef PACKAGE_STATUS_H
#define PACKAGE_STATUS_H

#include <stdint.h>

#include <string>
#include <utility>

enum PackageResult : int32_t {
    PACKAGE_OK = 0,
    PACKAGE_UNREADABLE = 1,    // a system call on a file, a key or the queue failed
    PACKAGE_MISSING = 2,       // a named file does not exist, is not a file, or is far too large
    PACKAGE_MALFORMED = 3,     // a text or an argument has the wrong format
    PACKAGE_NOT_TRUSTED = 4,   // not signed, or not by a trusted signer
    PACKAGE_DIFFERENT = 5,     // a file does not match the manifest
    PACKAGE_UNSUITABLE = 6,    // the package is not for this camera
    PACKAGE_NO_SERVICE = 7,    // the upgrade service is not running
    PACKAGE_NO_PARTITION = 8,  // the camera has no partition for a module, or not yet
};

struct [[nodiscard]] PackageStatus {
    PackageResult result = PACKAGE_OK;
    // One line: which file, which module, what was expected and what was found. It may contain text
    // from untrusted files. Empty for PACKAGE_OK.
    std::string text;

    [[nodiscard]] bool ok() const { return result == PACKAGE_OK; }
};

inline PackageStatus package_fault(PackageResult result, std::string text) {
    return {result, std::move(text)};
}

#endif  // PACKAGE_STATUS_H
