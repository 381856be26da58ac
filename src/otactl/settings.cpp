#include <errno.h>
#include <sys/stat.h>

#include <array>
#include <sstream>
#include <utility>

#include "cli/command_line.h"
#include "cli/error_line.h"
#include "otactl/commands.h"
#include "otactl/trust.h"
#include "package/files.h"

namespace {

constexpr size_t SETTINGS_SIZE_MAX = 65536;  // bytes

int wrong_setting(const std::string& what) {
    print_error(OTACTL, std::string(SETTINGS_PATH) + ": " + what);
    return OTACTL_WRONG_USE;
}

int take_setting(const CLI::ConfigItem& item, TrustOptions& options) {
    // An option of the command line has precedence, so only empty values are filled in below.
    const std::array<std::pair<const char*, std::string*>, 4> settings = {
        {{"keyring", &options.keyring},
         {"crl", &options.revocations},
         {"compatible", &options.compatible},
         {"version-file", &options.versionFile}}};
    for (const auto& [name, value] : settings) {
        if (item.fullname() != name) {
            continue;
        }
        if (item.inputs.size() != 1 || item.inputs[0].empty()) {
            return wrong_setting(item.fullname() + " needs one value");
        }
        if (value->empty()) {
            *value = item.inputs[0];
        }
        return OTACTL_OK;
    }
    // A misspelled "keyring" must not disable the signature check.
    return wrong_setting("unknown setting " + item.fullname());
}

}  // namespace

int read_settings(TrustOptions& options) {
    std::string text;
    struct stat status = {};
    if (lstat(SETTINGS_PATH, &status) != 0 && (errno == ENOENT || errno == ENOTDIR)) {
        return OTACTL_OK;
    }
    // Unreadable settings are an error: they may require signatures.
    const PackageStatus read =
        read_small_file(SETTINGS_PATH, SETTINGS_SIZE_MAX, FileKind::REGULAR, text);
    if (!read.ok()) {
        print_error(OTACTL, read.text);
        return OTACTL_WRONG_USE;
    }
    std::vector<CLI::ConfigItem> items;
    try {
        std::istringstream lines(text);
        items = CLI::ConfigINI().from_config(lines);
    } catch (const CLI::Error& error) {
        return wrong_setting(error.what());
    }
    for (const CLI::ConfigItem& item : items) {
        const int result = take_setting(item, options);
        if (result != OTACTL_OK) {
            return result;
        }
    }
    return OTACTL_OK;
}
