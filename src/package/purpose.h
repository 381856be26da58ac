// Checks the purpose and the key type of certificates.
#ifndef PACKAGE_PURPOSE_H
#define PACKAGE_PURPOSE_H

#include <openssl/x509v3.h>

// Returns whether the certificate has the extended key usage "code signing".
inline bool may_sign_code(X509* certificate) {
    // OpenSSL reports all usages as allowed when an extension is missing. The extended key usage is
    // required here, hence EXFLAG_XKUSAGE; the key usage is optional.
    return (X509_get_extension_flags(certificate) & EXFLAG_XKUSAGE) != 0 &&
           (X509_get_extended_key_usage(certificate) & XKU_CODE_SIGN) != 0 &&
           (X509_get_key_usage(certificate) & KU_DIGITAL_SIGNATURE) != 0;
}

inline const char* key_kind(X509* certificate) {
    const char* const kind = EVP_PKEY_get0_type_name(X509_get0_pubkey(certificate));
    return kind != nullptr ? kind : "unknown";
}

// Returns whether the signer's key has a type that every OpenSSL release since 3.0 supports in CMS.
// Otherwise it would depend on the camera's OpenSSL release which signatures it accepts.
inline bool has_usable_key(X509* certificate) {
    const EVP_PKEY* const key = X509_get0_pubkey(certificate);
    return EVP_PKEY_is_a(key, "RSA") == 1 || EVP_PKEY_is_a(key, "EC") == 1;
}

// Returns whether an authority may issue code signing certificates: it has no extended key usage,
// or one that includes code signing.
inline bool may_issue_signers(X509* authority) {
    return (X509_get_extended_key_usage(authority) & (XKU_CODE_SIGN | XKU_ANYEKU)) != 0;
}

#endif  // PACKAGE_PURPOSE_H
