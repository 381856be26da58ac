// corvo_agent: brings what an update server has for this camera to the upgrade service, and tells
// the server what became of it.
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

constexpr uint32_t SLEEP_IN_TROUBLE_MS = 300000;

struct Arguments {
    AgentSettings settings;
    std::string emptySetting;  // the name of one that was given without a value
    std::string checkPartitions = "on";
    std::string allowUnencryptedToken = "off";
    bool json = false;
};

// The file, in which the parser takes an empty value for none: a check would be off unnoticed.
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
    app.set_config("--config", AGENT_SETTINGS_PATH, "The settings' file");
    app.config_formatter(std::make_shared<SettingsFile>(arguments.emptySetting));
    app.allow_config_extras(CLI::config_extras_mode::error);
    text("--server", server.url, "URL of the update server");
    text("--tenant", server.tenant, "The server's tenant");
    text("--controller-id", server.controllerId, "This camera's name there (the host name)");
    text("--target-token-file", settings.targetTokenFile, "Holds this camera's token; mode 600");
    text("--gateway-token-file", settings.gatewayTokenFile, "Holds the tenant's token; mode 600");
    text("--allow-unencrypted-token", arguments.allowUnencryptedToken,
         "Send the token over http, too: on or off");
    text("--certificate", server.certificate, "This camera's certificate (PEM)");
    text("--key", server.key, "Its key: a file or a PKCS#11 URI");
    text("--ca", server.ca, "Who may vouch for the server (PEM; the system's authorities)");
    text("--proxy", server.proxy, "HTTP proxy for all requests: http://HOST:PORT (none)");
    text("--keyring", settings.keyring, "Root certificates of whose packages are taken (PEM)");
    text("--crl", settings.crl, "Certificate revocation lists (PEM)");
    text("--compatible", settings.compatible, "This camera's hardware type");
    text("--version-file", settings.versionFile, "Says which version runs; none: not compared");
    text("--check-partitions", arguments.checkPartitions,
         "Hash the partitions after the restart: on or off");
    text("--download-folder", settings.downloadFolder, "Where packages go");
    text("--require-mount", settings.requireMount,
         "The download folder must be on a mounted card: yes, no, or auto: below /media and /mnt");
    text("--state-folder", settings.stateFolder, "What a power cut must not take");
    app.add_option("--rate-limit", server.rateLimit,
                   "Bytes a second of downloads, at least 1024 (0: no limit)");
    app.add_option("--connect-timeout", server.connectTimeoutS, "Seconds")->capture_default_str();
    app.add_option("--stall-timeout", server.stallTimeoutS, "Seconds without a byte")
        ->capture_default_str();
    app.add_option("--attribute", settings.attributes, "NAME=VALUE that the server may filter by")
        ->allow_extra_args(false);
    text("--confirm", settings.confirm, "When the server asks for consent: auto or ask");
    text("--window", settings.window, "When an upgrade that is not forced may start: 02:00-04:00");
    text("--fitness-command", settings.fitnessCommand,
         "Its exit status says whether the camera may be upgraded now");
}

AgentStatus read_switch(const char* setting, const std::string& text, bool& isOn) {
    isOn = text == "on";
    return isOn || text == "off"
               ? AgentStatus{}
               : agent_fault(AGENT_MALFORMED,
                             std::string(setting) + ": on or off, not \"" + text + "\"");
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
    CLI::App app("Brings an update server's packages to this camera's upgrade service.", AGENT);
    app.require_subcommand(1);
    app.fallthrough();
    add_settings(app, arguments);
    app.add_subcommand("run", "Poll for ever");
    app.add_subcommand("once", "One poll and all that follows from it");
    app.add_subcommand("status", "What is in hand, the last poll and the last outcome")
        ->add_flag("--json", arguments.json, "Print JSON");
    app.add_subcommand("confirm", "Agree to the update that waits for consent");
    app.add_subcommand("deny", "Refuse it");
    app.add_subcommand("report", "Tell the server what runs on this camera");
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
        // Settings that somebody is just writing, or a medium that is away for a moment, must not
        // need somebody who starts the agent again.
        sleep_outside(process, SLEEP_IN_TROUBLE_MS);
    }
    return status;
}
