// Procedures that the parsers of both manifest versions share.
#ifndef PACKAGE_MANIFEST_LINES_H
#define PACKAGE_MANIFEST_LINES_H

#include <stdint.h>

#include <charconv>
#include <string>
#include <string_view>

#include "package/manifest.h"

// Parses a field that consists of a number only: no sign, no spaces, nothing after it.
template <typename T>
bool parse_number(std::string_view field, T& value, int base) {
    const char* const end = field.data() + field.size();
    const auto [stop, fault] = std::from_chars(field.data(), end, value, base);
    return fault == std::errc() && stop == end;
}

// Each of the next three returns the error as text, or "" on success.

// Checks that the module is not empty and ends below 2 GiB.
std::string check_range(const ManifestModule& module);
// Adds a module whose fields are valid. Fails if it conflicts with a module that was added before,
// or if the manifest has too many modules.
std::string add_module(Manifest& manifest, const ManifestModule& module);
// Parses one line of version 1, without its line feed, and adds its module.
std::string take_line_v1(std::string_view line, Manifest& manifest);

// Returns a checksum as eight hexadecimal digits.
std::string crc_text(uint32_t crc);

std::string format_manifest_v1(const Manifest& manifest);

#endif  // PACKAGE_MANIFEST_LINES_H
