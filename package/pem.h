// PEM files of several things.
#ifndef PACKAGE_PEM_H
#define PACKAGE_PEM_H

#include <openssl/pem.h>

#include "openssl_owned.h"
#include "package/files.h"

constexpr size_t PEM_SIZE_MAX = 1048576;  // bytes

// Reads everything of one kind in a PEM file, of which there must be at least one, and hands each
// to `take`, which says whether it could. READ is PEM_read_bio_X509() or its like; `kind` is the
// word for messages. Returns as load_keyring() does.
template <typename Owned, auto READ, typename Take>
PackageStatus read_pem(const std::string& path, const char* kind, Take take) {
    std::string text;
    PackageStatus status = read_small_file(path, PEM_SIZE_MAX, FileKind::REGULAR, text);
    if (!status.ok()) {
        return status;
    }
    const OwnedBio source = view_of(text);
    for (bool found = false;; found = true) {
        Owned item(READ(source.get(), nullptr, nullptr, nullptr));
        if (item && take(std::move(item))) {
            continue;
        }
        // The end of the file shows as one more that does not begin.
        if (found && ERR_GET_REASON(ERR_peek_last_error()) == PEM_R_NO_START_LINE) {
            ERR_clear_error();
            return {};
        }
        return package_fault(PACKAGE_MALFORMED, path + ": no " + kind + ": " + openssl_reason());
    }
}

#endif  // PACKAGE_PEM_H
