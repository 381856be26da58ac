#include "agent/action.h"

#include <algorithm>
#include <array>

#include "agent/json_text.h"
#include "agent/settings.h"
#include "agent/stored_file.h"
#include "base/hex.h"
#include "cli/error_line.h"

namespace {

constexpr char ACTION_FILE[] = "action.json";
constexpr char HISTORY_FILE[] = "history.json";
constexpr char CONSENT_FILE[] = "consent.json";
constexpr size_t STATE_SIZE_MAX = 1048576;  // bytes
constexpr size_t CONSENT_SIZE_MAX = 4096;   // bytes
constexpr size_t HISTORY_ENTRIES = 20;

// Stored in records, so that earlier and later agents must use the same names.
constexpr std::array<const char*, 6> STAGE_NAMES = {"none",      "downloading", "waiting",
                                                    "committed", "posted",      "verdict"};

// Reads a member. If it is missing or has another type, `value` is not changed.
template <typename T>
void take(const Json& json, const char* name, T& value) {
    const auto field = json.find(name);
    if (field == json.end()) {
        return;
    }
    if constexpr (std::is_same_v<T, std::string>) {
        if (field->is_string()) {
            value = field->get<std::string>();
        }
    } else if constexpr (std::is_same_v<T, bool>) {
        if (field->is_boolean()) {
            value = field->get<bool>();
        }
    } else {
        if (field->is_number_integer()) {
            value = field->get<T>();
        }
    }
}

// JSON cannot store arbitrary bytes, so the outcome record is stored as hexadecimal digits.
std::string record_of(const Json& json) {
    std::string digits;
    take(json, "recordBefore", digits);
    std::string record(digits.size() / 2, '\0');
    return corvo::parse_hex(digits, record) ? record : "";
}

bool find_stage(const std::string& word, ActionStage& stage) {
    for (size_t i = 0; i < STAGE_NAMES.size(); ++i) {
        if (word == STAGE_NAMES[i]) {
            stage = static_cast<ActionStage>(i);
            return true;
        }
    }
    return false;
}

char slot_of(const Json& json) {
    std::string slot;
    take(json, "slotBefore", slot);
    return slot.size() == 1 ? slot[0] : '?';
}

std::string action_text(const ActionRecord& action) {
    Json files = Json::array();
    for (const OfferedFile& file : action.files) {
        files.push_back({{"name", file.name}, {"size", file.size}, {"sha256", file.sha256}});
    }
    const Json json = {{"stage", stage_name(action.stage)},
                       {"id", action.id},
                       {"files", files},
                       {"manifestFile", action.manifestFile},
                       {"downloadOnly", action.downloadOnly},
                       {"module", action.module},
                       {"statuses", action.statuses},
                       {"malformedOffers", action.malformedOffers},
                       {"refusedCancellation", action.refusedCancellation},
                       {"manifest", action.manifest},
                       {"attempts", action.attempts},
                       {"slotBefore", std::string(1, action.slotBefore)},
                       {"recordBefore", corvo::hex_text(action.recordBefore)},
                       {"bootId", action.bootId},
                       {"processId", action.processId},
                       {"trialBefore", action.trialBefore},
                       {"succeeded", action.succeeded},
                       {"words", action.message},
                       {"refusedResults", action.refusedResults}};
    return text_of_json(json, 1) + '\n';
}

bool parse_action_text(const std::string& text, ActionRecord& action) {
    const Json json = json_from(text);
    std::string stage;
    if (!json.is_object()) {
        return false;
    }
    take(json, "stage", stage);
    take(json, "id", action.id);
    if (const auto files = json.find("files"); files != json.end() && files->is_array()) {
        for (const Json& file : *files) {
            OfferedFile offered;
            if (file.is_string()) {
                offered.name = file.get<std::string>();
            } else if (file.is_object()) {
                take(file, "name", offered.name);
                take(file, "size", offered.size);
                take(file, "sha256", offered.sha256);
            }
            if (!offered.name.empty()) {
                action.files.push_back(std::move(offered));
            }
        }
    }
    take(json, "manifestFile", action.manifestFile);
    take(json, "downloadOnly", action.downloadOnly);
    take(json, "module", action.module);
    take(json, "statuses", action.statuses);
    take(json, "malformedOffers", action.malformedOffers);
    take(json, "refusedCancellation", action.refusedCancellation);
    take(json, "manifest", action.manifest);
    take(json, "attempts", action.attempts);
    action.slotBefore = slot_of(json);
    action.recordBefore = record_of(json);
    take(json, "bootId", action.bootId);
    take(json, "processId", action.processId);
    take(json, "trialBefore", action.trialBefore);
    take(json, "succeeded", action.succeeded);
    take(json, "words", action.message);
    take(json, "refusedResults", action.refusedResults);
    return find_stage(stage, action.stage) && !action.id.empty();
}

AgentStatus store_history(const std::string& stateFolder,
                          const std::vector<HistoryEntry>& history) {
    Json json = Json::array();
    const size_t skipped = history.size() > HISTORY_ENTRIES ? history.size() - HISTORY_ENTRIES : 0;
    for (size_t i = skipped; i < history.size(); ++i) {
        const HistoryEntry& line = history[i];
        json.push_back({{"id", line.id},
                        {"manifestDigest", line.manifestDigest},
                        {"version", line.version},
                        {"succeeded", line.succeeded},
                        {"told", line.reported},
                        {"words", line.message},
                        {"manifest", line.manifest},
                        {"slotBefore", std::string(1, line.slotBefore)},
                        {"module", line.module},
                        {"installed", line.installed},
                        {"time", line.time}});
    }
    return store_file(stateFolder + HISTORY_FILE, text_of_json(json, 1) + '\n');
}

}  // namespace

const char* stage_name(ActionStage stage) {
    return STAGE_NAMES[static_cast<size_t>(stage)];
}

std::string manifest_digest(const ActionRecord& action) {
    const auto file = std::ranges::find(action.files, action.manifestFile, &OfferedFile::name);
    return file == action.files.end() ? "" : file->sha256;
}

AgentStatus load_action(const std::string& stateFolder, ActionRecord& action) {
    action = {};
    const std::string path = stateFolder + ACTION_FILE;
    std::string text;
    AgentStatus status = load_file(path, STATE_SIZE_MAX, text);
    if (!status.ok()) {
        return status.result == AGENT_GONE ? AgentStatus{} : status;
    }
    if (!parse_action_text(text, action)) {
        action = {};
        return agent_fault(AGENT_MALFORMED, path + " is not what this agent writes");
    }
    return {};
}

AgentStatus put_action_aside(const std::string& stateFolder) {
    return put_aside(stateFolder + ACTION_FILE);
}

AgentStatus store_action(const std::string& stateFolder, const ActionRecord& action) {
    return store_file(stateFolder + ACTION_FILE, action_text(action));
}

AgentStatus remove_action(const std::string& stateFolder) {
    return remove_stored_file(stateFolder + ACTION_FILE);
}

AgentStatus load_history(const std::string& stateFolder, std::vector<HistoryEntry>& history) {
    history.clear();
    const std::string path = stateFolder + HISTORY_FILE;
    std::string text;
    AgentStatus status = load_file(path, STATE_SIZE_MAX, text);
    if (!status.ok()) {
        return status.result == AGENT_GONE ? AgentStatus{} : status;
    }
    const Json json = json_from(text);
    if (!json.is_array()) {
        return agent_fault(AGENT_MALFORMED, path + " is not what this agent writes");
    }
    for (const Json& line : json) {
        HistoryEntry entry;
        if (line.is_object()) {
            take(line, "id", entry.id);
            take(line, "manifestDigest", entry.manifestDigest);
            take(line, "version", entry.version);
            take(line, "succeeded", entry.succeeded);
            take(line, "told", entry.reported);
            take(line, "words", entry.message);
            take(line, "manifest", entry.manifest);
            entry.slotBefore = slot_of(line);
            take(line, "module", entry.module);
            take(line, "installed", entry.installed);
            take(line, "time", entry.time);
            history.push_back(std::move(entry));
        }
    }
    return {};
}

AgentStatus add_history(const std::string& stateFolder, const HistoryEntry& entry) {
    std::vector<HistoryEntry> history;
    AgentStatus status = load_history(stateFolder, history);
    if (status.result == AGENT_MALFORMED) {
        print_error(AGENT, status.text + "; renamed to *.bad");
        status = put_aside(stateFolder + HISTORY_FILE);
    }
    if (!status.ok()) {
        return status;
    }
    // Replaces an entry of the same action. It exists if the power was cut before the record was
    // removed.
    std::erase_if(history, [&](const HistoryEntry& old) {
        return old.id == entry.id && old.manifestDigest == entry.manifestDigest;
    });
    history.push_back(entry);
    return store_history(stateFolder, history);
}

const HistoryEntry* last_success(const std::vector<HistoryEntry>& history) {
    const auto found = std::find_if(history.rbegin(), history.rend(),
                                    [](const HistoryEntry& entry) { return entry.succeeded; });
    return found == history.rend() ? nullptr : &*found;
}

AgentStatus store_installed(const std::string& stateFolder, const std::string& version) {
    std::vector<HistoryEntry> history;
    AgentStatus status = load_history(stateFolder, history);
    const HistoryEntry* const last = last_success(history);
    if (last == nullptr) {
        return status;
    }
    history[static_cast<size_t>(last - history.data())].installed = version;
    return store_history(stateFolder, history);
}

bool find_in_history(const std::string& stateFolder, const std::string& id,
                     const std::string& manifestDigest, HistoryEntry& entry) {
    std::vector<HistoryEntry> history;
    (void)load_history(stateFolder, history);  // an unreadable history counts as empty
    for (HistoryEntry& line : history) {
        if (line.id == id && line.manifestDigest == manifestDigest && !manifestDigest.empty()) {
            entry = std::move(line);
            return true;
        }
    }
    return false;
}

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
