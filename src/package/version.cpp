#include "package/version.h"

#include <stddef.h>
#include <stdint.h>

#include <algorithm>
#include <array>
#include <charconv>

namespace {

constexpr size_t NUMBERS_MAX = 8;

bool read_numbers(std::string_view text, std::array<uint32_t, NUMBERS_MAX>& numbers) {
    numbers.fill(0);
    for (uint32_t& number : numbers) {
        const size_t size = std::min(text.find('.'), text.size());
        const char* const end = text.data() + size;
        const auto [stop, fault] = std::from_chars(text.data(), end, number);
        if (fault != std::errc() || stop != end || (size > 1 && text.front() == '0')) {
            return false;
        }
        if (size == text.size()) {
            return true;
        }
        text.remove_prefix(size + 1);
    }
    return false;
}

}  // namespace

bool is_version(std::string_view text) {
    std::array<uint32_t, NUMBERS_MAX> numbers = {};
    return read_numbers(text, numbers);
}

std::strong_ordering compare_versions(std::string_view left, std::string_view right) {
    std::array<uint32_t, NUMBERS_MAX> leftNumbers = {};
    std::array<uint32_t, NUMBERS_MAX> rightNumbers = {};
    read_numbers(left, leftNumbers);
    read_numbers(right, rightNumbers);
    return leftNumbers <=> rightNumbers;
}
