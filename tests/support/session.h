// Runs shell commands and returns their results.
#ifndef TESTS_SUPPORT_SESSION_H
#define TESTS_SUPPORT_SESSION_H

#include "files.h"

// Runs a shell command; returns its exit status and its lines of output, each after " / ".
std::string run(const std::string& command);

// Runs each row of cases/NAME as a command after `before`; a request that it posted to the queue is
// appended to the row's result. Of the error messages of the argument parser, only our hint is
// compared.
void expect_session(const char* name, const std::string& before,
                    Rows rows = Rows::BUILD_ON_EACH_OTHER, int queue = -1);

// Does the steps of a row, which have " | " between them; returns what they print, with " / "
// between, or "done". A step whose first word is in `known` calls that with its second word and the
// rest; others are commands.
using Text = const std::string&;
using Step = std::function<std::string(Text first, Text rest)>;
std::string do_steps(const std::string& steps, const std::map<std::string, Step>& known);

// The request that was posted to the queue, as text with " / " before it; "" when there is none.
std::string posted_request(int queue);

#endif  // TESTS_SUPPORT_SESSION_H
