// OpenSSL deprecates engines, but distributions with release 3.0 offer no other access to tokens.
#define OPENSSL_SUPPRESS_DEPRECATED

#include "signing_key.h"

#include <openssl/store.h>
#include <openssl/ui.h>
#ifndef OPENSSL_NO_ENGINE
#include <openssl/engine.h>
#endif

namespace {

constexpr char TOKEN_SCHEME[] = "pkcs11:";
constexpr char TOKEN_ENGINE[] = "pkcs11";

void close_store(OSSL_STORE_CTX* store) {
    OSSL_STORE_close(store);
}

using OwnedStore = std::unique_ptr<OSSL_STORE_CTX, Releaser<close_store>>;
using OwnedStoreItem = std::unique_ptr<OSSL_STORE_INFO, Releaser<OSSL_STORE_INFO_free>>;

OwnedPkey key_of_store(const std::string& location) {
    const OwnedStore store(
        OSSL_STORE_open(location.c_str(), UI_OpenSSL(), nullptr, nullptr, nullptr));
    if (!store || OSSL_STORE_expect(store.get(), OSSL_STORE_INFO_PKEY) != 1) {
        return nullptr;
    }
    while (OSSL_STORE_eof(store.get()) == 0) {
        const OwnedStoreItem item(OSSL_STORE_load(store.get()));
        if (!item && OSSL_STORE_error(store.get()) != 0) {
            return nullptr;
        }
        if (item && OSSL_STORE_INFO_get_type(item.get()) == OSSL_STORE_INFO_PKEY) {
            return OwnedPkey(OSSL_STORE_INFO_get1_PKEY(item.get()));
        }
    }
    return nullptr;
}

#ifndef OPENSSL_NO_ENGINE
OwnedPkey key_of_engine(const std::string& location, SigningKey& key) {
    ENGINE* const engine = ENGINE_by_id(TOKEN_ENGINE);
    if (engine == nullptr) {
        return nullptr;
    }
    // Our own message reports the failure; the engine's would repeat it.
    ENGINE_ctrl_cmd_string(engine, "QUIET", nullptr, 1);
    const bool works = ENGINE_init(engine) == 1;
    ENGINE_free(engine);
    if (!works) {
        return nullptr;
    }
    key.engine.reset(engine);
    return OwnedPkey(ENGINE_load_private_key(engine, location.c_str(), UI_OpenSSL(), nullptr));
}
#else
OwnedPkey key_of_engine(const std::string& /*location*/, SigningKey& /*key*/) {
    return nullptr;
}
#endif

// Removes the token's PIN, which a PKCS#11 URI may contain, for use in messages.
std::string without_secrets(const std::string& location) {
    return location.starts_with(TOKEN_SCHEME) ? location.substr(0, location.find("pin-"))
                                              : location;
}

}  // namespace

void EngineDeleter::operator()(engine_st* engine) const {
#ifndef OPENSSL_NO_ENGINE
    ENGINE_finish(engine);
#else
    (void)engine;
#endif
}

PackageStatus load_signing_key(const std::string& location, SigningKey& key) {
    ERR_clear_error();
    key.key = key_of_store(location);
    std::string reason = openssl_reason();
    if (!key.key && location.starts_with(TOKEN_SCHEME)) {
        key.key = key_of_engine(location, key);
        reason = openssl_reason() + " (no PKCS#11 provider or engine can open it)";
    }
    if (!key.key) {
        return package_fault(PACKAGE_UNREADABLE,
                             "cannot use the key " + without_secrets(location) + ": " + reason);
    }
    return {};
}
