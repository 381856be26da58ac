// Signatures of manifests: CMS (RFC 5652), detached, DER, SHA-256, as OpenSSL's libcrypto and its
// command "openssl cms" make and check them.
//
// A signature is taken when it has signed attributes, which name the content's type ("data") and
// digest, and its one signer's certificate leads over the certificates that come with
// it to a root of the keyring, none of them is revoked, and the signer's is for code signing (the
// extended key usage of RFC 5280; an authority on the way that is limited to usages must be allowed
// it too) and has an RSA key or one on an elliptic curve. Keys and digests below 112 bits of
// strength are refused.
//
// Cameras start in 1970. A clock that says less than the time at which this library was built has
// not been set: then certificates must have been valid when the signature was made, which is what
// the signer wrote into it. Else they must be valid now.
#ifndef PACKAGE_SIGNATURE_H
#define PACKAGE_SIGNATURE_H

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <string_view>
#include <vector>

#include "package/certificates.h"
#include "package/status.h"

constexpr size_t SIGNATURE_SIZE_MAX = 65536;  // bytes

struct Signer {
    std::string subject;      // as RFC 2253 has it
    std::string issuer;       // likewise
    std::string fingerprint;  // SHA-256 of the certificate, hexadecimal with colons
    int64_t validFrom = 0;    // seconds since 1970
    int64_t validUntil = 0;
    int64_t signedAt = 0;  // by the signer's clock; 0 when the signature does not say
};

// Checks that a signer whom the keyring trusts has signed exactly these bytes. `now` is in seconds
// since 1970. `signer` is set as far as the signature could be read, whatever the result. Both
// views may hold any bytes at all. Returns PACKAGE_OK, PACKAGE_NOT_TRUSTED with the reason, or
// PACKAGE_UNREADABLE when memory is short.
PackageStatus verify_signature(std::string_view content, std::string_view signature,
                               const Keyring& keyring, int64_t now, Signer& signer);

// Reads who claims to have signed. Nothing is checked. Returns PACKAGE_OK or PACKAGE_NOT_TRUSTED.
PackageStatus read_signer(std::string_view signature, Signer& signer);

struct SigningOptions {
    std::string key;          // a file, or a PKCS#11 URI (RFC 7512) of a key in a token
    std::string certificate;  // PEM file of the signer's certificate
    std::vector<std::string> intermediates;  // PEM files of authorities between it and the root
    std::string keyring;                     // as for load_keyring(); may be empty
    std::string revocations;                 // likewise
};

// Signs, and checks the signature as a camera does that has this keyring. Without one the
// certificates that are given count as trusted. Asks at the terminal for what a key is locked with.
// Returns PACKAGE_OK, PACKAGE_MISSING, PACKAGE_UNREADABLE (a file or a token), or PACKAGE_MALFORMED
// (not a certificate, not its key, or no camera would take the signature).
PackageStatus sign(std::string_view content, const SigningOptions& options, std::string& signature);

// "2026-11-25 23:14:05 UTC".
std::string time_text(int64_t seconds);

#endif  // PACKAGE_SIGNATURE_H
