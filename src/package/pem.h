// Reads PEM files that contain several certificates or revocation lists.
#ifndef PACKAGE_PEM_H
#define PACKAGE_PEM_H

#include <openssl/pem.h>

#include "openssl_owned.h"
#include "package/files.h"

constexpr size_t PEM_SIZE_MAX = 1048576;  // bytes

// Counts the "-----END LABEL-----" lines in a PEM text. The label "CERTIFICATE" also matches
// "X509 CERTIFICATE".
inline size_t count_ends(const std::string& text, const std::string& label) {
    size_t count = 0;
    for (size_t at = 0; (at = text.find(label + "-----", at)) != std::string::npos; ++at) {
        const size_t begin = text.rfind("-----", at);
        count += begin != std::string::npos && text.compare(begin, 9, "-----END ") == 0 ? 1 : 0;
    }
    return count;
}

// Reads all items of one kind from a PEM file, which must contain at least one, and passes each to
// `take`, which returns false on failure. READ is PEM_read_bio_X509() or a similar function,
// `label` the label in the item's BEGIN and END lines, and `kind` its name in messages. Returns as
// load_keyring() does.
template <typename Owned, auto READ, typename Take>
PackageStatus read_pem(const std::string& path, const char* label, const char* kind, Take take) {
    std::string text;
    PackageStatus status = read_small_file(path, PEM_SIZE_MAX, FileKind::REGULAR, text);
    if (!status.ok()) {
        return status;
    }
    // READ silently skips an item with a damaged BEGIN line. Its END line still reveals it.
    const size_t ended = count_ends(text, label);
    const OwnedBio source = view_of(text);
    for (size_t found = 0;; ++found) {
        Owned item(READ(source.get(), nullptr, nullptr, nullptr));
        if (item && take(std::move(item))) {
            continue;
        }
        // READ reports the end of the file as "no start line".
        if (found > 0 && found >= ended &&
            ERR_GET_REASON(ERR_peek_last_error()) == PEM_R_NO_START_LINE) {
            ERR_clear_error();
            return {};
        }
        return package_fault(PACKAGE_MALFORMED, path + ": no " + kind + ": " + openssl_reason());
    }
}

#endif  // PACKAGE_PEM_H
