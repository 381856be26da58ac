// What a procedure of this library says when it ends: how, and in one line why.
#ifndef PACKAGE_STATUS_H
#define PACKAGE_STATUS_H

#include <stdint.h>

#include <string>
#include <utility>

enum PackageResult : int32_t {
    PACKAGE_OK = 0,
    PACKAGE_UNREADABLE = 1,   // a file, a key or the queue: the system refuses
    PACKAGE_MISSING = 2,      // a file that was named is not there, is none, or is far too large
    PACKAGE_MALFORMED = 3,    // a text or an argument that is not what it must be
    PACKAGE_NOT_TRUSTED = 4,  // not signed, or not by whom it must be
    PACKAGE_DIFFERENT = 5,    // a file is not what the manifest says
    PACKAGE_UNSUITABLE = 6,   // not for this camera
    PACKAGE_NO_SERVICE = 7,   // the upgrade service does not run
};

struct [[nodiscard]] PackageStatus {
    PackageResult result = PACKAGE_OK;
    // One line: which file, which module, what was expected and what was found. Text from outside
    // may be in it. Empty when all is well.
    std::string text;

    [[nodiscard]] bool ok() const { return result == PACKAGE_OK; }
};

inline PackageStatus package_fault(PackageResult result, std::string text) {
    return {result, std::move(text)};
}

#endif  // PACKAGE_STATUS_H
