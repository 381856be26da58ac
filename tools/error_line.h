// How the companion programs say what is wrong: one line on standard error, and one exit status for
// wrong use.
#ifndef TOOLS_ERROR_LINE_H
#define TOOLS_ERROR_LINE_H

#include <string>

constexpr int EXIT_WRONG_USE = 64;  // EX_USAGE of sysexits.h

// The text as one line for a terminal: control characters, those of Unicode's second half too,
// become spaces, and bytes that are no UTF-8 question marks.
std::string printable(const std::string& text);

// Prints "PROGRAM: MESSAGE" as one line on standard error, whatever the message contains.
void print_error(const char* program, const std::string& message);

#endif  // TOOLS_ERROR_LINE_H
