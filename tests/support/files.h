// Small helpers for tests: files, standard output, open descriptors, tables of cases.
#ifndef TESTS_SUPPORT_FILES_H
#define TESTS_SUPPORT_FILES_H

#include "base/unique_fd.h"
#include "test.h"

// Returns the content of a file; fails the test and returns "" if it cannot be read.
std::string read_file(const std::string& path);

// Creates or replaces the file, and creates its parent folders.
void write_file(const std::string& path, const std::string& content);

// Returns the sorted names in a folder, each after " "; "" if there are none.
std::string names_in(const std::string& folder);

// Returns `size` pseudo-random bytes; they are the same for the same seed.
std::string pattern_bytes(size_t size, unsigned seed);

// Returns the errno with this name; 0 for an unknown name.
int error_number(const std::string& name);

// Checks every 10 ms, for at most `patienceMs`, until the condition is true; returns whether it is.
bool eventually(int patienceMs, const std::function<bool()>& condition);

// Returns the number of open descriptors of this process.
int open_descriptors();

inline bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// Returns the rest of a row without the spaces at its ends.
std::string rest_of(std::istream& row);

// Splits the text into lines without line feeds.
std::vector<std::string> lines_of(const std::string& text);

// Replaces each match of the pattern (std::regex, ECMAScript; "$1" in `with` is the first group).
// In a function, so that only one file includes <regex>, which takes long to compile.
std::string replaced(const std::string& text, const std::string& pattern, const std::string& with);

// Replaces each occurrence of `from`, which is no pattern.
void replace_all(std::string& text, const std::string& from, const std::string& to);

// Returns whether the whole text matches the pattern.
bool matches(const std::string& text, const std::string& pattern);

// Replaces the source line numbers of reports and log lines by "#", because tests do not check
// them.
std::string without_source_lines(const std::string& text);

// Runs each case of cases/NAME. A line is "INPUT -> OUTCOME", where "\\0" stands for a NUL; `run`
// returns the outcome for an input. Empty lines and lines that begin with "#" are ignored, except
// for "# needs: COMMAND": without success of this shell command the test is skipped. A failure
// names the row's file and line; with CORVO_ACCEPT in the environment the outcomes are rewritten
// instead. If the rows are independent of each other, some of them may be skipped (stride.h).
enum class Rows { BUILD_ON_EACH_OTHER, ARE_INDEPENDENT };
void expect_cases(const std::string& name, const std::function<std::string(std::istream&)>& run,
                  Rows rows = Rows::BUILD_ON_EACH_OTHER);

// Captures standard output from construction to take().
class CapturedOutput {
  public:
    CapturedOutput();
    ~CapturedOutput();
    // Ends the capture and returns the output. May be called once.
    std::string take();

  private:
    corvo::UniqueFd saved_;
    corvo::UniqueFd file_;
};

#endif  // TESTS_SUPPORT_FILES_H
