// Small helpers that the tests share: whole files, standard output, and what a process holds open.
#ifndef TESTS_SUPPORT_FILES_H
#define TESTS_SUPPORT_FILES_H

#include <functional>
#include <string>
#include <vector>

#include "base/unique_fd.h"

// The whole file; fails the test and returns "" when it cannot be read.
std::string read_file(const std::string& path);

// Creates or replaces the file. Folders above it are made.
void write_file(const std::string& path, const std::string& content);

// What lies in a folder, in order, each name with " " before it; "" when there is none.
std::string names_in(const std::string& folder);

// `size` bytes that look random and are the same for the same seed.
std::string pattern_bytes(size_t size, unsigned seed);

// The errno of that name; 0 when there is none.
int error_number(const std::string& name);

// Asks every 10 ms, for so long at the most, until the condition holds; whether it does.
bool eventually(int patienceMs, const std::function<bool()>& condition);

// Descriptors that this process holds open.
int open_descriptors();

inline bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// The text's lines, without their line feeds.
std::vector<std::string> lines_of(const std::string& text);

// The text with `with` for each match of the pattern (ECMAScript's, as std::regex has it; "$1" in
// `with` is its first group). Here and not where it is used, since the header is the most expensive
// one to compile.
std::string replaced(const std::string& text, const std::string& pattern, const std::string& with);

// Whether the whole text matches the pattern.
bool matches(const std::string& text, const std::string& pattern);

// The text with "#" for the source line numbers of reports and log lines, which tests do not pin.
std::string without_source_lines(const std::string& text);

// Runs each case of cases/NAME: a line reads "INPUT -> OUTCOME", and `run` makes the outcome of the
// input. "\\0" stands for a NUL there. Empty lines, and those
// that begin with "#", are for the reader. A failure names the row's
// file and line; with CORVO_ACCEPT in the environment the outcomes are rewritten instead. Of rows
// that do not build on those before them, some may be left out (stride.h).
enum class Rows { BUILD_ON_EACH_OTHER, ARE_INDEPENDENT };
void expect_cases(const std::string& name, const std::function<std::string(std::istream&)>& run,
                  Rows rows = Rows::BUILD_ON_EACH_OTHER);

// Catches what goes to standard output from construction to take().
class CapturedOutput {
  public:
    CapturedOutput();
    ~CapturedOutput();
    CapturedOutput(const CapturedOutput&) = delete;
    CapturedOutput& operator=(const CapturedOutput&) = delete;
    // Ends the capture (once) and returns what was printed.
    std::string take();

  private:
    corvo::UniqueFd saved_;
    corvo::UniqueFd file_;
};

#endif  // TESTS_SUPPORT_FILES_H
