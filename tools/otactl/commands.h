// What otactl can do: one procedure per sub-command, each returning the exit status.
#ifndef TOOLS_OTACTL_COMMANDS_H
#define TOOLS_OTACTL_COMMANDS_H

#include <stdint.h>

#include <string>
#include <vector>

#include "ota/ota_package.h"
#include "otactl/log_stream.h"

constexpr const char* OTACTL = "otactl";

enum OtactlExit : int {
    OTACTL_OK = 0,          // done; with --follow: the upgrade succeeded
    OTACTL_FAILED = 1,      // a file or the queue failed; with --follow: the upgrade failed
    OTACTL_NO_SERVICE = 2,  // the service is not there
    OTACTL_WRONG_USE = 64,  // as every wrong argument
};

// Where the service publishes its lines unless told otherwise.
std::string default_log_address();

struct SendOptions {
    std::string directory;             // of the images
    std::vector<std::string> modules;  // names or numbers
    std::string package;               // the combined package
    std::string manifest;
    std::string logAddress;
    bool follow;  // stay until the upgrade ends
};

// Posts a request for images that come as files of their own in a directory.
int send_files(const SendOptions& options);

// Posts a request for a combined package.
int send_combined(const SendOptions& options);

// Shows the upgrade's stages until the service restarts the camera. `queue` and `messageType` name
// the request, which is taken back if the service does not pick it up. Blocks.
int follow_upgrade(LogStream& log, const std::vector<const OtaPackageEntry*>& modules,
                   bool readsBack, int queue, long messageType);

struct PackOptions {
    std::string output;
    std::string manifest;
    std::vector<std::string> modules;  // "name=path"
};

// Makes a combined package and its manifest.
int pack(const PackOptions& options);

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

// Reads a whole file of at most `limit` bytes. Returns false with errno set; EFBIG above the limit.
bool read_small_file(const std::string& path, size_t limit, std::string& content);

#endif  // TOOLS_OTACTL_COMMANDS_H
