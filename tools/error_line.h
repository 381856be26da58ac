// How the companion programs say what is wrong: one line on standard error, and one exit status for
// wrong use.
#ifndef TOOLS_ERROR_LINE_H
#define TOOLS_ERROR_LINE_H

#include <stdio.h>

#include <algorithm>
#include <string>

constexpr int EXIT_WRONG_USE = 64;  // EX_USAGE of sysexits.h

// Prints "PROGRAM: MESSAGE" as one line on standard error, whatever the message contains.
inline void print_error(const char* program, std::string message) {
    std::replace_if(
        message.begin(), message.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; }, ' ');
    message.erase(message.find_last_not_of(' ') + 1);
    fprintf(stderr, "%s: %s\n", program, message.c_str());
}

#endif  // TOOLS_ERROR_LINE_H
