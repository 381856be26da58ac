#include "error_line.h"

#include <stdio.h>

#include <algorithm>

void print_error(const char* program, std::string message) {
    std::replace_if(
        message.begin(), message.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; }, ' ');
    message.erase(message.find_last_not_of(' ') + 1);
    fprintf(stderr, "%s: %s\n", program, message.c_str());
}
