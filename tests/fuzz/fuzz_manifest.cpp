// Fuzzes the manifest parser. It must either refuse the text with a message of one line, or return
// a manifest that format_manifest() writes so that it parses to the same record. For version 2 the
// written text must equal the input.
#include "fuzz_input.h"
#include "ota/ota_message.h"
#include "package/content.h"
#include "package/manifest.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view input(reinterpret_cast<const char*>(data), size);
    Manifest manifest;
    const PackageStatus status = parse_manifest(input, manifest);
    if (!status.ok()) {
        fuzz_expect(!status.text.empty() && status.text.find('\n') == std::string::npos);
        return 0;
    }
    fuzz_expect(!manifest.modules.empty() && manifest.modules.size() <= OTA_MSG_MAX_MODULES);
    Manifest again;
    const std::string text = format_manifest(manifest);
    fuzz_expect(manifest.format == 1 || text == input);
    fuzz_expect(parse_manifest(text, again).ok() && format_manifest(again) == text);

    // The content check requires modules that are ordered, do not overlap, and are within the file.
    for (const PackageFile& file : package_files(manifest)) {
        uint64_t end = 0;
        for (const ManifestModule& module : file.modules) {
            fuzz_expect(module.offset >= end && module.size > 0);
            end = module.offset + module.size;
        }
        fuzz_expect(end == file.size && end <= INT32_MAX);
    }
    return 0;
}
