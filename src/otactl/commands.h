// The sub-commands of otactl: one procedure for each, which returns the exit status.
#ifndef OTACTL_COMMANDS_H
#define OTACTL_COMMANDS_H

#include <stdint.h>

#include <string>
#include <vector>

#include "ota/ota_message.h"
#include "ota/ota_package.h"
#include "otactl/log_stream.h"
#include "otactl/trust.h"
#include "package/signature.h"

constexpr const char* OTACTL = "otactl";

enum OtactlExit : int {
    OTACTL_OK = 0,          // success; with --follow: the upgrade succeeded
    OTACTL_FAILED = 1,      // a file or the queue failed; with --follow: the upgrade failed
    OTACTL_NO_SERVICE = 2,  // the service is not running
    // The package has no valid signature, does not match its manifest, or is not for this camera.
    // Only with a keyring, but "verify" always uses it.
    OTACTL_NOT_TRUSTED = 3,
    OTACTL_WRONG_USE = 64,  // wrong arguments, or a file that cannot be used
};

// Returns the address at which the service publishes its log lines by default.
std::string default_log_address();

struct SendOptions {
    std::string directory;             // folder of the images
    std::vector<std::string> modules;  // names or numbers
    std::string package;               // path of the combined package
    std::string manifest;              // path; for files, empty means the one in `directory`
    TrustOptions trust;
    std::string logAddress;
    bool follow = false;       // wait until the upgrade ends
    bool duringTrial = false;  // post although a new system is on trial
};

// Posts a request for a directory with one file per image. If no modules are named, the request is
// for all modules of the manifest. The manifest is optional if no signature is required. A chunked
// image that is not in the directory, or is another one, is restored there first.
int send_files(const SendOptions& options);

// Posts a request for a combined package.
int send_combined(const SendOptions& options);

struct InspectOptions {
    std::string manifest;   // path of the manifest, or of the folder that contains it
    std::string directory;  // folder of the images or the package; empty: the manifest's folder
    std::string package;    // path of the combined package; empty: the one that the manifest names
    TrustOptions trust;
    bool anyCamera = false;  // do not check whether the package is for this camera
    bool json = false;
};

// Checks a package as `send` does, but needs no service and posts no request; then describes it.
int verify(const InspectOptions& options);

// Shows what a package contains, who signed it, and whether this camera would accept it, without
// reading the images.
int info(const InspectOptions& options);

// Shows the upgrade's stages until the service restarts the camera. If a module fails because its
// image is larger than its partition, reports both sizes. `request` must have been posted to
// `queue` with `messageType`; it is removed from the queue if the service does not receive it in
// time. Blocks.
int follow_upgrade(LogStream& log, const std::vector<const OtaPackageEntry*>& modules,
                   const OtaMessage& request, int queue, long messageType);

struct PackOptions {
    std::string output;     // path of the combined package to create
    std::string directory;  // for pack_files(): the folder of the images
    std::string manifest;   // path; for pack_files(), empty means the one in `directory`
    // "name=path"; for pack_files() names, and empty means every image in the folder.
    std::vector<std::string> modules;
    std::string compatible;  // with one of the next two, the manifest has version 2
    std::string version;
    std::string description;
    bool chunked = false;    // for pack_files(): write the chunks of large images too
    SigningOptions signing;  // an empty key: do not sign
};

// Creates a combined package, its manifest, and the manifest's signature.
int pack_combined(const PackOptions& options);

// Creates the manifest and its signature for the images in a folder, and the files of chunked
// images.
int pack_files(const PackOptions& options);

// Signs any file of up to 1 MiB. The signature of FILE becomes FILE.sig, as for a manifest.
int sign_file(const std::string& path, const SigningOptions& options);

// Checks the signature that sign_file() made, by the rules for packages, and prints the signer. Of
// `options` only the keyring and the revocation lists are used. Returns as verify() does.
int verify_file(const std::string& path, TrustOptions options);

struct LogsOptions {
    std::string address;
    uint32_t level;  // lines with a lower level are not shown
};

// Prints the service's log lines until otactl is stopped. Blocks.
int logs(const LogsOptions& options);

// Prints the package table, one line per row.
int list_modules();

// Prints the content of the outcome record as text.
int record(const std::string& path);

#endif  // OTACTL_COMMANDS_H
