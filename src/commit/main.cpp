// corvo_commit: decides whether a new system stays. Of a camera with two slots, it commits the
// system that runs when that is healthy, and otherwise returns to the other one.
#include <memory>
#include <string>

#include "cli/command_line.h"
#include "cli/settings_file.h"
#include "commit/camera.h"
#include "commit/status.h"

namespace {

constexpr char BOOT_COMPLETE[] = "systemctl is-active --quiet boot-complete.target";

struct Arguments {
    CommitSettings settings;
    std::string emptySetting;  // name of a setting that was given without a value
    bool bootComplete = false;
    bool json = false;
    std::string slot;
};

void add_settings(CLI::App& app, Arguments& arguments) {
    CommitSettings& settings = arguments.settings;
    const auto text = [&app](const char* name, std::string& value, const char* help) {
        app.add_option(name, value, help)->capture_default_str();
    };
    const auto number = [&app](const char* name, uint32_t& value, const char* help) {
        app.add_option(name, value, help)->capture_default_str();
    };
    app.set_config("--config", COMMIT_SETTINGS_PATH, "Configuration file");
    app.config_formatter(std::make_shared<SettingsFile>(FileValues::PLAIN, arguments.emptySetting));
    app.allow_config_extras(CLI::config_extras_mode::error);
    text("--slot-from", settings.slotFrom,
         "What names the running slot: command-line (of the kernel) or root-device");
    text("--word-a", settings.wordA, "Word of the kernel's command line in slot A");
    text("--word-b", settings.wordB, "Word of the kernel's command line in slot B");
    text("--root-a", settings.rootA, "Device of the root file system in slot A");
    text("--root-b", settings.rootB, "Device of the root file system in slot B");
    app.add_option("--health-command", settings.healthCommands,
                   "Command whose exit status 0 means that a part of the system works; may be "
                   "repeated (default: a system that starts this program is healthy)")
        ->allow_extra_args(false);
    number("--health-timeout", settings.healthTimeoutS,
           "Seconds after which a health command is killed");
    number("--interval", settings.trial.intervalS, "Seconds between two rounds of health commands");
    number("--deadline", settings.trial.deadlineS,
           "Seconds in which all health commands must have succeeded in one round");
    number("--start-limit", settings.trial.startLimit,
           "Unfinished starts of a trial, at least 3, after which the system is given up");
    text("--unarmed-switch", settings.unarmedSwitch,
         "A slot that another program has selected: try it, or accept it without a check");
    text("--state-folder", settings.stateFolder, "Folder of the record");
    text("--restart-command", settings.restartCommand, "Command that restarts the camera");
}

int run(const CLI::App& app, Arguments& arguments) {
    CommitSettings& settings = arguments.settings;
    find_empty_option(app, arguments.emptySetting);
    const std::string wrong = arguments.emptySetting.empty()
                                  ? complete_settings(settings)
                                  : arguments.emptySetting + ": must not be empty";
    if (!wrong.empty()) {
        print_error(COMMIT, wrong);
        return EXIT_WRONG_USE;
    }
    if (arguments.bootComplete) {
        settings.healthCommands.emplace_back(BOOT_COMPLETE);
    }
    Camera camera = {.settings = settings, .folder = {}, .lock = {}};
    const CommitPlatform platform = platform_of(camera);
    if (app.got_subcommand("boot")) {
        end_in_order_on_signals();
        return decide_at_boot(platform, settings.trial);
    }
    if (app.got_subcommand("status")) {
        print_status(observe(platform), arguments.json);
        return COMMIT_EXIT_OK;
    }
    if (app.got_subcommand("arm")) {
        return record_arming(platform, arguments.slot[0]);
    }
    return app.got_subcommand("commit") ? commit_now(platform) : roll_back_now(platform);
}

int program(int argc, char** argv) {
    Arguments arguments;
    CLI::App app("Commits a new system when it is healthy, or returns to the other slot.", COMMIT);
    app.require_subcommand(1);
    app.fallthrough();
    add_settings(app, arguments);
    app.add_subcommand("boot", "Decide about the running system; to be run at each start")
        ->add_flag("--boot-complete", arguments.bootComplete,
                   "Require systemd's boot-complete.target as well");
    app.add_subcommand("status", "Print slots, state, and why the last trial failed")
        ->add_flag("--json", arguments.json, "Print JSON");
    app.add_subcommand("commit", "Commit the system that is on trial, without a check");
    app.add_subcommand("rollback", "Give up the system that is on trial, and restart");
    app.add_subcommand("arm", "Record that a slot is about to be selected; for the switch script")
        ->add_option("SLOT", arguments.slot, "A or B")
        ->required()
        ->check(CLI::IsMember({"A", "B"}));
    if (const auto status = parse_command_line(app, argc, argv)) {
        return *status;
    }
    return run(app, arguments);
}

}  // namespace

int main(int argc, char** argv) {
    return run_guarded(COMMIT, [&] { return program(argc, argv); });
}
