#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include <array>

#include "base/owned.h"
#include "cli/error_line.h"
#include "otactl/commands.h"
#include "otactl/log_line.h"
#include "otactl/output_files.h"
#include "package/signed_manifest.h"

namespace {

constexpr size_t SIGNED_FILE_MAX = 1 << 20;  // bytes; enough for lists of checksums

int failed(const std::string& what, const std::string& path, const char* reason) {
    print_error(OTACTL, what + " " + path + ": " + reason);
    return OTACTL_FAILED;
}

int read_content(const std::string& path, std::string& content) {
    const corvo::OwnedFile file(fopen(path.c_str(), "rbe"));
    if (!file) {
        return failed("cannot read", path, strerror(errno));
    }
    std::array<char, 65536> buffer;
    for (size_t n = 0; (n = fread(buffer.data(), 1, buffer.size(), file.get())) > 0;) {
        content.append(buffer.data(), n);
        if (content.size() > SIGNED_FILE_MAX) {
            return failed("cannot sign", path, "longer than 1 MiB");
        }
    }
    return ferror(file.get()) == 0 ? static_cast<int>(OTACTL_OK)
                                   : failed("cannot read", path, strerror(errno));
}

}  // namespace

int sign_file(const std::string& path, const SigningOptions& options) {
    std::string content;
    const int result = read_content(path, content);
    if (result != OTACTL_OK) {
        return result;
    }
    std::string signature;
    const PackageStatus status = sign(content, options, signature);
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
