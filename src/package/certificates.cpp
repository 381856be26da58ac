#include "package/certificates.h"

#include "pem.h"

void CertificateStoreDeleter::operator()(x509_store_st* store) const {
    X509_STORE_free(store);
}

PackageStatus load_keyring(const std::string& roots, const std::string& revocations,
                           Keyring& keyring) {
    keyring.store.reset(X509_STORE_new());
    X509_STORE* const store = keyring.store.get();
    if (store == nullptr) {
        return package_fault(PACKAGE_UNREADABLE, "cannot create a keyring: " + openssl_reason());
    }
    PackageStatus status = read_pem<OwnedCertificate, PEM_read_bio_X509>(
        roots, "CERTIFICATE", "certificate", [store](const OwnedCertificate& root) {
            return X509_STORE_add_cert(store, root.get()) == 1;
        });
    if (status.ok() && !revocations.empty()) {
        status = read_pem<OwnedRevocations, PEM_read_bio_X509_CRL>(
            revocations, "X509 CRL", "certificate revocation list",
            [store](const OwnedRevocations& list) {
                return X509_STORE_add_crl(store, list.get()) == 1;
            });
    }
    return status;
}
