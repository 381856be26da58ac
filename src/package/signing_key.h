// Opens the private key for signing, in a file or in a hardware token.
#ifndef PACKAGE_SIGNING_KEY_H
#define PACKAGE_SIGNING_KEY_H

#include <string>

#include "openssl_owned.h"
#include "package/status.h"

struct engine_st;  // OpenSSL's

struct EngineDeleter {
    void operator()(engine_st* engine) const;
};

struct SigningKey {
    std::unique_ptr<engine_st, EngineDeleter> engine;  // must outlive the key
    OwnedPkey key;
};

// Opens a key: a PEM, DER or PKCS#12 file, or a URI that a configured OpenSSL provider supports. If
// no provider supports "pkcs11:", the OpenSSL engine "pkcs11" is tried. Asks at the terminal for
// the password or PIN. Returns PACKAGE_OK or PACKAGE_UNREADABLE.
PackageStatus load_signing_key(const std::string& location, SigningKey& key);

#endif  // PACKAGE_SIGNING_KEY_H
