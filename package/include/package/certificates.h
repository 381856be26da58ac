// Whom a camera trusts: root certificates and what their owners have revoked.
#ifndef PACKAGE_CERTIFICATES_H
#define PACKAGE_CERTIFICATES_H

#include <memory>
#include <string>

#include "package/status.h"

struct x509_store_st;  // OpenSSL's

struct CertificateStoreDeleter {
    void operator()(x509_store_st* store) const;
};

struct Keyring {
    // Roots and lists.
    std::unique_ptr<x509_store_st, CertificateStoreDeleter> store;
};

// Reads a keyring, a PEM file of root certificates, and a PEM file of certificate revocation lists;
// `revocations` may be empty: nothing is revoked. What a list names is revoked whatever the list's
// own dates say: a camera that gets no newer one must not stop at the old one, and one whose clock
// is wrong must not ignore it. Of several lists of one issuer each counts. An issuer without a list
// revokes nothing. A list with an authority key identifier is of the authority that has this key,
// and not of another one with the same name. Returns PACKAGE_OK, PACKAGE_MISSING,
// PACKAGE_UNREADABLE, or PACKAGE_MALFORMED for a file without a certificate (a list) in it, or with
// a broken one.
PackageStatus load_keyring(const std::string& roots, const std::string& revocations,
                           Keyring& keyring);

#endif  // PACKAGE_CERTIFICATES_H
