// Signatures of manifests: CMS (RFC 5652), detached, DER, SHA-256. The command "openssl cms" can
// also create and verify them.
//
// A signature is accepted when all of this holds:
// - it has exactly one signer, whose certificate it contains;
// - its signed attributes name the content's type ("data") and digest;
// - a chain leads from the signer's certificate, over the certificates in the signature, to a root
//   in the keyring, and no certificate of the chain is revoked;
// - the signer's certificate has the extended key usage "code signing" (RFC 5280). An authority
//   between signer and root that has an extended key usage must allow code signing too;
// - the signer's key is an RSA or elliptic-curve key, and all keys and digests have a strength of
//   at least 112 bits.
//
// A camera's clock starts in 1970. If the time is earlier than the time at which this library was
// built, the clock was not set. Then the certificates must have been valid at the time of signing,
// which the signer wrote into the signature. Otherwise they must be valid now.
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
    std::string subject;      // format of RFC 2253
    std::string issuer;       // format of RFC 2253
    std::string fingerprint;  // SHA-256 of the certificate, hexadecimal with colons
    int64_t validFrom = 0;    // seconds since 1970, as the next two
    int64_t validUntil = 0;
    int64_t signedAt = 0;  // by the signer's clock; 0: the signature has no signing time
};

// Checks that a signer trusted by the keyring has signed exactly these bytes. `now` is in seconds
// since 1970. `content` and `signature` are untrusted and may contain any bytes. `signer` is filled
// in as far as the signature could be read, even when the check fails. Returns PACKAGE_OK,
// PACKAGE_NOT_TRUSTED with the reason, or PACKAGE_UNREADABLE when memory is short.
PackageStatus verify_signature(std::string_view content, std::string_view signature,
                               const Keyring& keyring, int64_t now, Signer& signer);

// Reads the signer that a signature names, without checking the signature. Returns PACKAGE_OK, or
// PACKAGE_NOT_TRUSTED when the signature cannot be parsed.
PackageStatus read_signer(std::string_view signature, Signer& signer);

struct SigningOptions {
    std::string key;          // a file, or a PKCS#11 URI (RFC 7512) of a key in a token
    std::string certificate;  // PEM file of the signer's certificate
    std::vector<std::string> intermediates;  // PEM files of authorities between it and the root
    std::string keyring;                     // `roots` of load_keyring(); may be empty
    std::string revocations;                 // `revocations` of load_keyring(); may be empty
};

// Signs the content, and then checks the signature by the rules of a camera that has this keyring.
// Without a keyring the given certificates are trusted for that check. Asks at the terminal for the
// password or PIN of the key. Returns PACKAGE_OK, PACKAGE_MISSING, PACKAGE_UNREADABLE (a file or a
// token cannot be read), or PACKAGE_MALFORMED (a file is not a certificate, the key does not belong
// to the certificate, or no camera would accept the signature).
PackageStatus sign(std::string_view content, const SigningOptions& options, std::string& signature);

// Formats seconds since 1970 as "2026-11-25 23:14:05 UTC".
std::string time_text(int64_t seconds);

#endif  // PACKAGE_SIGNATURE_H
