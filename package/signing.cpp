#include "package/signature.h"
#include "pem.h"
#include "purpose.h"
#include "signing_key.h"

namespace {

constexpr unsigned SIGNING_FLAGS = CMS_BINARY | CMS_DETACHED | CMS_NOSMIMECAP;

PackageStatus load_certificates(const std::string& path, STACK_OF(X509) * certificates) {
    return read_pem<OwnedCertificate, PEM_read_bio_X509>(
        path, "CERTIFICATE", "certificate", [certificates](OwnedCertificate certificate) {
            // The stack owns what it holds.
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
    // A chain in one file goes on with the authorities.
    while (sk_X509_num(signers.get()) > 0) {
        OwnedCertificate authority(sk_X509_shift(signers.get()));
        if (sk_X509_push(intermediates.get(), authority.get()) <= 0) {
            return failed();
        }
        (void)authority.release();
    }
    // Better here than on every camera.
    if (!may_sign_code(certificate.get())) {
        return package_fault(PACKAGE_MALFORMED,
                             "the certificate " + options.certificate + " is not for code signing");
    }
    SigningKey key;
    status = load_signing_key(options.key, key);
    if (!status.ok()) {
        return status;
    }
    if (X509_check_private_key(certificate.get(), key.key.get()) != 1) {
        ERR_clear_error();
        return package_fault(PACKAGE_MALFORMED,
                             "the key is not the one of the certificate " + options.certificate);
    }
    return make_signature(content, certificate.get(), key.key.get(), intermediates.get(),
                          signature);
}
