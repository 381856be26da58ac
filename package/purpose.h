// What a certificate may be used for, and its key.
#ifndef PACKAGE_PURPOSE_H
#define PACKAGE_PURPOSE_H

#include <openssl/x509v3.h>

// Whether it is for signing code, and says so.
inline bool may_sign_code(X509* certificate) {
    // Without such an extension a key usage has all bits set.
    return (X509_get_extension_flags(certificate) & EXFLAG_XKUSAGE) != 0 &&
           (X509_get_extended_key_usage(certificate) & XKU_CODE_SIGN) != 0 &&
           (X509_get_key_usage(certificate) & KU_DIGITAL_SIGNATURE) != 0;
}

inline const char* key_kind(X509* certificate) {
    const char* const kind = EVP_PKEY_get0_type_name(X509_get0_pubkey(certificate));
    return kind != nullptr ? kind : "unknown";
}

// Whether a signer's key is of a kind that every release of OpenSSL from 3.0 on signs CMS with, so
// that it does not depend on the camera's release which signatures it takes.
inline bool has_usable_key(X509* certificate) {
    const EVP_PKEY* const key = X509_get0_pubkey(certificate);
    return EVP_PKEY_is_a(key, "RSA") == 1 || EVP_PKEY_is_a(key, "EC") == 1;
}

// Whether an authority may vouch for signers of code: it is not limited to other usages.
inline bool may_issue_signers(X509* authority) {
    return (X509_get_extended_key_usage(authority) & (XKU_CODE_SIGN | XKU_ANYEKU)) != 0;
}

#endif  // PACKAGE_PURPOSE_H
