// Bytes as hexadecimal digits, two digits for each byte. For the companion programs only, because
// std::string needs the C++ run-time library.
#ifndef BASE_HEX_H
#define BASE_HEX_H

#include <stddef.h>

#include <string>
#include <string_view>

namespace corvo {

// Formats a range of bytes, such as a std::string or an array of unsigned char, with lower-case
// letters.
template <typename Bytes>
std::string hex_text(const Bytes& bytes) {
    constexpr char DIGITS[] = "0123456789abcdef";
    std::string text;
    for (const auto value : bytes) {
        const auto byte = static_cast<unsigned char>(value);
        text += DIGITS[byte >> 4U];
        text += DIGITS[byte & 0xFU];
    }
    return text;
}

// Returns the value of a hexadecimal digit of either case, or -1 for any other character.
constexpr int hex_value(char digit) {
    if (digit >= '0' && digit <= '9') {
        return digit - '0';
    }
    if (digit >= 'a' && digit <= 'f') {
        return digit - 'a' + 10;
    }
    return digit >= 'A' && digit <= 'F' ? digit - 'A' + 10 : -1;
}

// Parses digits of either case into all of `bytes`. Returns false, and leaves `bytes` partly
// written, when the text has another length or contains any other character.
template <typename Bytes>
bool parse_hex(std::string_view text, Bytes& bytes) {
    if (text.size() != 2 * bytes.size()) {
        return false;
    }
    for (size_t i = 0; i < bytes.size(); ++i) {
        const int high = hex_value(text[2 * i]);
        const int low = hex_value(text[2 * i + 1]);
        if (high < 0 || low < 0) {
            return false;
        }
        bytes[i] = static_cast<typename Bytes::value_type>(high * 16 + low);
    }
    return true;
}

}  // namespace corvo

#endif  // BASE_HEX_H
