// Which packages otactl takes: what the command line says, and for what it leaves open the
// configuration of this camera.
#ifndef TOOLS_OTACTL_TRUST_H
#define TOOLS_OTACTL_TRUST_H

#include <string>
#include <vector>

#include "package/camera.h"
#include "package/certificates.h"
#include "package/content.h"
#include "package/signed_manifest.h"

constexpr char SETTINGS_PATH[] = "/etc/corvo/otactl.conf";

// Empty: not said. All but the two flags can also stand in the configuration, under these names.
struct TrustOptions {
    std::string keyring;      // "keyring": PEM file of root certificates
    std::string revocations;  // "crl": PEM file of certificate revocation lists
    std::string compatible;   // "compatible": the kind of this camera
    std::string versionFile;  // "version-file": says which version runs
    bool allowDowngrade = false;
    bool unsignedToo = false;  // takes the keyring back
};

struct Trust {
    bool needsSignature = false;
    Keyring keyring;
    CameraRules rules;
};

// Fills in what is empty from the configuration, which may be missing. Returns OTACTL_OK, or
// OTACTL_WRONG_USE after a line that says what is wrong with it.
int read_settings(TrustOptions& options);

// Reads the configuration, and what it and the command line name. Returns OTACTL_OK, or another
// exit status after a line that says what is wrong.
int load_trust(TrustOptions options, Trust& trust);

// Reads a manifest, signed if trust asks for it. `signer` is set then.
PackageStatus read_manifest(const std::string& path, const Trust& trust, Manifest& manifest,
                            Signer& signer);

// Reads all files of the package below the directory, which ends in "/", and checks them, with
// progress where standard output is a terminal and `bar` is set. `package`, when not empty, is the
// name of the combined file instead of the manifest's. `checked` lists what was read.
PackageStatus check_files(const Manifest& manifest, const std::string& directory,
                          const std::string& package, bool bar, std::vector<CheckedFile>& checked);

// Prints why a package is not taken. Returns the exit status.
int refuse(const PackageStatus& status, bool needsSignature);

#endif  // TOOLS_OTACTL_TRUST_H
