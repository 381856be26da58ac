// What both versions of the manifest share: lines, fields, numbers, and what no two modules may
// have in common.
#ifndef PACKAGE_MANIFEST_LINES_H
#define PACKAGE_MANIFEST_LINES_H

#include <charconv>
#include <string>
#include <string_view>

#include "package/manifest.h"

// The whole field must be a number: no sign, no blank, nothing behind it.
template <typename T>
bool parse_number(std::string_view field, T& value, int base) {
    const char* const end = field.data() + field.size();
    const auto [stop, fault] = std::from_chars(field.data(), end, value, base);
    return fault == std::errc() && stop == end;
}

// Each of these returns what is wrong, or "".
std::string check_range(const ManifestModule& module);
// Adds a module whose fields are as they must be, each for itself.
std::string add_module(Manifest& manifest, const ManifestModule& module);
// Takes one line of version 1, without its line feed.
std::string take_line_v1(std::string_view line, Manifest& manifest);

std::string format_manifest_v1(const Manifest& manifest);

#endif  // PACKAGE_MANIFEST_LINES_H
