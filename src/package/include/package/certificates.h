// The root certificates that a camera trusts, and the revocation lists of certificate authorities.
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
    // Root certificates and revocation lists.
    std::unique_ptr<x509_store_st, CertificateStoreDeleter> store;
};

// Reads the keyring: `roots` is a PEM file of root certificates, `revocations` a PEM file of
// certificate revocation lists. `revocations` may be empty; then nothing is revoked.
//
// A certificate that a list names is revoked even if the list has expired or is not yet valid: a
// camera that receives no newer list must still accept packages, and a camera whose clock is wrong
// must not ignore the list. If an issuer has several lists, all of them apply; an issuer without a
// list revokes nothing. A list with an authority key identifier applies only to the authority that
// has this key, not to another authority of the same name.
//
// Returns PACKAGE_OK, PACKAGE_MISSING, PACKAGE_UNREADABLE, or PACKAGE_MALFORMED when a file
// contains no certificate (or no list) or a damaged one.
PackageStatus load_keyring(const std::string& roots, const std::string& revocations,
                           Keyring& keyring);

#endif  // PACKAGE_CERTIFICATES_H
