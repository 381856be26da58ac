// JSON from text and to text, in one place: the templates behind it take the compiler longer than
// all that includes them.
#ifndef AGENT_JSON_TEXT_H
#define AGENT_JSON_TEXT_H

#include <nlohmann/json.hpp>
#include <string>

using Json = nlohmann::json;

// What a file of the camera's own holds, whose size its reader has bounded; a discarded value,
// which is of no type, when it is no JSON. Answers of the server have more bounds (ddi.cpp).
Json json_from(const std::string& text);

// The value over several lines, each level indented by so many spaces, or in one line. What is no
// UTF-8 in a string is replaced.
constexpr int ONE_LINE = -1;
std::string text_of_json(const Json& json, int indent = ONE_LINE);

#endif  // AGENT_JSON_TEXT_H
