// What otactl can do: one procedure per sub-command, each returning the exit status.
#ifndef TOOLS_OTACTL_COMMANDS_H
#define TOOLS_OTACTL_COMMANDS_H

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
    OTACTL_OK = 0,          // done; with --follow: the upgrade succeeded
    OTACTL_FAILED = 1,      // a file or the queue failed; with --follow: the upgrade failed
    OTACTL_NO_SERVICE = 2,  // the service is not there
    // With a keyring, and always from "verify": not signed as it must be, or not for this camera.
    OTACTL_NOT_TRUSTED = 3,
    OTACTL_WRONG_USE = 64,  // as every wrong argument
};

// Where the service publishes its lines unless told otherwise.
std::string default_log_address();

struct SendOptions {
    std::string directory;             // of the images
    std::vector<std::string> modules;  // names or numbers
    std::string package;               // the combined package
    std::string manifest;              // of files: the directory's own when empty
    TrustOptions trust;
    std::string logAddress;
    bool follow = false;  // stay until the upgrade ends
};

// Posts a request for images that come as files of their own in a directory, all of the manifest
// when no modules are named. Needs no manifest where no signature is asked for.
int send_files(const SendOptions& options);

// Posts a request for a combined package.
int send_combined(const SendOptions& options);

struct InspectOptions {
    std::string manifest;   // or the folder of one
    std::string directory;  // of what it names; the manifest's own when empty
    std::string package;    // the combined package; the one that it names when empty
    TrustOptions trust;
    bool anyCamera = false;  // leave out whether this camera takes it
    bool json = false;
};

// Checks a package as `send` does, the service apart, and says what it is.
int verify(const InspectOptions& options);

// Says what a package is, who signed it, and whether this camera would take it; reads no images.
int info(const InspectOptions& options);

// Shows the upgrade's stages until the service restarts the camera, and for a module that failed
// whether its image is larger than its partition. `request` was posted to `queue` with
// `messageType`; it is taken back if the service does not pick it up. Blocks.
int follow_upgrade(LogStream& log, const std::vector<const OtaPackageEntry*>& modules,
                   const OtaMessage& request, int queue, long messageType);

struct PackOptions {
    std::string output;                // the combined package
    std::string directory;             // of images in files of their own
    std::string manifest;              // of files: the directory's own when empty
    std::vector<std::string> modules;  // "name=path"; of files: names, or all that are there
    std::string compatible;            // this and the next make a manifest of version 2
    std::string version;
    std::string description;
    SigningOptions signing;  // no key: no signature
};

// Makes a combined package, its manifest, and the signature beside that.
int pack_combined(const PackOptions& options);

// Makes the manifest and the signature for images that lie in a directory.
int pack_files(const PackOptions& options);

// Signs a file of up to 1 MiB; the signature lies beside it as that of a manifest does.
int sign_file(const std::string& path, const SigningOptions& options);

// Checks such a signature by the rules for packages, and reports who has signed. Of the options the
// keyring and the lists count. Returns as verify() does.
int verify_file(const std::string& path, TrustOptions options);

struct LogsOptions {
    std::string address;
    uint32_t level;  // lines below it are not shown
};

// Prints the service's lines until it is stopped. Blocks.
int logs(const LogsOptions& options);

// Prints the package table, a line for each row.
int list_modules();

// Prints the outcome record in words.
int record(const std::string& path);

#endif  // TOOLS_OTACTL_COMMANDS_H
