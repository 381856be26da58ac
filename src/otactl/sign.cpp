#include <stdio.h>
#include <time.h>

#include "cli/error_line.h"
#include "otactl/commands.h"
#include "otactl/log_line.h"
#include "otactl/output_files.h"
#include "package/signed_manifest.h"

namespace {

constexpr size_t SIGNED_FILE_MAX = 1 << 20;  // bytes; enough for lists of checksums

}  // namespace

int sign_file(const std::string& path, const SigningOptions& options) {
    std::string content;
    PackageStatus status = read_small_file(path, SIGNED_FILE_MAX, FileKind::ANY, content);
    if (!status.ok()) {
        print_error(OTACTL, status.text);
        return OTACTL_FAILED;
    }
    std::string signature;
    status = sign(content, options, signature);
    if (!status.ok()) {
        return refuse(status, false);
    }
    OutputFiles files;
    const int written = files.write(path + SIGNATURE_SUFFIX, signature);
    return written == OTACTL_OK ? files.put_in_place("") : written;
}

int verify_file(const std::string& path, TrustOptions options) {
    const int result = read_settings(options);
    if (result != OTACTL_OK) {
        return result;
    }
    if (options.keyring.empty()) {
        print_error(OTACTL,
                    std::string("no keyring: name one with --keyring or in ") + SETTINGS_PATH);
        return OTACTL_WRONG_USE;
    }
    Keyring keyring;
    PackageStatus status = load_keyring(options.keyring, options.revocations, keyring);
    std::string content;
    Signer signer;
    if (status.ok()) {
        status = read_signed_file(path, SIGNED_FILE_MAX, keyring, time(nullptr), content, signer);
    }
    if (!status.ok()) {
        return refuse(status, true);
    }
    printf("%s: signed by %s\n", printable(path).c_str(), printable(signer.subject).c_str());
    return flush_output(OTACTL) ? OTACTL_OK : OTACTL_FAILED;
}
