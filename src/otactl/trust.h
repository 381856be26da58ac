// Decides which packages otactl accepts, by the options of the command line and, for options that
// are not given, by the settings of this camera.
#ifndef OTACTL_TRUST_H
#define OTACTL_TRUST_H

#include <string>
#include <vector>

#include "package/camera_rules.h"
#include "package/certificates.h"
#include "package/content.h"
#include "package/signed_manifest.h"

constexpr char SETTINGS_PATH[] = "/etc/corvo/otactl.conf";

// An empty value means: not given. All but the two flags may also be in the settings file, under
// the names in quotes.
struct TrustOptions {
    std::string keyring;      // "keyring": PEM file of root certificates
    std::string revocations;  // "crl": PEM file of certificate revocation lists
    std::string compatible;   // "compatible": the hardware type of this camera
    std::string versionFile;  // "version-file": file with the running version
    bool allowDowngrade = false;
    bool unsignedToo = false;  // ignore the keyring and require no signature
};

struct Trust {
    bool needsSignature = false;
    Keyring keyring;
    CameraRules rules;
};

// Fills in empty values from the settings file, which may be missing. Returns OTACTL_OK, or prints
// the error and returns OTACTL_WRONG_USE.
int read_settings(TrustOptions& options);

// Reads the settings file, and then the keyring, the revocation lists and the version file that the
// options or settings name. Returns OTACTL_OK, or prints the error and returns another exit status.
int load_trust(TrustOptions options, Trust& trust);

// Reads a manifest. If `trust` requires a signature, verifies it and sets `signer`.
PackageStatus read_manifest(const std::string& path, const Trust& trust, Manifest& manifest,
                            Signer& signer);

// Reads and checks all files of the package in `directory`, which ends in "/". Shows the progress
// if `bar` is set and standard output is a terminal. If `package` is not empty, it replaces the
// name of the combined file in the manifest. Appends every file that was checked to `checked`.
PackageStatus check_files(const Manifest& manifest, const std::string& directory,
                          const std::string& package, bool bar, std::vector<CheckedFile>& checked);

// Prints why a package is refused. Returns the exit status for that reason; `needsSignature`
// decides between OTACTL_NOT_TRUSTED and OTACTL_WRONG_USE for a package that is not for this camera
// or does not match its manifest.
int refuse(const PackageStatus& status, bool needsSignature);

#endif  // OTACTL_TRUST_H
