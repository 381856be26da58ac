// A manifest or another file, and the signature beside it.
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

// The signature of a file is beside it under its name and this.
constexpr char SIGNATURE_SUFFIX[] = ".sig";
// The manifest of a folder of images.
constexpr char FOLDER_MANIFEST[] = "package.manifest";

// Reads a manifest that a signer whom the keyring trusts has signed; its text is parsed after that
// is known. `kind` is that of both files. `now` is as for verify_signature(); `signer` is set as
// far as the signature could be read. Returns PACKAGE_OK, PACKAGE_NOT_TRUSTED (one without a
// signature and one of version 1, which has no digests worth signing, too), PACKAGE_MISSING,
// PACKAGE_UNREADABLE or PACKAGE_MALFORMED.
PackageStatus read_signed_manifest(const std::string& path, const Keyring& keyring, int64_t now,
                                   Manifest& manifest, Signer& signer,
                                   FileKind kind = FileKind::REGULAR);

// Reads another file of at most `limit` bytes, by the same rules. Returns likewise.
PackageStatus read_signed_file(const std::string& path, size_t limit, const Keyring& keyring,
                               int64_t now, std::string& content, Signer& signer,
                               FileKind kind = FileKind::REGULAR);

// Reads a manifest whoever made it. Returns PACKAGE_OK, PACKAGE_MISSING, PACKAGE_UNREADABLE or
// PACKAGE_MALFORMED.
PackageStatus read_unsigned_manifest(const std::string& path, Manifest& manifest);

// Reads who claims to have signed a manifest. Returns as read_signer() does, or PACKAGE_MISSING,
// PACKAGE_UNREADABLE.
PackageStatus read_claimed_signer(const std::string& path, Signer& signer);

#endif  // PACKAGE_SIGNED_MANIFEST_H
