// corvo_agent: downloads packages from an update server, passes them to the upgrade service and
// reports the results to the server.
#include <sys/stat.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "agent/check_settings.h"
#include "agent/loop.h"
#include "agent/status.h"
#include "cli/command_line.h"
#include "cli/settings_file.h"

namespace {

constexpr uint32_t SLEEP_AFTER_ERROR_MS = 300000;
constexpr mode_t UMASK = 022;

struct Arguments {
    AgentSettings settings;
    std::string emptySetting;  // name of a setting that was given without a value
    AgentStatus wrongSwitch;   // the error of a setting that is neither on nor off
    bool json = false;
};

// Adds the option of a setting. One overload for each type of value.
struct AddOption {
    CLI::App& app;
    AgentStatus& wrongSwitch;
    const char* setting;
    const std::string option;
    const std::string help;

    void operator()(bool* isOn) const {
        const auto parse = [isOn, name = setting, &wrong = wrongSwitch](const std::string& text) {
            AgentStatus status = parse_switch(name, text, *isOn);
            wrong = wrong.ok() ? std::move(status) : wrong;
        };
        app.add_option_function<std::string>(option, parse, help)
            ->default_str(*isOn ? "on" : "off");
    }
    void operator()(std::vector<std::string>* texts) const {
        app.add_option(option, *texts, help)->allow_extra_args(false);
    }
    template <typename T>
    void operator()(T* value) const {
        app.add_option(option, *value, help)->capture_default_str();
    }
};

void add_settings(CLI::App& app, Arguments& arguments) {
    app.set_config("--config", AGENT_SETTINGS_PATH, "Configuration file");
    app.config_formatter(std::make_shared<SettingsFile>(FileValues::LISTS, arguments.emptySetting));
    app.allow_config_extras(CLI::config_extras_mode::error);
    for (const Setting& setting : SETTINGS) {
        std::string help = setting.help;
        if (setting.standard != nullptr) {
            help += std::string(" (default: ") + setting.standard + ')';
        }
        std::visit(AddOption{app, arguments.wrongSwitch, setting.name,
                             std::string("--") + setting.name, std::move(help)},
                   value_of(arguments.settings, setting.field));
    }
}

int run(const CLI::App& app, Arguments& arguments, AgentProcess& process) {
    AgentSettings& settings = arguments.settings;
    Keyring keyring;
    AgentStatus status = arguments.wrongSwitch;
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
    // Files that root writes, such as a consent, are read by the agent's user.
    umask(UMASK);
    AgentProcess process = wake_up(argv);
    const int status = run_guarded(AGENT, [&] { return program(argc, argv, process); });
    if (process.slept && status != AGENT_EXIT_OK) {
        // The error may be temporary: settings that are just being written, or storage that is not
        // mounted. The agent tries again later, because nobody may be there to start it again.
        sleep_outside(process, SLEEP_AFTER_ERROR_MS);
    }
    return status;
}
