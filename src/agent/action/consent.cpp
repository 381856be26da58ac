#include "agent/consent.h"

#include "agent/json_text.h"
#include "agent/stored_file.h"

namespace {

constexpr char CONSENT_FILE[] = "consent.json";
constexpr size_t CONSENT_SIZE_MAX = 4096;  // bytes

}  // namespace

AgentStatus store_consent(const std::string& stateFolder, const std::string& id,
                          const std::string& offer, bool confirmed) {
    return store_file(
        stateFolder + CONSENT_FILE,
        text_of_json({{"id", id}, {"offer", offer}, {"confirmed", confirmed}}) + '\n');
}

AgentStatus find_consent(const std::string& stateFolder, const std::string& id,
                         const std::string& offer, bool& confirmed) {
    const std::string path = stateFolder + CONSENT_FILE;
    std::string text;
    AgentStatus status = load_file(path, CONSENT_SIZE_MAX, text);
    if (!status.ok()) {
        return status;
    }
    const Json json = json_from(text);
    if (!json.is_object() || !json.contains("id") || !json.contains("confirmed") ||
        !json["confirmed"].is_boolean()) {
        return agent_fault(AGENT_MALFORMED, path + " is not what this agent writes");
    }
    if (json["id"] != id || json.value("offer", Json()) != offer) {
        return agent_fault(AGENT_GONE, path + " is the answer for another action");
    }
    confirmed = json["confirmed"].get<bool>();
    return {};
}

AgentStatus put_consent_aside(const std::string& stateFolder) {
    return put_aside(stateFolder + CONSENT_FILE);
}

AgentStatus remove_consent(const std::string& stateFolder) {
    return remove_stored_file(stateFolder + CONSENT_FILE);
}
