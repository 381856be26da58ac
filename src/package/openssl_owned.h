// Owning pointers for OpenSSL's objects, the reason for an OpenSSL failure, and names as text.
#ifndef PACKAGE_OPENSSL_OWNED_H
#define PACKAGE_OPENSSL_OWNED_H

#include <openssl/bio.h>
#include <openssl/cms.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>
#include <string.h>

#include <memory>
#include <string>
#include <string_view>

template <auto RELEASE>
struct Releaser {
    template <typename T>
    void operator()(T* owned) const {
        RELEASE(owned);
    }
};

inline void release_certificates(STACK_OF(X509) * certificates) {
    sk_X509_pop_free(certificates, X509_free);
}

using OwnedBio = std::unique_ptr<BIO, Releaser<BIO_free>>;
using OwnedCms = std::unique_ptr<CMS_ContentInfo, Releaser<CMS_ContentInfo_free>>;
using OwnedCertificate = std::unique_ptr<X509, Releaser<X509_free>>;
using OwnedKeyIdentifier = std::unique_ptr<AUTHORITY_KEYID, Releaser<AUTHORITY_KEYID_free>>;
using OwnedRevocations = std::unique_ptr<X509_CRL, Releaser<X509_CRL_free>>;
using OwnedCertificates = std::unique_ptr<STACK_OF(X509), Releaser<release_certificates>>;
using OwnedStoreContext = std::unique_ptr<X509_STORE_CTX, Releaser<X509_STORE_CTX_free>>;
using OwnedPkey = std::unique_ptr<EVP_PKEY, Releaser<EVP_PKEY_free>>;

// A BIO that reads from these bytes without copying them; the bytes must outlive it.
inline OwnedBio view_of(std::string_view bytes) {
    return OwnedBio(BIO_new_mem_buf(bytes.data(), static_cast<int>(bytes.size())));
}

// Returns the most recent error in OpenSSL's error queue as text, and clears the queue.
inline std::string openssl_reason() {
    const unsigned long error = ERR_peek_last_error();
    const char* const reason =
        ERR_SYSTEM_ERROR(error) ? strerror(ERR_GET_REASON(error)) : ERR_reason_error_string(error);
    ERR_clear_error();
    return reason != nullptr ? reason : "no reason given";
}

// Returns a name in the format of RFC 2253; empty when memory is short.
inline std::string name_text(const X509_NAME* name) {
    const OwnedBio text(BIO_new(BIO_s_mem()));
    char* data = nullptr;
    if (!text || X509_NAME_print_ex(text.get(), name, 0, XN_FLAG_RFC2253) < 0) {
        return "";
    }
    const long size = BIO_get_mem_data(text.get(), &data);
    return data == nullptr ? "" : std::string(data, static_cast<size_t>(size));
}

#endif  // PACKAGE_OPENSSL_OWNED_H
