#include <stdio.h>

#include <algorithm>

#include "manifest_lines.h"
#include "package/modules.h"

namespace {

constexpr std::string_view BLANKS = " \t";
constexpr size_t CRC_DIGITS = 8;
constexpr size_t FIELDS_MIN = 3;
constexpr size_t FIELDS_MAX = 4;

std::vector<std::string_view> split_fields(std::string_view line) {
    std::vector<std::string_view> fields;
    for (size_t at = line.find_first_not_of(BLANKS); at != std::string_view::npos;) {
        const size_t end = std::min(line.find_first_of(BLANKS, at), line.size());
        fields.push_back(line.substr(at, end - at));
        at = line.find_first_not_of(BLANKS, end);
    }
    return fields;
}

bool is_text(std::string_view line) {
    return std::all_of(line.begin(), line.end(),
                       [](unsigned char c) { return c == '\t' || (c >= 0x20 && c != 0x7f); });
}

std::string parse_line(std::string_view line, ManifestModule& module) {
    const std::vector<std::string_view> fields = split_fields(line);
    if (fields.size() < FIELDS_MIN || fields.size() > FIELDS_MAX) {
        return "expected NAME OFFSET SIZE [CRC32]";
    }
    const OtaPackageEntry* entry = find_module(fields[0]);
    if (entry == nullptr) {
        return "unknown module";
    }
    module.name = entry->partitionName;
    if (!parse_number(fields[1], module.offset, 10)) {
        return "the offset is not a number of bytes";
    }
    if (!parse_number(fields[2], module.size, 10)) {
        return "the size is not a number of bytes";
    }
    if (fields.size() == FIELDS_MAX) {
        uint32_t crc = 0;
        if (fields[3].size() != CRC_DIGITS || !parse_number(fields[3], crc, 16)) {
            return "the checksum is not eight hexadecimal digits";
        }
        module.crc = crc;
    }
    return check_range(module);
}

}  // namespace

std::string take_line_v1(std::string_view line, Manifest& manifest) {
    if (!is_text(line)) {
        return "the line contains control characters";
    }
    if (line.empty() || line.front() == '#') {
        return "";
    }
    ManifestModule module = {};
    const std::string fault = parse_line(line, module);
    return fault.empty() ? add_module(manifest, module) : fault;
}

std::string crc_text(uint32_t crc) {
    char digits[CRC_DIGITS + 1] = {};
    snprintf(digits, sizeof(digits), "%08x", crc);
    return digits;
}

std::string format_manifest_v1(const Manifest& manifest) {
    std::string text = "# module offset size crc32\n";
    for (const ManifestModule& module : manifest.modules) {
        text += module.name;
        text += ' ' + std::to_string(module.offset) + ' ' + std::to_string(module.size);
        if (module.crc) {
            text += ' ' + crc_text(*module.crc);
        }
        text += '\n';
    }
    return text;
}
