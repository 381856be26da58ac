// JSON of the camera's own files, from text and to text. In one place, as the templates behind it
// take the compiler longer than all else that includes them.
#ifndef AGENT_JSON_TEXT_H
#define AGENT_JSON_TEXT_H

#include <nlohmann/json.hpp>
#include <string>

using Json = nlohmann::json;

// What the text holds; a discarded value, which is of no type, when it is no JSON.
Json json_from(const std::string& text);

// The value over several lines, each level indented by so many spaces. What is no UTF-8 in a string
// is replaced.
std::string text_of_json(const Json& json, int indent);

#endif  // AGENT_JSON_TEXT_H
