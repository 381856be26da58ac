// Fuzzes the verification of signatures, for a manifest that only a revoked signer has signed.
// Every signature must be refused with a message of one line. The seed inputs are that signature,
// and signatures of other texts by a signer that the keyring trusts.
#include <fstream>
#include <iterator>
#include <string>

#include "fuzz_input.h"
#include "package/signature.h"

namespace {

constexpr int64_t NO_CLOCK = 60;
constexpr int64_t LATER = 4000000000;
constexpr const char* MANIFEST = "only a revoked signer has signed this\n";

Keyring g_keyring;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    // Without the revocation lists the revoked signer's signature is valid.
    std::ifstream seed(REVOKED_SIGNATURE);
    const std::string signature{std::istreambuf_iterator<char>(seed), {}};
    Signer signer;
    fuzz_expect(load_keyring(KEYRING, "", g_keyring).ok());
    fuzz_expect(verify_signature(MANIFEST, signature, g_keyring, NO_CLOCK, signer).ok());
    fuzz_expect(load_keyring(KEYRING, REVOCATIONS, g_keyring).ok());
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view signature(reinterpret_cast<const char*>(data), size);
    Signer signer;
    for (const int64_t now : {NO_CLOCK, LATER}) {
        const PackageStatus status = verify_signature(MANIFEST, signature, g_keyring, now, signer);
        fuzz_expect(status.result == PACKAGE_NOT_TRUSTED);
        fuzz_expect(!status.text.empty() && status.text.find('\n') == std::string::npos);
    }
    const bool read = read_signer(signature, signer).ok();
    fuzz_expect(!read || !signer.fingerprint.empty());
    return 0;
}
