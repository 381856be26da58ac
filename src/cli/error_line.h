// Error messages of the companion programs: one line on standard error, and one exit status for
// wrong arguments.
#ifndef CLI_ERROR_LINE_H
#define CLI_ERROR_LINE_H

#include <string>

constexpr int EXIT_WRONG_USE = 64;  // EX_USAGE of sysexits.h

// Makes a text safe to print as one line on a terminal: control characters, including U+0080 to
// U+009F, become spaces, and bytes that are not valid UTF-8 become question marks.
std::string printable(const std::string& text);

// Prints "PROGRAM: MESSAGE" on standard error, always as one line: the message is passed through
// printable().
void print_error(const char* program, const std::string& message);

// Flushes standard output. Returns whether everything that was printed could be written, for
// example not if the disk is full; otherwise prints an error.
bool flush_output(const char* program);

#endif  // CLI_ERROR_LINE_H
