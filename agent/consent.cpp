#include "agent/consent.h"

#include "agent/json_text.h"
#include "agent/stored_file.h"
#include "package/files.h"

namespace {

constexpr char CONSENT_FILE[] = "consent.json";
constexpr size_t CONSENT_SIZE_MAX = 4096;  // bytes

}  // namespace

AgentStatus store_consent(const std::string& stateFolder, const std::string& id, bool confirmed) {
    return store_file(stateFolder + CONSENT_FILE,
                      text_of_json({{"id", id}, {"confirmed", confirmed}}) + '\n');
}

bool find_consent(const std::string& stateFolder, const std::string& id, bool& confirmed) {
    std::string text;
    if (!read_small_file(stateFolder + CONSENT_FILE, CONSENT_SIZE_MAX, FileKind::REGULAR, text)
             .ok()) {
        return false;
    }
    const Json json = json_from(text);
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
