#include <stdio.h>

#include <filesystem>
#include <nlohmann/json.hpp>

#include "cli/error_line.h"
#include "cli/progress_line.h"
#include "otactl/commands.h"
#include "otactl/log_line.h"
#include "otactl/trust.h"
#include "package/chunked.h"

namespace {

// The results of all checks of a package.
struct Findings {
    Manifest manifest;
    bool isSigned = false;  // `signer` could be read; it need not be trusted
    Signer signer;
    PackageStatus trust;
    PackageStatus content;
    std::vector<PackageStatus> objections;
};

// Returns the first reason to refuse the package, or PACKAGE_OK.
PackageStatus first_objection(const Findings& findings) {
    if (!findings.trust.ok()) {
        return findings.trust;
    }
    if (!findings.objections.empty()) {
        return findings.objections.front();
    }
    return findings.content;
}

std::string manifest_path(const std::string& given) {
    std::error_code fault;
    return std::filesystem::is_directory(given, fault)
               ? (std::filesystem::path(given) / FOLDER_MANIFEST).string()
               : given;
}

std::string directory_of(const std::string& manifest) {
    const size_t slash = manifest.rfind('/');
    return slash == std::string::npos ? "./" : manifest.substr(0, slash + 1);
}

// Reads the manifest and its signer, even if the signature is not trusted. Returns an error only
// when the manifest cannot be read at all.
PackageStatus read_findings(const std::string& path, const Trust& trust, Findings& findings) {
    findings.trust = read_manifest(path, trust, findings.manifest, findings.signer);
    if (findings.trust.result != PACKAGE_NOT_TRUSTED) {
        findings.isSigned = trust.needsSignature;
        if (findings.trust.ok() && !trust.needsSignature) {
            findings.isSigned = read_claimed_signer(path, findings.signer).ok();
        }
        return findings.trust;
    }
    findings.isSigned = !findings.signer.subject.empty();
    return read_unsigned_manifest(path, findings.manifest);
}

nlohmann::ordered_json file_json(const ManifestFile& file) {
    return {{"file", file.name}, {"size", file.size}, {"sha256", digest_text(file.sha256)}};
}

nlohmann::ordered_json modules_json(const Manifest& manifest) {
    nlohmann::ordered_json modules = nlohmann::ordered_json::array();
    for (const ManifestModule& module : manifest.modules) {
        nlohmann::ordered_json entry = {{"name", module.name}};
        if (manifest.combined()) {
            entry["offset"] = module.offset;
        } else {
            entry["file"] = module.file;
        }
        entry["size"] = module.size;
        if (module.sha256) {
            entry["sha256"] = digest_text(*module.sha256);
        }
        if (module.chunked) {
            entry["frames"] = file_json(module.chunked->frames);
            entry["index"] = file_json(module.chunked->index);
        }
        modules.push_back(std::move(entry));
    }
    return modules;
}

void print_json(const Findings& findings, const Trust& trust, bool contentRead) {
    const Manifest& manifest = findings.manifest;
    nlohmann::ordered_json all = {{"format", manifest.format}};
    if (manifest.format > 1) {
        all["compatible"] = manifest.compatible;
        all["version"] = manifest.version;
        all["description"] = manifest.description;
    }
    if (!manifest.package.empty()) {
        all["package"] = manifest.package;
    }
    all["modules"] = modules_json(manifest);
    if (findings.isSigned) {
        const Signer& signer = findings.signer;
        all["signer"] = {{"subject", signer.subject},         {"issuer", signer.issuer},
                         {"fingerprint", signer.fingerprint}, {"valid_from", signer.validFrom},
                         {"valid_until", signer.validUntil},  {"signed_at", signer.signedAt}};
    }
    // Without a keyring, trust is unknown: null.
    all["trusted"] = trust.needsSignature ? nlohmann::ordered_json(findings.trust.ok()) : nullptr;
    all["content_matches"] = contentRead ? nlohmann::ordered_json(findings.content.ok()) : nullptr;
    const bool accepted = first_objection(findings).ok();
    all["accepted"] = accepted;
    all["reasons"] = nlohmann::ordered_json::array();
    for (const PackageStatus* status : {&findings.trust, &findings.content}) {
        if (!status->ok()) {
            all["reasons"].push_back(status->text);
        }
    }
    for (const PackageStatus& status : findings.objections) {
        all["reasons"].push_back(status.text);
    }
    using Json = nlohmann::ordered_json;
    printf("%s\n", all.dump(2, ' ', true, Json::error_handler_t::replace).c_str());
}

void print_line(const char* what, const std::string& words) {
    printf("%-12s %s\n", what, printable(words).c_str());
}

std::string chunked_text(const ManifestModule& module) {
    if (!module.chunked) {
        return "";
    }
    const ChunkedFiles& files = *module.chunked;
    return ", chunked: " + std::to_string(files.frames.size) + " in " + files.frames.name + ", " +
           std::to_string(files.index.size) + " in " + files.index.name;
}

void print_signer(const Findings& findings, const Trust& trust) {
    if (!findings.isSigned) {
        print_line("signed by", trust.needsSignature ? "not signed" : "no readable signature");
    } else {
        const Signer& signer = findings.signer;
        print_line("signed by", signer.subject);
        print_line("  issuer", signer.issuer);
        print_line("  SHA-256", signer.fingerprint);
        print_line("  valid", time_text(signer.validFrom) + " to " + time_text(signer.validUntil));
        print_line("  signed", signer.signedAt == 0 ? "the signature has no signing time"
                                                    : time_text(signer.signedAt));
    }
    if (!trust.needsSignature) {
        print_line("trusted", "unknown: no keyring");
        return;
    }
    print_line("trusted", findings.trust.ok() ? "yes" : "no: " + findings.trust.text);
}

void print_text(const Findings& findings, const Trust& trust, bool contentRead, bool anyCamera) {
    const Manifest& manifest = findings.manifest;
    if (manifest.format > 1) {
        print_line("for", manifest.compatible);
        print_line("version", manifest.version);
        if (!manifest.description.empty()) {
            print_line("description", manifest.description);
        }
    }
    if (!manifest.package.empty()) {
        print_line("package", manifest.package);
    }
    for (const ManifestModule& module : manifest.modules) {
        print_line(module.name.c_str(),
                   std::to_string(module.size) + " bytes " +
                       (manifest.combined() ? "at " + std::to_string(module.offset)
                                            : "in " + module.file) +
                       chunked_text(module));
    }
    print_signer(findings, trust);
    if (contentRead) {
        print_line("content", "matches the manifest");
    }
    if (findings.trust.ok() && findings.objections.empty() && !anyCamera) {
        print_line("this camera", "would accept it");
    }
    for (const PackageStatus& status : findings.objections) {
        print_line("this camera", "would not accept it: " + status.text);
    }
}

PackageStatus check_content(const Manifest& manifest, const std::string& path,
                            const InspectOptions& options) {
    std::string directory = directory_of(path);
    std::string package;
    if (!options.package.empty() && manifest.combined()) {
        directory = directory_of(options.package);
        package = std::filesystem::path(options.package).filename().string();
    } else if (!options.directory.empty()) {
        directory = options.directory + "/";
    }
    if (manifest.combined() && manifest.package.empty() && package.empty()) {
        return package_fault(PACKAGE_MALFORMED,
                             path + " does not name its package: name it with --package");
    }
    Manifest whole = manifest;
    std::erase_if(whole.modules,
                  [](const ManifestModule& module) { return module.chunked.has_value(); });
    for (const ManifestModule& module : manifest.modules) {
        PackageStatus status;
        if (module.chunked) {
            ProgressLine line(!options.json, module.chunked->frames.name + " checked", module.size);
            status = restore_image(
                directory, module, [](std::span<const char>) { return true; },
                [&line](uint64_t bytes) { line.show(bytes); });
        }
        if (!status.ok()) {
            return status;
        }
    }
    std::vector<CheckedFile> checked;
    return check_files(whole, directory, package, !options.json, checked);
}

int inspect(const InspectOptions& options, bool readsContent) {
    Trust trust;
    const int result = load_trust(options.trust, trust);
    if (result != OTACTL_OK) {
        return result;
    }
    if (readsContent && !trust.needsSignature && !options.trust.unsignedToo) {
        print_error(OTACTL, std::string("no keyring: name one with --keyring or in ") +
                                SETTINGS_PATH + ", or use --unsigned");
        return OTACTL_WRONG_USE;
    }
    const std::string path = manifest_path(options.manifest);
    Findings findings;
    const PackageStatus status = read_findings(path, trust, findings);
    if (!status.ok()) {
        return refuse(findings.trust, true);
    }
    if (!options.anyCamera) {
        findings.objections = camera_objections(findings.manifest, trust.rules);
    }
    bool contentRead = false;
    if (readsContent && first_objection(findings).ok()) {
        findings.content = check_content(findings.manifest, path, options);
        contentRead = true;
    }
    if (options.json) {
        print_json(findings, trust, contentRead);
    }
    if (readsContent && !first_objection(findings).ok()) {
        return refuse(first_objection(findings), true);
    }
    if (!options.json) {
        print_text(findings, trust, contentRead, options.anyCamera);
    }
    return flush_output(OTACTL) ? OTACTL_OK : OTACTL_FAILED;
}

}  // namespace

int verify(const InspectOptions& options) {
    return inspect(options, true);
}

int info(const InspectOptions& options) {
    return inspect(options, false);
}
