#include "cli/error_line.h"

#include <errno.h>
#include <stddef.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>

namespace {

// Returns the size in bytes of the UTF-8 character at `begin`; 0: there is no valid character.
size_t character_size(const std::string& text, size_t begin) {
    const auto lead = static_cast<unsigned char>(text[begin]);
    const size_t size = lead < 0x80   ? 1
                        : lead < 0xc2 ? 0
                        : lead < 0xe0 ? 2
                        : lead < 0xf0 ? 3
                        : lead < 0xf5 ? 4
                                      : 0;
    const std::string rest = text.substr(begin, size);
    const bool whole = rest.size() == size && std::all_of(rest.begin() + 1, rest.end(), [](char c) {
                           return (static_cast<unsigned char>(c) & 0xc0U) == 0x80;
                       });
    return size > 0 && whole ? size : 0;
}

bool is_control(const std::string& text, size_t begin) {
    const auto lead = static_cast<unsigned char>(text[begin]);
    return lead < 0x20 || lead == 0x7f ||
           (lead == 0xc2 && static_cast<unsigned char>(text[begin + 1]) < 0xa0);
}

}  // namespace

std::string printable(const std::string& text) {
    std::string line;
    for (size_t begin = 0; begin < text.size();) {
        const size_t size = character_size(text, begin);
        line += size == 0 ? "?" : is_control(text, begin) ? " " : text.substr(begin, size);
        begin += std::max<size_t>(size, 1);
    }
    return line;
}

void print_error(const char* program, const std::string& message) {
    std::string line = printable(message);
    line.erase(line.find_last_not_of(' ') + 1);
    fprintf(stderr, "%s: %s\n", program, line.c_str());
}

bool flush_output(const char* program) {
    const std::string reason = fflush(stdout) != 0 ? std::string(": ") + strerror(errno) : "";
    // Part of the output may have been lost earlier, when a full buffer was written.
    if (reason.empty() && ferror(stdout) == 0) {
        return true;
    }
    print_error(program, "cannot write to standard output" + reason);
    return false;
}
