#include "package/certificates.h"

#include <vector>

#include "pem.h"

namespace {

// Libcrypto would choose one of them by its dates, and a revocation in the other would not count.
bool two_lists_of_an_issuer(X509_STORE* store) {
    std::vector<const X509_NAME*> issuers;
    STACK_OF(X509_OBJECT)* const objects = X509_STORE_get0_objects(store);
    for (int i = 0; i < sk_X509_OBJECT_num(objects); ++i) {
        X509_CRL* const list = X509_OBJECT_get0_X509_CRL(sk_X509_OBJECT_value(objects, i));
        if (list == nullptr) {
            continue;
        }
        const X509_NAME* const issuer = X509_CRL_get_issuer(list);
        for (const X509_NAME* other : issuers) {
            if (X509_NAME_cmp(issuer, other) == 0) {
                return true;
            }
        }
        issuers.push_back(issuer);
    }
    return false;
}

}  // namespace

void CertificateStoreDeleter::operator()(x509_store_st* store) const {
    X509_STORE_free(store);
}

PackageStatus load_keyring(const std::string& roots, const std::string& revocations,
                           Keyring& keyring) {
    keyring.store.reset(X509_STORE_new());
    keyring.hasRevocations = !revocations.empty();
    X509_STORE* const store = keyring.store.get();
    if (store == nullptr) {
        return package_fault(PACKAGE_UNREADABLE, "cannot keep a keyring: " + openssl_reason());
    }
    PackageStatus status = read_pem<OwnedCertificate, PEM_read_bio_X509>(
        roots, "CERTIFICATE", "certificate", [store](const OwnedCertificate& root) {
            return X509_STORE_add_cert(store, root.get()) == 1;
        });
    if (status.ok() && keyring.hasRevocations) {
        status = read_pem<OwnedRevocations, PEM_read_bio_X509_CRL>(
            revocations, "X509 CRL", "certificate revocation list",
            [store](const OwnedRevocations& list) {
                return X509_STORE_add_crl(store, list.get()) == 1;
            });
        if (status.ok() && two_lists_of_an_issuer(store)) {
            status = package_fault(PACKAGE_MALFORMED,
                                   revocations + ": two revocation lists of one issuer");
        }
    }
    return status;
}
