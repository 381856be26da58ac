// The key that signs: in a file, or in a token that never gives it out.
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
    std::unique_ptr<engine_st, EngineDeleter> engine;  // outlives the key
    OwnedPkey key;
};

// Opens a key: whatever OpenSSL's stores know (a PEM, DER or PKCS#12 file, a URI of a provider that
// its configuration names). Where no provider knows "pkcs11:", the engine "pkcs11" of OpenSSL 1.1
// and 3 is tried. Asks at the terminal for what it is locked with. Returns PACKAGE_OK or
// PACKAGE_UNREADABLE.
PackageStatus load_signing_key(const std::string& location, SigningKey& key);

#endif  // PACKAGE_SIGNING_KEY_H
