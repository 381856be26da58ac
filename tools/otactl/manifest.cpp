#include "otactl/manifest.h"

#include <stdio.h>

#include <algorithm>
#include <charconv>

#include "otactl/modules.h"

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

// The whole field must be a number: no sign, no blank, nothing behind it.
template <typename T>
bool parse_number(std::string_view field, T& value, int base) {
    const char* const end = field.data() + field.size();
    const auto [stop, fault] = std::from_chars(field.data(), end, value, base);
    return fault == std::errc() && stop == end;
}

bool is_printable(std::string_view line) {
    return std::all_of(line.begin(), line.end(),
                       [](unsigned char c) { return c == '\t' || (c >= 0x20 && c != 0x7f); });
}

// What is wrong with the line, or nullptr.
const char* parse_line(std::string_view line, ManifestModule& module) {
    const std::vector<std::string_view> fields = split_fields(line);
    if (fields.size() < FIELDS_MIN || fields.size() > FIELDS_MAX) {
        return "expected NAME OFFSET SIZE [CRC32]";
    }
    module = {};
    module.entry = find_module(fields[0]);
    if (module.entry == nullptr) {
        return "unknown module";
    }
    if (!parse_number(fields[1], module.offset, 10)) {
        return "the offset is not a number of bytes";
    }
    if (!parse_number(fields[2], module.size, 10)) {
        return "the size is not a number of bytes";
    }
    if (module.size == 0) {
        return "the module is empty";
    }
    if (module.size > IMAGE_SIZE_MAX || module.offset > IMAGE_SIZE_MAX - module.size) {
        return "the module ends beyond 2 GiB";
    }
    if (fields.size() == FIELDS_MAX) {
        uint32_t crc = 0;
        if (fields[3].size() != CRC_DIGITS || !parse_number(fields[3], crc, 16)) {
            return "the checksum is not eight hexadecimal digits";
        }
        module.crc = crc;
    }
    return nullptr;
}

const char* take_line(std::string_view line, Manifest& manifest) {
    if (line.size() > MANIFEST_LINE_SIZE_MAX) {
        return "the line is too long";
    }
    if (!is_printable(line)) {
        return "the line holds bytes that are no text";
    }
    if (line.empty() || line.front() == '#') {
        return nullptr;
    }
    ManifestModule module = {};
    if (const char* fault = parse_line(line, module)) {
        return fault;
    }
    for (const ManifestModule& other : manifest) {
        if (other.entry == module.entry) {
            return "the module is named twice";
        }
    }
    if (manifest.size() == static_cast<size_t>(OTA_MSG_MAX_MODULES)) {
        return "more modules than a request can hold";
    }
    manifest.push_back(module);
    return nullptr;
}

}  // namespace

bool parse_manifest(std::string_view text, Manifest& manifest, std::string& error) {
    manifest.clear();
    if (text.size() > MANIFEST_SIZE_MAX) {
        error = "longer than " + std::to_string(MANIFEST_SIZE_MAX) + " bytes";
        return false;
    }
    size_t number = 0;
    while (!text.empty()) {
        ++number;
        const size_t end = std::min(text.find('\n'), text.size());
        if (const char* fault = take_line(text.substr(0, end), manifest)) {
            error = "line " + std::to_string(number) + ": " + fault;
            return false;
        }
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    if (manifest.empty()) {
        error = "no module in it";
        return false;
    }
    return true;
}

std::string format_manifest(const Manifest& manifest) {
    std::string text = "# module offset size crc32\n";
    for (const ManifestModule& module : manifest) {
        text += module.entry->partitionName;
        text += ' ' + std::to_string(module.offset) + ' ' + std::to_string(module.size);
        if (module.crc) {
            char digits[CRC_DIGITS + 1] = {};
            snprintf(digits, sizeof(digits), "%08x", *module.crc);
            text += ' ';
            text += digits;
        }
        text += '\n';
    }
    return text;
}
