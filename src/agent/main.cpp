// corvo_agent: downloads packages from an update server, passes them to the upgrade service and
// reports the results to the server.
#include <algorithm>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "agent/loop.h"
#include "agent/settings.h"
#include "agent/status.h"
#include "cli/command_line.h"

namespace {

constexpr uint32_t SLEEP_AFTER_ERROR_MS = 300000;

struct Arguments {
    AgentSettings settings;
    std::string emptySetting;  // name of a setting that was given without a value
    std::string checkPartitions = "on";
    std::string allowUnencryptedToken = "off";
    bool json = false;
};

// Parses the configuration file and finds settings without a value. CLI11 treats these as not
// given, which could silently turn a check off.
class SettingsFile : public CLI::ConfigBase {
  public:
    explicit SettingsFile(std::string& emptySetting) : emptySetting_(emptySetting) {}
    std::vector<CLI::ConfigItem> from_config(std::istream& input) const override {
        std::vector<CLI::ConfigItem> settings = CLI::ConfigBase::from_config(input);
        for (const CLI::ConfigItem& item : settings) {
            if (item.inputs.empty() || std::ranges::count(item.inputs, "") > 0) {
                emptySetting_ = item.fullname();
            }
        }
        return settings;
    }

  private:
    std::string& emptySetting_;
};

void find_empty_option(const CLI::App& app, std::string& name) {
    for (const CLI::Option* option : app.get_options()) {
        if (std::ranges::count(option->results(), "") > 0) {
            name = option->get_lnames().front();
        }
    }
}

void add_settings(CLI::App& app, Arguments& arguments) {
    AgentSettings& settings = arguments.settings;
    ServerSettings& server = settings.server;
    const auto text = [&app](const char* name, std::string& value, const char* help) {
        app.add_option(name, value, help)->capture_default_str();
    };
    app.set_config("--config", AGENT_SETTINGS_PATH, "Configuration file");
    app.config_formatter(std::make_shared<SettingsFile>(arguments.emptySetting));
    app.allow_config_extras(CLI::config_extras_mode::error);
    text("--server", server.url, "URL of the update server");
    text("--tenant", server.tenant, "Tenant on the server");
    text("--controller-id", server.controllerId,
         "This camera's id on the server (default: the host name)");
    text("--target-token-file", settings.targetTokenFile,
         "File with this camera's token; mode 600");
    text("--gateway-token-file", settings.gatewayTokenFile,
         "File with the tenant's token; mode 600");
    text("--allow-unencrypted-token", arguments.allowUnencryptedToken,
         "Send the token over http, too: on or off");
    text("--certificate", server.certificate, "This camera's certificate (PEM)");
    text("--key", server.key, "Private key of the certificate: a file or a PKCS#11 URI");
    text("--ca", server.ca,
         "Trusted certificate authorities for the server (PEM; default: the system's)");
    text("--proxy", server.proxy, "HTTP proxy for all requests: http://HOST:PORT (default: none)");
    text("--keyring", settings.keyring, "Root certificates of accepted package signers (PEM)");
    text("--crl", settings.crl, "Certificate revocation lists (PEM)");
    text("--compatible", settings.compatible, "This camera's hardware type");
    text("--version-file", settings.versionFile,
         "File with the running version; none: versions are not compared");
    text("--check-partitions", arguments.checkPartitions,
         "Verify the partitions after the restart: on or off");
    text("--download-folder", settings.downloadFolder, "Folder for downloaded packages");
    text("--require-mount", settings.requireMount,
         "Require a mounted card for the download folder: yes, no, or auto (below /media or /mnt)");
    text("--state-folder", settings.stateFolder, "Folder for state that survives a power cut");
    app.add_option("--rate-limit", server.rateLimit,
                   "Download limit in bytes a second, at least 1024 (0: no limit)");
    app.add_option("--connect-timeout", server.connectTimeoutS,
                   "Seconds until a connection must be established")
        ->capture_default_str();
    app.add_option("--stall-timeout", server.stallTimeoutS,
                   "Seconds without data after which a transfer is ended")
        ->capture_default_str();
    app.add_option("--attribute", settings.attributes,
                   "NAME=VALUE by which the server can filter cameras")
        ->allow_extra_args(false);
    text("--confirm", settings.confirm, "When the server requires consent: auto or ask");
    text("--window", settings.window, "Time window for upgrades that are not forced: 02:00-04:00");
    text("--fitness-command", settings.fitnessCommand,
         "Command whose exit status 0 means that the camera may be upgraded now");
}

AgentStatus read_switch(const char* setting, const std::string& text, bool& isOn) {
    isOn = text == "on";
    return isOn || text == "off"
               ? AgentStatus{}
               : agent_fault(AGENT_MALFORMED,
                             std::string(setting) + ": must be on or off, not \"" + text + "\"");
}

int run(const CLI::App& app, Arguments& arguments, AgentProcess& process) {
    AgentSettings& settings = arguments.settings;
    Keyring keyring;
    AgentStatus status =
        read_switch("check-partitions", arguments.checkPartitions, settings.checkPartitions);
    if (status.ok()) {
        status = read_switch("allow-unencrypted-token", arguments.allowUnencryptedToken,
                             settings.allowUnencryptedToken);
    }
    find_empty_option(app, arguments.emptySetting);
    if (!arguments.emptySetting.empty()) {
        status = agent_fault(AGENT_MALFORMED, arguments.emptySetting + ": must not be empty");
    }
    const bool isLocal =
        app.got_subcommand("status") || app.got_subcommand("confirm") || app.got_subcommand("deny");
    if (status.ok()) {
        status = isLocal ? complete_local_settings(settings) : complete_settings(settings, keyring);
    }
    if (!status.ok()) {
        print_error(AGENT, status.text);
        return AGENT_EXIT_WRONG_USE;
    }
    if (app.got_subcommand("run")) {
        return run_agent(settings, std::move(keyring), process);
    }
    if (app.got_subcommand("once")) {
        return run_once(settings, std::move(keyring));
    }
    if (app.got_subcommand("report")) {
        return report(settings, std::move(keyring));
    }
    status = app.got_subcommand("status") ? print_status(settings, arguments.json)
                                          : give_consent(settings, app.got_subcommand("confirm"));
    if (!status.ok()) {
        print_error(AGENT, status.text);
        return AGENT_EXIT_FAILED;
    }
    return AGENT_EXIT_OK;
}

int program(int argc, char** argv, AgentProcess& process) {
    Arguments arguments;
    CLI::App app("Downloads packages from an update server for this camera's upgrade service.",
                 AGENT);
    app.require_subcommand(1);
    app.fallthrough();
    add_settings(app, arguments);
    app.add_subcommand("run", "Poll the server until stopped");
    app.add_subcommand("once", "Poll once and handle the answer");
    app.add_subcommand("status", "Print the pending action, the last poll and the last result")
        ->add_flag("--json", arguments.json, "Print JSON");
    app.add_subcommand("confirm", "Confirm the update that waits for consent");
    app.add_subcommand("deny", "Deny the update that waits for consent");
    app.add_subcommand("report", "Send this camera's version and other attributes to the server");
    if (const auto status = parse_command_line(app, argc, argv)) {
        return *status;
    }
    return run(app, arguments, process);
}

}  // namespace

int main(int argc, char** argv) {
    AgentProcess process = wake_up(argv);
    const int status = run_guarded(AGENT, [&] { return program(argc, argv, process); });
    if (process.slept && status != AGENT_EXIT_OK) {
        // The error may be temporary: settings that are just being written, or storage that is not
        // mounted. The agent tries again later, because nobody may be there to start it again.
        sleep_outside(process, SLEEP_AFTER_ERROR_MS);
    }
    return status;
}
