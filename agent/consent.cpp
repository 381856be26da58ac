#include "agent/consent.h"

#include <nlohmann/json.hpp>

#include "agent/stored_file.h"
#include "package/files.h"

namespace {

using Json = nlohmann::json;

constexpr char CONSENT_FILE[] = "consent.json";
constexpr size_t CONSENT_SIZE_MAX = 4096;  // bytes

}  // namespace

AgentStatus store_consent(const std::string& stateFolder, const std::string& id, bool confirmed) {
    return store_file(stateFolder + CONSENT_FILE,
                      Json({{"id", id}, {"confirmed", confirmed}}).dump() + '\n');
}

bool find_consent(const std::string& stateFolder, const std::string& id, bool& confirmed) {
    std::string text;
    if (!read_small_file(stateFolder + CONSENT_FILE, CONSENT_SIZE_MAX, FileKind::REGULAR, text)
             .ok()) {
        return false;
    }
    const Json json = Json::parse(text, nullptr, false);
    if (!json.is_object() || !json.contains("id") || json["id"] != id ||
        !json.contains("confirmed") || !json["confirmed"].is_boolean()) {
        return false;
    }
    confirmed = json["confirmed"].get<bool>();
    return true;
}

AgentStatus remove_consent(const std::string& stateFolder) {
    return remove_stored_file(stateFolder + CONSENT_FILE);
}
