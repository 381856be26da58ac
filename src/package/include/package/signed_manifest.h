// Reads a manifest or another file together with its signature file.
#ifndef PACKAGE_SIGNED_MANIFEST_H
#define PACKAGE_SIGNED_MANIFEST_H

#include <stddef.h>
#include <stdint.h>

#include <string>

#include "package/certificates.h"
#include "package/files.h"
#include "package/manifest.h"
#include "package/signature.h"
#include "package/status.h"

// The signature of FILE is in FILE.sig.
constexpr char SIGNATURE_SUFFIX[] = ".sig";
// The name of the manifest in a folder of images.
constexpr char FOLDER_MANIFEST[] = "package.manifest";

// Reads a manifest and verifies its signature against the keyring; the text is parsed only if the
// signature is valid. `kind` applies to both files. `now` and `signer` are as in
// verify_signature(). Returns PACKAGE_OK, PACKAGE_NOT_TRUSTED, PACKAGE_MISSING, PACKAGE_UNREADABLE
// or PACKAGE_MALFORMED. A manifest without a signature is not trusted, nor is one of version 1,
// since it contains no SHA-256 digests.
PackageStatus read_signed_manifest(const std::string& path, const Keyring& keyring, int64_t now,
                                   Manifest& manifest, Signer& signer,
                                   FileKind kind = FileKind::REGULAR);

// Reads any other file of at most `limit` bytes and verifies its signature in the same way. Returns
// PACKAGE_OK, PACKAGE_NOT_TRUSTED, PACKAGE_MISSING or PACKAGE_UNREADABLE.
PackageStatus read_signed_file(const std::string& path, size_t limit, const Keyring& keyring,
                               int64_t now, std::string& content, Signer& signer,
                               FileKind kind = FileKind::REGULAR);

// Reads a manifest without checking a signature. Returns PACKAGE_OK, PACKAGE_MISSING,
// PACKAGE_UNREADABLE or PACKAGE_MALFORMED.
PackageStatus read_unsigned_manifest(const std::string& path, Manifest& manifest);

// Reads the signer that a manifest's signature names, without checking the signature. Returns
// PACKAGE_OK, PACKAGE_NOT_TRUSTED when there is no signature or it cannot be parsed, or
// PACKAGE_UNREADABLE.
PackageStatus read_claimed_signer(const std::string& path, Signer& signer);

#endif  // PACKAGE_SIGNED_MANIFEST_H
