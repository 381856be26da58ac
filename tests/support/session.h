// Runs shell commands and returns their results.
#ifndef TESTS_SUPPORT_SESSION_H
#define TESTS_SUPPORT_SESSION_H

#include <functional>
#include <string>

#include "files.h"

// Runs a shell command; returns its exit status and its lines of output, each after " / ".
std::string run(const std::string& command);

// Runs each row of cases/NAME as a command after `before`; `more` is appended to the row's result.
// Of the error messages of the argument parser, only our hint is compared.
void expect_session(
    const char* name, const std::string& before,
    const std::function<std::string()>& more = [] { return ""; },
    Rows rows = Rows::BUILD_ON_EACH_OTHER);

// Receives a request from the queue and returns it as text after " / "; "" if there is none.
// `flags` are those of msgrcv(2).
std::string posted_request(int queue, int flags);

#endif  // TESTS_SUPPORT_SESSION_H
