// What a run of the service must print, as texts in expected/.
#ifndef TESTS_SUPPORT_CONSOLE_H
#define TESTS_SUPPORT_CONSOLE_H

#include <map>
#include <string>
#include <vector>

// What stands in the texts for what differs between runs and package tables: a word for a word, as
// "pid=PID" for "pid=42", and for a line of its own, as "@deleted", the lines that it stands for.
// "@other" else stands for the lines of expected/other.txt, "\e" for an escape, "\0" for a NUL.
struct ConsoleValues {
    std::vector<std::pair<std::string, std::string>> words;
    std::map<std::string, std::vector<std::string>> lines;
};

// The lines of expected/NAME.txt, with the values in their places.
std::vector<std::string> console_lines(const std::string& name, const ConsoleValues& values);

// Fails at the first line of the texts that was not printed. With CORVO_ACCEPT in the environment
// the texts are rewritten instead.
void expect_console(const std::string& name, const ConsoleValues& values,
                    const std::vector<std::string>& printed);

#endif  // TESTS_SUPPORT_CONSOLE_H
