// The agent's settings: the records of their values, and one table of their names, limits and
// texts. The options of corvo_agent, the keys of its configuration file, --help and the manual page
// follow from the table, and so do the table in docs/fleet.md and examples/agent.conf.
//
// A new setting is a field of a record and a row of the table. After a change, run
// CORVO_ACCEPT=1 build/release/tests/agent_test, which rewrites the page and the example.
#ifndef AGENT_SETTINGS_H
#define AGENT_SETTINGS_H

#include <stdint.h>

#include <array>
#include <string>
#include <variant>
#include <vector>

constexpr char AGENT[] = "corvo_agent";
constexpr char AGENT_SETTINGS_PATH[] = "/etc/corvo/agent.conf";

// Value of "proxy" for direct connections.
constexpr char NO_PROXY[] = "none";

// Value of "version-file" that turns the comparison off: older packages are accepted, too.
constexpr char NO_VERSION_FILE[] = "none";

// The error of "server", whether it is missing or not a URL.
constexpr char WRONG_SERVER[] = "must be a URL such as https://updates.example:8443";

// Address of the server, credentials of both sides, and limits.
struct ServerSettings {
    std::string url = {};  // "https://host:port/path", without "/" at the end
    std::string tenant = "DEFAULT";
    std::string controllerId = {};   // any text of 1 to 255 characters
    std::string authorization = {};  // value of that header ("TargetToken SECRET"), or empty
    std::string tokenFile = {};      // file that contains the SECRET, or empty
    std::string proxy = {};          // "http://host:port" of an HTTP proxy; empty: no proxy
    std::string certificate = {};    // PEM file of the camera's certificate, or empty
    std::string key = {};            // private key of `certificate`: a PEM file or a PKCS#11 URI
    std::string ca = {};  // PEM file of the CAs that may sign the server's certificate; empty: the
                          // system's CAs
    uint64_t rateLimit = 0;         // bytes a second of downloads, at least 1024; 0: no limit
    uint32_t connectTimeoutS = 30;  // at least 1
    uint32_t stallTimeoutS = 60;    // at least 1: time below 64 bytes a second that ends a transfer
};

struct AgentSettings {
    ServerSettings server;
    std::string targetTokenFile;
    std::string gatewayTokenFile;
    bool allowUnencryptedToken = false;  // permits a token with a server URL of http

    std::string keyring;     // PEM file of root certificates
    std::string crl;         // PEM file of revocation lists, or empty
    std::string compatible;  // this camera's hardware type
    // The running system's version file, or NO_VERSION_FILE; complete_settings() turns the latter
    // into an empty text.
    std::string versionFile;
    bool checkPartitions = true;

    std::string downloadFolder = "/media/mmcblk0p1/ota/";
    std::string requireMount = "auto";  // or "yes", "no"
    std::string stateFolder = "/config/agent/";
    std::vector<std::string> attributes;    // "name=value"
    std::vector<std::string> deltaSources;  // "partition=path"

    std::string confirm = "auto";  // or "ask"
    std::string window;            // "02:00-04:00", local time, or empty: always
    std::string fitnessCommand;
};

// Where a setting's value is stored: a member of one of the two records. A bool is "on" or "off" in
// the configuration file; a vector has one element for each time that the setting is given.
template <typename... T>
using FieldOfType = std::variant<T AgentSettings::*..., T ServerSettings::*...>;
using SettingField = FieldOfType<std::string, bool, uint32_t, uint64_t, std::vector<std::string>>;

using SettingValue =
    std::variant<std::string*, bool*, uint32_t*, uint64_t*, std::vector<std::string>*>;

// The valid values of a number: `min` to `max`, and 0 if `zero` is set.
struct NumberRange {
    uint64_t min = 0;
    uint64_t max = INT64_MAX;
    bool zero = false;
    const char* unit = "";  // for the error message: "seconds"
};

struct Setting {
    const char* name;    // of the option and of the key: "stall-timeout"
    SettingField field;  // its value in a new record is the default
    const char* help;    // the line of --help, with which the explanation in docs/fleet.md begins

    // Limits of this value. check_settings.h checks them, and rules about several settings.
    // The error if the setting has no value; null: the setting is optional.
    const char* missing = nullptr;
    std::array<const char*, 3> choices = {};  // the valid values of a text; empty: any text
    NumberRange range = {};
    bool isProtectedFile = false;  // no other user may be able to replace the file
    bool isLocal = false;          // also checked by the commands that need no server

    // Texts of docs/fleet.md and examples/agent.conf only.
    const char* details = "";        // continues `help`, in Markdown
    const char* standard = nullptr;  // describes the default if a new record has no value
    const char* example = nullptr;   // null: the default
    bool isUsual = false;            // not commented out in the example, although it is optional
    const char* section = nullptr;   // title in the example, before this setting
};

// All settings, in the order of --help and of the page.
inline constexpr auto SETTING_ROWS = std::to_array<Setting>({
    {.name = "server",
     .field = &ServerSettings::url,
     .help = "URL of the update server",
     .missing = WRONG_SERVER,
     .details = ", without the tenant",
     .example = "https://updates.example:8443",
     .section = "the update server"},
    {.name = "tenant", .field = &ServerSettings::tenant, .help = "Tenant on the server"},
    {.name = "controller-id",
     .field = &ServerSettings::controllerId,
     .help = "This camera's id on the server",
     .standard = "the host name",
     .example = "camera-0042"},
    {.name = "target-token-file",
     .field = &AgentSettings::targetTokenFile,
     .help = "File with this camera's token; mode 600",
     .isProtectedFile = true,
     .details = ". An alternative to `gateway-token-file`, or to a certificate",
     .example = "/etc/corvo/agent/token",
     .isUsual = true},
    {.name = "gateway-token-file",
     .field = &AgentSettings::gatewayTokenFile,
     .help = "File with the tenant's token; mode 600",
     .isProtectedFile = true,
     .details = ". One token for the whole fleet",
     .example = "/etc/corvo/agent/gateway_token"},
    {.name = "allow-unencrypted-token",
     .field = &AgentSettings::allowUnencryptedToken,
     .help = "Send the token over http, too: on or off",
     .details = ". With `on` the token can be read on the network; with `off` a token requires a "
                "server with https"},
    {.name = "certificate",
     .field = &ServerSettings::certificate,
     .help = "This camera's certificate (PEM)",
     .details = ", instead of a token",
     .example = "/etc/corvo/agent/camera.pem"},
    {.name = "key",
     .field = &ServerSettings::key,
     .help = "Private key of the certificate: a file or a PKCS#11 URI",
     .isProtectedFile = true,
     .details = ". The URI names a key in a secure element",
     .example = "/etc/corvo/agent/camera.key"},
    {.name = "ca",
     .field = &ServerSettings::ca,
     .help = "Certificate authorities that may sign the server's certificate (PEM)",
     .isProtectedFile = true,
     .standard = "the system's",
     .example = "/etc/corvo/agent/server_ca.pem"},
    {.name = "proxy",
     .field = &ServerSettings::proxy,
     .help = "HTTP proxy for all requests: http://HOST:PORT",
     .details = ". Downloads use it, too; https is tunnelled through it. A proxy that requires a "
                "user name is not supported: its refusal (407) counts as a server that cannot be "
                "reached. Variables such as `https_proxy` have no effect",
     .standard = "none",
     .example = "none"},
    {.name = "keyring",
     .field = &AgentSettings::keyring,
     .help = "Root certificates of accepted package signers (PEM)",
     .missing = "must be set; it decides whose packages are accepted",
     .isProtectedFile = true,
     .details = ": [signing.md](signing.md)",
     .example = "/etc/corvo/keyring.pem",
     .section = "which packages are accepted"},
    {.name = "crl",
     .field = &AgentSettings::crl,
     .help = "Certificate revocation lists (PEM)",
     .isProtectedFile = true,
     .example = "/etc/corvo/revoked.pem"},
    {.name = "compatible",
     .field = &AgentSettings::compatible,
     .help = "This camera's hardware type",
     .missing = "must be set; packages for other hardware are refused",
     .details = ". Packages for other hardware are refused",
     .example = "R5C20"},
    {.name = "version-file",
     .field = &AgentSettings::versionFile,
     .help = "File with the running version; none: versions are not compared",
     .missing = "must be set; older packages are refused (\"none\" turns this off)",
     .details = ". Packages with an older version are refused; with `none` they are accepted, too",
     .example = "/etc/corvo/version"},
    {.name = "check-partitions",
     .field = &AgentSettings::checkPartitions,
     .help = "Verify the partitions after the restart: on or off",
     .details = ". With `on` each written partition is read and hashed; `off` is for file systems "
                "that are written to. Without this and without a version file, slot and outcome "
                "record decide on success, and a manual upgrade in between is not noticed"},
    {.name = "download-folder",
     .field = &AgentSettings::downloadFolder,
     .help = "Folder for downloaded packages",
     .details = ". The package is stored in its subfolder `agent/`, which no other program may "
                "use. No part of the path may be a symbolic link",
     .section = "this camera"},
    {.name = "require-mount",
     .field = &AgentSettings::requireMount,
     .help = "Require a mounted card for the download folder: yes, no, or auto (below /media or "
             "/mnt)",
     .choices = {"auto", "yes", "no"},
     .isLocal = true,
     .details = ". With `yes` the folder must be on another file system than the root's; `auto` "
                "means `yes` below `/media`, `/run/media` and `/mnt`. Without that card an update "
                "waits, and nothing is written"},
    {.name = "state-folder",
     .field = &AgentSettings::stateFolder,
     .help = "Folder for state that survives a power cut",
     .details = ": the pending action and the history. It must not overlap the download folder"},
    {.name = "rate-limit",
     .field = &ServerSettings::rateLimit,
     .help = "Download limit in bytes a second, at least 1024; 0: no limit",
     // A lower rate would look like a stall. libcurl's limit is a signed number.
     .range = {.min = 1024, .zero = true, .unit = "bytes a second"}},
    {.name = "delta-source",
     .field = &AgentSettings::deltaSources,
     .help = "PARTITION=PATH of a file with parts of that partition's images",
     .details = ", such as the image that the camera was delivered with; any number of times. Of a "
                "chunked image only those parts are downloaded that neither the partition nor such "
                "a file has. The content of the file is not trusted",
     .example = "\"rootfs=/media/factory/rootfs.img\""},
    {.name = "connect-timeout",
     .field = &ServerSettings::connectTimeoutS,
     .help = "Seconds until a connection must be established",
     .range = {.min = 1, .unit = "second"}},
    {.name = "stall-timeout",
     .field = &ServerSettings::stallTimeoutS,
     .help = "Seconds without data after which a transfer is ended",
     .range = {.min = 1, .unit = "second"}},
    {.name = "attribute",
     .field = &AgentSettings::attributes,
     .help = "NAME=VALUE by which the server can filter cameras",
     .details = "; any number of times",
     .example = "\"site=north\""},
    {.name = "confirm",
     .field = &AgentSettings::confirm,
     .help = "When the server requires consent: auto or ask",
     .choices = {"auto", "ask"},
     .details = ". With `ask` the update waits for `corvo_agent confirm` or `deny` on the camera. "
                "Servers since 1.0 can require consent",
     .section = "when an upgrade may start"},
    {.name = "window",
     .field = &AgentSettings::window,
     .help = "Time of day HH:MM-HH:MM for upgrades that are not forced",
     .details = ", by the camera's clock. An upgrade that the server forces starts at once",
     .standard = "always",
     .example = "02:00-04:00"},
    {.name = "fitness-command",
     .field = &AgentSettings::fitnessCommand,
     .help = "Command whose exit status 0 means that the camera may be upgraded now",
     .details = " (battery, recording). Its first line of output is the reason. It runs with the "
                "agent's rights and the unit's limits, for at most a minute; it is killed when the "
                "agent is stopped",
     .standard = "always fit",
     .example = "/usr/sbin/battery_is_full"},
});

// The rows without the texts of the page and of the example, which the agent does not need.
inline constexpr auto SETTINGS = [] {
    auto rows = SETTING_ROWS;
    for (Setting& row : rows) {
        row.details = nullptr;
        row.example = nullptr;
        row.section = nullptr;
    }
    return rows;
}();

// Returns where the value is stored in these settings.
inline SettingValue value_of(AgentSettings& settings, const SettingField& field) {
    const auto find = [&settings](auto member) -> SettingValue {
        if constexpr (requires { settings.*member; }) {
            return &(settings.*member);
        } else {
            return &(settings.server.*member);
        }
    };
    return std::visit(find, field);
}

#endif  // AGENT_SETTINGS_H
