// otactl: posts upgrade requests, shows their progress, and creates and checks packages.
#include <stdio.h>

#include <string>

#include "cli/command_line.h"
#include "log/log_front_end.h"
#include "log/log_producer.h"
#include "ota/ota_data.h"
#include "otactl/commands.h"
#include "package/modules.h"

namespace {

struct Arguments {
    SendOptions send;
    PackOptions pack;
    std::string signedFile;
    TrustOptions fileTrust;
    SigningOptions signing;
    InspectOptions inspect;
    LogsOptions logs;
    std::string recordPath = OTA_DATA_PATH;
};

// An empty value usually comes from an unset variable in a script. It must not disable a check.
std::string not_empty(const std::string& value) {
    return value.empty() ? "needs a value" : "";
}

CLI::Option* add_value(CLI::App* command, const char* name, std::string& value, const char* help) {
    return command->add_option(name, value, help)->check(not_empty, "");
}

void add_roots(CLI::App* command, TrustOptions& trust) {
    add_value(command, "--keyring", trust.keyring,
              "Accept only packages whose signer one of these root certificates vouches for (PEM)");
    add_value(command, "--crl", trust.revocations, "Certificate revocation lists (PEM)");
    command->footer(std::string("Options that are not given are read from ") + SETTINGS_PATH + ".");
}

void add_trust(CLI::App* command, TrustOptions& trust) {
    add_roots(command, trust);
    add_value(command, "--compatible", trust.compatible, "The hardware type of this camera");
    add_value(command, "--version-file", trust.versionFile,
              "File with the running version; packages with a lower one are refused");
    command->add_flag("--allow-downgrade", trust.allowDowngrade, "Accept lower versions too");
    command->add_flag("--unsigned", trust.unsignedToo, "Require no signature");
}

void add_send(CLI::App& app, Arguments& arguments) {
    CLI::App* send = app.add_subcommand("send", "Post an upgrade request to the service");
    send->require_subcommand(1);
    const auto common = [&](CLI::App* command) {
        command->add_flag("--follow", arguments.send.follow,
                          "Wait and show the upgrade's stages; exit 0 on success, 1 on failure");
        command->add_option("--address", arguments.send.logAddress,
                            "Address at which the service publishes its log lines");
        command->add_flag("--during-trial", arguments.send.duringTrial,
                          "Post the request although a new system is on trial");
        add_trust(command, arguments.send.trust);
    };
    CLI::App* files = send->add_subcommand("files", "One image file per module in a directory");
    files->add_option("--dir", arguments.send.directory, "Directory of the images")->required();
    files->add_option("--manifest", arguments.send.manifest,
                      std::string("Their manifest (default with a keyring: ") + FOLDER_MANIFEST +
                          " in the directory)");
    files
        ->add_option("MODULE", arguments.send.modules,
                     "Names or numbers of the modules (default: all of the manifest)")
        ->option_text("...");
    common(files);
    CLI::App* combined =
        send->add_subcommand("combined", "One package file that holds all modules");
    combined->add_option("--package", arguments.send.package, "The package file")->required();
    combined->add_option("--manifest", arguments.send.manifest, "Its manifest")->required();
    common(combined);
}

void add_signing(CLI::App* command, SigningOptions& signing) {
    add_value(command, "--key", signing.key, "Sign with this key: a file or a PKCS#11 URI");
    add_value(command, "--certificate", signing.certificate, "The key's certificate (PEM)");
    command
        ->add_option("--intermediate", signing.intermediates,
                     "An authority between signer and root (PEM); may be repeated")
        ->allow_extra_args(false);
    CLI::Option* keyring =
        add_value(command, "--keyring", signing.keyring,
                  "Check the signature as a camera with these root certificates does (PEM)");
    add_value(command, "--crl", signing.revocations, "Revocation lists of that camera (PEM)")
        ->needs(keyring);
}

void add_sign(CLI::App& app, std::string& file, SigningOptions& signing) {
    CLI::App* command =
        app.add_subcommand("sign", "Sign any other file, for example a list of checksums");
    command->add_option("FILE", file, "The file; its signature becomes FILE.sig")->required();
    add_signing(command, signing);
    command->get_option("--key")->required();
    command->get_option("--certificate")->required();
}

void add_verify_file(CLI::App& app, std::string& file, TrustOptions& trust) {
    CLI::App* command =
        app.add_subcommand("verify-file", "Check a signature that was made with sign");
    command->add_option("FILE", file, "The file; its signature is FILE.sig")->required();
    add_roots(command, trust);
}

void add_pack(CLI::App& app, PackOptions& options) {
    CLI::App* pack = app.add_subcommand("pack", "Create a combined package and its manifest");
    pack->add_option("--output", options.output, "The package file");
    pack->add_option("IMAGE", options.modules, "NAME=PATH of each image")->option_text("...");
    CLI::App* files =
        pack->add_subcommand("files", "Create the manifest for the images in a directory");
    files->add_option("--dir", options.directory, "Directory of the images")->required();
    files
        ->add_option("MODULE", options.modules, "Names of the modules (default: every image in it)")
        ->option_text("...");
    files->add_flag(
        "--chunked", options.chunked,
        "Also write IMAGE.zst and IMAGE.chunks for each image larger than 1 MiB, so that "
        "cameras need to download only what changed");
    for (CLI::App* command : {pack, files}) {
        add_value(command, "--manifest", options.manifest, "The manifest");
        add_value(command, "--compatible", options.compatible,
                  "The hardware type that the package is for");
        add_value(command, "--version", options.version, "The package's version, such as 2.7.1");
        command->add_option("--description", options.description, "What is new, in one line");
        add_signing(command, options.signing);
    }
}

void add_inspect(CLI::App& app, InspectOptions& options) {
    for (CLI::App* command :
         {app.add_subcommand("verify", "Check a package as send does; exit 3: not trusted"),
          app.add_subcommand("info", "Show what a package contains and who signed it")}) {
        command
            ->add_option("MANIFEST", options.manifest,
                         "Its manifest, or the directory of the manifest")
            ->required();
        command->add_option("--dir", options.directory, "Directory of the images or the package");
        command->add_option("--package", options.package, "The package file");
        command->add_flag("--any-camera", options.anyCamera,
                          "Do not check whether the package is for this camera");
        command->add_flag("--json", options.json, "Print JSON");
        add_trust(command, options.trust);
    }
}

void add_others(CLI::App& app, Arguments& arguments) {
    CLI::App* logs =
        app.add_subcommand("logs", "Print the service's log lines as they are published");
    logs->add_option("--level", arguments.logs.level,
                     "Omit lines below this level (2 detail, 3 ordinary, 4 key events)")
        ->option_text("LEVEL")
        ->check(CLI::Range(LOG_LEVEL_DETAIL, LOG_LEVEL_KEY_EVENT));
    logs->add_option("--address", arguments.logs.address,
                     "Address at which the service publishes its log lines");

    app.add_subcommand("modules",
                       "List the modules that a package may contain, in table order, and the "
                       "devices to which their partitions' names lead");

    CLI::App* record = app.add_subcommand("record", "Print the outcome of the last upgrade");
    record->add_option("FILE", arguments.recordPath,
                       "The file of the outcome record (default: " OTA_DATA_PATH ")");
}

int run(const CLI::App& app, const Arguments& arguments) {
    if (app.got_subcommand("send")) {
        return app.get_subcommand("send")->got_subcommand("files") ? send_files(arguments.send)
                                                                   : send_combined(arguments.send);
    }
    if (app.got_subcommand("pack")) {
        return app.get_subcommand("pack")->got_subcommand("files") ? pack_files(arguments.pack)
                                                                   : pack_combined(arguments.pack);
    }
    if (app.got_subcommand("sign")) {
        return sign_file(arguments.signedFile, arguments.signing);
    }
    if (app.got_subcommand("verify-file")) {
        return verify_file(arguments.signedFile, arguments.fileTrust);
    }
    if (app.got_subcommand("verify")) {
        return verify(arguments.inspect);
    }
    if (app.got_subcommand("info")) {
        return info(arguments.inspect);
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
    arguments.logs = {.address = default_log_address(), .level = 0};
    CLI::App app(
        "Posts upgrade requests to the camera's upgrade service and shows their progress; "
        "creates and checks packages.",
        OTACTL);
    app.require_subcommand(1);
    app.footer("Modules: " + module_names());
    add_send(app, arguments);
    add_pack(app, arguments.pack);
    add_sign(app, arguments.signedFile, arguments.signing);
    add_verify_file(app, arguments.signedFile, arguments.fileTrust);
    add_inspect(app, arguments.inspect);
    add_others(app, arguments);
    if (const auto status = parse_command_line(app, argc, argv)) {
        return *status;
    }
    return run(app, arguments);
}

int main(int argc, char** argv) {
    return run_guarded(OTACTL, [&] { return program(argc, argv); });
}
