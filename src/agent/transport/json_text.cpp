#include "agent/json_text.h"

Json json_from(const std::string& text) {
    return Json::parse(text, nullptr, false);
}

std::string text_of_json(const Json& json, int indent) {
    return json.dump(indent, ' ', false, Json::error_handler_t::replace);
}
