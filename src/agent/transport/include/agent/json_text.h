// Parses and prints JSON. The library's parser and printer are instantiated in json_text.cpp only,
// because compiling these templates is slow.
#ifndef AGENT_JSON_TEXT_H
#define AGENT_JSON_TEXT_H

#include <nlohmann/json.hpp>
#include <string>

using Json = nlohmann::json;

// Parses the content of a local file, whose size the caller has limited. Returns a discarded value
// (is_discarded()) when the text is not JSON. Answers of the server are checked further in ddi.cpp.
Json json_from(const std::string& text);

// Prints the value over several lines, with `indent` spaces for each level, or in one line. Invalid
// UTF-8 in strings is replaced.
constexpr int ONE_LINE = -1;
std::string text_of_json(const Json& json, int indent = ONE_LINE);

#endif  // AGENT_JSON_TEXT_H
