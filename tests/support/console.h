// Compares the output of the service with the expected output, which is in texts in expected/.
#ifndef TESTS_SUPPORT_CONSOLE_H
#define TESTS_SUPPORT_CONSOLE_H

#include "test.h"

// Placeholders in the texts for values that differ between runs and package tables: words, such as
// "pid=PID" for "pid=42", and lines: "@deleted" stands for the list of lines with the name
// "deleted". Any other "@other" stands for the lines of expected/other.txt, "\e" for an escape,
// "\0" for a NUL.
struct ConsoleValues {
    std::vector<std::pair<std::string, std::string>> words = {{"\\e", "\033"},
                                                              {"\\0", std::string(1, '\0')}};
    std::map<std::string, std::vector<std::string>> lines;
};

// Returns the lines of expected/NAME.txt with the values inserted.
std::vector<std::string> console_lines(const std::string& name, const ConsoleValues& values);

// Fails the test if a line differs from the output. With CORVO_ACCEPT in the
// environment the texts are rewritten instead.
void expect_console(const std::string& name, const ConsoleValues& values,
                    const std::vector<std::string>& printed);

#endif  // TESTS_SUPPORT_CONSOLE_H
