// A manifest of any bytes: refused with a line that says why, or understood and written the same
// again.
#include "fuzz_input.h"
#include "manifest.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Manifest manifest;
    std::string error;
    if (!parse_manifest({reinterpret_cast<const char*>(data), size}, manifest, error)) {
        fuzz_expect(!error.empty() && error.find('\n') == std::string::npos);
        return 0;
    }
    fuzz_expect(!manifest.empty() && manifest.size() <= OTA_MSG_MAX_MODULES);
    Manifest again;
    const std::string text = format_manifest(manifest);
    fuzz_expect(parse_manifest(text, again, error) && format_manifest(again) == text);
    return 0;
}
