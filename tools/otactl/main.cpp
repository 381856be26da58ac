// otactl: posts upgrade requests and shows what becomes of them.
#include <stdio.h>

#include <string>

#include "command_line.h"
#include "log/log_front_end.h"
#include "log/log_producer.h"
#include "ota/ota_data.h"
#include "otactl/commands.h"

namespace {

struct Arguments {
    SendOptions send;
    PackOptions pack;
    LogsOptions logs;
    std::string recordPath = OTA_DATA_PATH;
};

void add_send(CLI::App& app, Arguments& arguments) {
    CLI::App* send = app.add_subcommand("send", "Post an upgrade request to the service");
    send->require_subcommand(1);
    const auto common = [&](CLI::App* command) {
        command->add_flag("--follow", arguments.send.follow,
                          "Wait and show the stages; exit 0 on success, 1 on failure");
        command->add_option("--address", arguments.send.logAddress,
                            "Where the service publishes its log lines");
    };
    CLI::App* files = send->add_subcommand("files", "One image file per module in a directory");
    files->add_option("--dir", arguments.send.directory, "Directory of the images")->required();
    files->add_option("MODULE", arguments.send.modules, "Names or numbers of the modules")
        ->option_text("...")
        ->required();
    common(files);
    CLI::App* combined =
        send->add_subcommand("combined", "One package file that holds all modules");
    combined->add_option("--package", arguments.send.package, "The package file")->required();
    combined->add_option("--manifest", arguments.send.manifest, "Its manifest")->required();
    common(combined);
}

void add_others(CLI::App& app, Arguments& arguments) {
    CLI::App* pack = app.add_subcommand("pack", "Make a combined package and its manifest");
    pack->add_option("--output", arguments.pack.output, "The package file")->required();
    pack->add_option("--manifest", arguments.pack.manifest, "The manifest")->required();
    pack->add_option("IMAGE", arguments.pack.modules, "NAME=PATH of each image")
        ->option_text("...")
        ->required();

    CLI::App* logs = app.add_subcommand("logs", "Print the service's log lines as they come");
    logs->add_option("--level", arguments.logs.level,
                     "Leave out lines below this level (2 detail, 3 ordinary, 4 key events)")
        ->option_text("LEVEL")
        ->check(CLI::Range(LOG_LEVEL_DETAIL, LOG_LEVEL_KEY_EVENT));
    logs->add_option("--address", arguments.logs.address,
                     "Where the service publishes its log lines");

    app.add_subcommand("modules", "List the modules that a package may hold, in table order");

    CLI::App* record = app.add_subcommand("record", "Print the outcome record in words");
    record->add_option("FILE", arguments.recordPath, "The record (" OTA_DATA_PATH ")");
}

int run(const CLI::App& app, const Arguments& arguments) {
    if (app.got_subcommand("send")) {
        return app.get_subcommand("send")->got_subcommand("files") ? send_files(arguments.send)
                                                                   : send_combined(arguments.send);
    }
    if (app.got_subcommand("pack")) {
        return pack(arguments.pack);
    }
    if (app.got_subcommand("logs")) {
        return logs(arguments.logs);
    }
    if (app.got_subcommand("modules")) {
        return list_modules();
    }
    return record(arguments.recordPath);
}

}  // namespace

std::string default_log_address() {
    char address[64] = {};
    snprintf(address, sizeof(address), CORVO_LOG_PUB_ADDRESS CORVO_LOG_NUMBER_FORMAT,
             CORVO_LOG_MODULE_NUMBER);
    return address;
}

static int program(int argc, char** argv) {
    Arguments arguments;
    arguments.send.logAddress = default_log_address();
    arguments.send.follow = false;
    arguments.logs = {.address = default_log_address(), .level = 0};
    CLI::App app(
        "Posts upgrade requests to the camera's upgrade service and shows what becomes of "
        "them.",
        OTACTL);
    app.require_subcommand(1);
    add_send(app, arguments);
    add_others(app, arguments);
    if (const auto status = parse_command_line(app, argc, argv)) {
        return *status;
    }
    return run(app, arguments);
}

int main(int argc, char** argv) {
    return run_guarded(OTACTL, [&] { return program(argc, argv); });
}
