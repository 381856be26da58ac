#include "package/signed_manifest.h"

#include "package/files.h"

namespace {

PackageStatus named(const std::string& path, PackageStatus status) {
    if (!status.ok()) {
        status.text = path + ": " + status.text;
    }
    return status;
}

PackageStatus read_signature_of(const std::string& path, FileKind kind, std::string& signature) {
    PackageStatus status =
        read_small_file(path + SIGNATURE_SUFFIX, SIGNATURE_SIZE_MAX, kind, signature);
    if (status.result == PACKAGE_MISSING) {
        status.result = PACKAGE_NOT_TRUSTED;
        status.text = path + " is not signed: " + status.text;
    }
    return status;
}

}  // namespace

PackageStatus read_signed_file(const std::string& path, size_t limit, const Keyring& keyring,
                               int64_t now, std::string& content, Signer& signer, FileKind kind) {
    std::string signature;
    signer = {};
    PackageStatus status = read_small_file(path, limit, kind, content);
    if (status.ok()) {
        status = read_signature_of(path, kind, signature);
    }
    return status.ok() ? named(path, verify_signature(content, signature, keyring, now, signer))
                       : status;
}

PackageStatus read_signed_manifest(const std::string& path, const Keyring& keyring, int64_t now,
                                   Manifest& manifest, Signer& signer, FileKind kind) {
    std::string text;
    PackageStatus status =
        read_signed_file(path, MANIFEST_SIZE_MAX, keyring, now, text, signer, kind);
    if (!status.ok()) {
        return status;
    }
    status = parse_manifest(text, manifest);
    if (status.ok() && manifest.format == 1) {
        status = package_fault(
            PACKAGE_NOT_TRUSTED,
            "a manifest of version 1 has no digests, so its signature proves nothing");
    }
    return named(path, std::move(status));
}

PackageStatus read_unsigned_manifest(const std::string& path, Manifest& manifest) {
    std::string text;
    PackageStatus status = read_small_file(path, MANIFEST_SIZE_MAX, FileKind::ANY, text);
    return status.ok() ? named(path, parse_manifest(text, manifest)) : status;
}

PackageStatus read_claimed_signer(const std::string& path, Signer& signer) {
    std::string signature;
    PackageStatus status = read_signature_of(path, FileKind::REGULAR, signature);
    return status.ok() ? named(path, read_signer(signature, signer)) : status;
}
