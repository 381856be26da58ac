// How the companion programs say what is wrong: one line on standard error, and one exit status for
// wrong use.
#ifndef TOOLS_ERROR_LINE_H
#define TOOLS_ERROR_LINE_H

#include <string>

constexpr int EXIT_WRONG_USE = 64;  // EX_USAGE of sysexits.h

// Prints "PROGRAM: MESSAGE" as one line on standard error, whatever the message contains.
void print_error(const char* program, std::string message);

#endif  // TOOLS_ERROR_LINE_H
