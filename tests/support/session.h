// Commands that are typed at a shell, and what becomes of them.
#ifndef TESTS_SUPPORT_SESSION_H
#define TESTS_SUPPORT_SESSION_H

#include <functional>
#include <string>

#include "files.h"

// A shell command's exit status and the lines that it prints, with " / " before each.
std::string run(const std::string& command);

// Types the rows of cases/NAME behind `before`; `more` stands behind what a row says. Of what the
// parser of arguments says only the hint is ours.
void expect_session(
    const char* name, const std::string& before,
    const std::function<std::string()>& more = [] { return ""; },
    Rows rows = Rows::BUILD_ON_EACH_OTHER);

// The request that was posted to the queue, as text with " / " before it; "" when there is none.
// `flags` as msgrcv(2) has them.
std::string posted_request(int queue, int flags);

#endif  // TESTS_SUPPORT_SESSION_H
