// Versions of packages and systems: one to eight decimal numbers with dots between them ("2.7.1"),
// each below 2^32 and without leading zeros. They are compared number by number from the left, and
// a missing number counts as 0: 2.7 equals 2.7.0, and 2.10 is higher than 2.9.
#ifndef PACKAGE_VERSION_H
#define PACKAGE_VERSION_H

#include <compare>
#include <string_view>

bool is_version(std::string_view text);

// Compares two versions; is_version() must be true for both.
std::strong_ordering compare_versions(std::string_view left, std::string_view right);

#endif  // PACKAGE_VERSION_H
