#include <time.h>

#include <algorithm>

#include "package/signature.h"
#include "pem.h"
#include "purpose.h"
#include "signing_key.h"

namespace {

constexpr unsigned SIGNING_FLAGS = CMS_BINARY | CMS_DETACHED | CMS_NOSMIMECAP;

PackageStatus load_certificates(const std::string& path, STACK_OF(X509) * certificates) {
    return read_pem<OwnedCertificate, PEM_read_bio_X509>(
        path, "CERTIFICATE", "certificate", [certificates](OwnedCertificate certificate) {
            // The stack owns the certificate from now on.
            return sk_X509_push(certificates, certificate.get()) > 0 &&
                   certificate.release() != nullptr;
        });
}

PackageStatus failed() {
    return package_fault(PACKAGE_UNREADABLE, "cannot sign: " + openssl_reason());
}

PackageStatus make_signature(std::string_view content, X509* certificate, EVP_PKEY* key,
                             STACK_OF(X509) * intermediates, std::string& signature) {
    const OwnedBio bytes = view_of(content);
    const OwnedCms cms(
        CMS_sign(nullptr, nullptr, intermediates, nullptr, SIGNING_FLAGS | CMS_PARTIAL));
    if (!bytes || !cms ||
        CMS_add1_signer(cms.get(), certificate, key, EVP_sha256(), SIGNING_FLAGS) == nullptr ||
        CMS_final(cms.get(), bytes.get(), nullptr, SIGNING_FLAGS) != 1) {
        return failed();
    }
    const int size = i2d_CMS_ContentInfo(cms.get(), nullptr);
    if (size <= 0) {
        return failed();
    }
    signature.resize(static_cast<size_t>(size));
    auto* to = reinterpret_cast<unsigned char*>(signature.data());
    return i2d_CMS_ContentInfo(cms.get(), &to) == size ? PackageStatus{} : failed();
}

PackageStatus unusable(const std::string& text) {
    return package_fault(PACKAGE_MALFORMED, text);
}

// Makes a keyring that trusts the given certificates, for a host without the root certificate.
PackageStatus trust_given(const std::vector<X509*>& certificates, Keyring& keyring) {
    keyring.store.reset(X509_STORE_new());
    if (!keyring.store) {
        return failed();
    }
    X509_STORE_set_flags(keyring.store.get(), X509_V_FLAG_PARTIAL_CHAIN);
    for (X509* certificate : certificates) {
        if (X509_STORE_add_cert(keyring.store.get(), certificate) != 1) {
            return failed();
        }
    }
    return {};
}

// Checks that each given authority may issue code signing certificates and issued one of
// `certificates`. Otherwise the user passed a wrong file, and cameras would reject the signature.
// The first of `certificates` is the signer's; the others are the authorities'.
PackageStatus check_authorities(const std::vector<X509*>& certificates) {
    for (size_t i = 1; i < certificates.size(); ++i) {
        X509* const authority = certificates[i];
        const std::string name =
            "the authority \"" + name_text(X509_get_subject_name(authority)) + "\"";
        if (!may_issue_signers(authority)) {
            return unusable(name + " may not issue code signing certificates");
        }
        if (std::ranges::none_of(certificates, [authority](X509* certificate) {
                return X509_cmp(authority, certificate) != 0 &&
                       X509_check_issued(authority, certificate) == X509_V_OK;
            })) {
            return unusable(name + " did not issue any of these certificates");
        }
    }
    return {};
}

// Checks a new signature by the camera's rules, so that no unusable signature is released.
PackageStatus check_signature(std::string_view content, const std::string& signature,
                              const SigningOptions& options,
                              const std::vector<X509*>& certificates) {
    Keyring keyring;
    PackageStatus status = options.keyring.empty()
                               ? trust_given(certificates, keyring)
                               : load_keyring(options.keyring, options.revocations, keyring);
    if (!status.ok()) {
        return status;
    }
    Signer signer;
    status = verify_signature(content, signature, keyring, time(nullptr), signer);
    return status.result == PACKAGE_NOT_TRUSTED
               ? unusable("no camera would accept this signature: " + status.text)
               : status;
}

}  // namespace

PackageStatus sign(std::string_view content, const SigningOptions& options,
                   std::string& signature) {
    const OwnedCertificates signers(sk_X509_new_null());
    const OwnedCertificates intermediates(sk_X509_new_null());
    if (!signers || !intermediates) {
        return failed();
    }
    PackageStatus status = load_certificates(options.certificate, signers.get());
    for (const std::string& path : options.intermediates) {
        if (status.ok()) {
            status = load_certificates(path, intermediates.get());
        }
    }
    if (!status.ok()) {
        return status;
    }
    const OwnedCertificate certificate(sk_X509_shift(signers.get()));
    // If the signer's file contains a chain, the other certificates are the authorities'.
    while (sk_X509_num(signers.get()) > 0) {
        OwnedCertificate authority(sk_X509_shift(signers.get()));
        if (sk_X509_push(intermediates.get(), authority.get()) <= 0) {
            return failed();
        }
        (void)authority.release();
    }
    std::vector<X509*> certificates = {certificate.get()};
    for (int i = 0; i < sk_X509_num(intermediates.get()); ++i) {
        certificates.push_back(sk_X509_value(intermediates.get(), i));
    }
    if (!may_sign_code(certificate.get())) {
        return unusable("the certificate " + options.certificate + " is not for code signing");
    }
    if (!has_usable_key(certificate.get())) {
        return unusable("the certificate " + options.certificate + " has a key of type " +
                        key_kind(certificate.get()) + ", expected RSA or EC");
    }
    status = check_authorities(certificates);
    if (!status.ok()) {
        return status;
    }
    SigningKey key;
    status = load_signing_key(options.key, key);
    if (!status.ok()) {
        return status;
    }
    if (X509_check_private_key(certificate.get(), key.key.get()) != 1) {
        ERR_clear_error();
        return unusable("the key does not belong to the certificate " + options.certificate);
    }
    status =
        make_signature(content, certificate.get(), key.key.get(), intermediates.get(), signature);
    return status.ok() ? check_signature(content, signature, options, certificates) : status;
}
