#include "agent/status.h"

#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <sstream>

#include "agent/action.h"
#include "agent/attributes.h"
#include "agent/check_settings.h"
#include "agent/json_text.h"
#include "agent/publish.h"
#include "cli/error_line.h"
#include "package/files.h"
#include "package/signature.h"

namespace {

constexpr size_t RUN_FILE_SIZE_MAX = 65536;  // bytes

std::string text_of(const Json& json, const char* name) {
    const bool exists = json.is_object() && json.contains(name) && json[name].is_string();
    return exists ? json[name].get<std::string>() : "";
}

int64_t number_of(const Json& json, const char* name) {
    const bool exists = json.is_object() && json.contains(name) && json[name].is_number_integer();
    return exists ? json[name].get<int64_t>() : 0;
}

// Reads the status that an agent has published; an empty object when it cannot be read.
Json load_published_status() {
    std::string text;
    if (!read_small_file(RUN_FILE, RUN_FILE_SIZE_MAX, FileKind::NOT_A_LINK, text).ok()) {
        return Json::object();
    }
    Json json = json_from(text);
    return json.is_object() ? json : Json::object();
}

Json action_json(const ActionRecord& action) {
    if (action.stage == ACTION_NONE || action.downloadOnly) {
        return nullptr;
    }
    return {{"id", action.id},
            {"stage", stage_name(action.stage)},
            {"attempts", action.attempts},
            {"words", action.message}};
}

// What the agent has published about the download of this action.
Json download_json(const ActionRecord& action, const Json& published) {
    if (action.stage != ACTION_DOWNLOADING || text_of(published, "id") != action.id) {
        return nullptr;
    }
    return {{"done", number_of(published, "done")}, {"of", number_of(published, "of")}};
}

std::string bytes_text(const Json& download) {
    return download.is_null() ? ""
                              : ", " + std::to_string(number_of(download, "done")) + " of " +
                                    std::to_string(number_of(download, "of")) + " bytes";
}

Json history_json(const std::vector<HistoryEntry>& history) {
    if (history.empty()) {
        return nullptr;
    }
    const HistoryEntry& last = history.back();
    return {{"id", last.id},         {"version", last.version}, {"succeeded", last.succeeded},
            {"told", last.reported}, {"words", last.message},   {"time", last.time}};
}

// Replaces control characters, because a record may contain any text and a terminal interprets
// them.
void print_line(const std::string& name, const std::string& text) {
    printf("%-10s %s\n", printable(name).c_str(), printable(text).c_str());
}

void print_json(const Json& status) {
    std::istringstream lines(text_of_json(status, 2));
    for (std::string line; std::getline(lines, line);) {
        printf("%s\n", printable(line).c_str());
    }
}

void print_text(const AgentSettings& settings, const Json& status) {
    const ServerSettings& server = settings.server;
    print_line("server",
               (server.url.empty() ? "not set" : server.url) + ", as " + server.controllerId);
    for (const auto& [name, value] : status["running"].items()) {
        print_line(name, value.get<std::string>());
    }
    const Json& action = status["action"];
    print_line("pending",
               action.is_null()
                   ? "nothing"
                   : "action " + text_of(action, "id") + ", " + text_of(action, "stage") +
                         bytes_text(status["download"]) +
                         (number_of(action, "attempts") > 1 ? ", not the first request" : ""));
    const std::string downloaded = text_of(status, "downloaded");
    if (!downloaded.empty()) {
        print_line("downloaded", "action " + downloaded + ", kept for a later installation");
    }
    const std::string card = text_of(status, "card");
    if (!card.empty()) {
        print_line("card", card);
    }
    const std::string waits = text_of(status["waits"], "for");
    if (!waits.empty()) {
        print_line("waits", "action " + text_of(status["waits"], "id") + ", for " + waits);
    }
    const Json& poll = status["poll"];
    if (number_of(poll, "time") != 0) {
        const std::string error = text_of(poll, "trouble");
        print_line("last poll",
                   time_text(number_of(poll, "time")) + ", " + (error.empty() ? "ok" : error));
    }
    const Json& last = status["last"];
    if (!last.is_null()) {
        print_line("last", "action " + text_of(last, "id") + ", version " +
                               text_of(last, "version") +
                               (last["succeeded"].get<bool>() ? ", success: " : ", failure: ") +
                               text_of(last, "words") +
                               (last["told"].get<bool>() ? "" : " (not delivered to the server)"));
    }
}

}  // namespace

AgentStatus print_status(const AgentSettings& settings, bool json) {
    ActionRecord action;
    AgentStatus loaded = load_action(settings.stateFolder, action);
    if (!loaded.ok()) {
        return loaded;
    }
    // Only the known members of the file are used, because another program may have written it.
    const Json file = load_published_status();
    const Json waits = file.value("waits", Json());
    const Json poll = file.value("poll", Json());
    Json status = {{"waits", {{"id", text_of(waits, "id")}, {"for", text_of(waits, "for")}}},
                   {"poll",
                    {{"time", number_of(poll, "time")},
                     {"result", number_of(poll, "result")},
                     {"trouble", text_of(poll, "trouble")}}}};
    status["action"] = action_json(action);
    status["download"] = download_json(action, file.value("download", Json()));
    // The server asked only for the download; the files are kept for a later action.
    status["downloaded"] = action.downloadOnly ? Json(action.id) : Json(nullptr);
    std::vector<HistoryEntry> history;
    AgentStatus read = load_history(settings.stateFolder, history);
    status["last"] = history_json(history);
    status["running"] = Json::object();
    for (const auto& [name, value] : camera_attributes(settings)) {
        status["running"][name] = value;
    }
    OpenFolder folder;
    const AgentStatus card = open_folder(package_folder(settings), folder);
    status["card"] = card.result == AGENT_NO_CARD ? card.text : "";
    if (json) {
        print_json(status);
    } else {
        print_text(settings, status);
    }
    return read;
}

AgentStatus give_consent(const AgentSettings& settings, bool confirmed) {
    const Json status = load_published_status();
    const Json waits = status.value("waits", Json::object());
    const std::string id = text_of(waits, "id");
    if (id.empty() || text_of(waits, "for") != WAITS_FOR_CONSENT) {
        return agent_fault(AGENT_GONE, "no update waits for consent");
    }
    AgentStatus stored =
        store_consent(settings.stateFolder, id, text_of(waits, "offer"), confirmed);
    const auto agent = static_cast<pid_t>(number_of(status, "pid"));
    // The signal is sent only if the process is still an agent, because its id may have been
    // reused. Without the signal the answer is found with the next poll.
    std::string name;
    if (stored.ok() && agent > 0 &&
        read_small_file("/proc/" + std::to_string(agent) + "/comm", RUN_FILE_SIZE_MAX,
                        FileKind::REGULAR, name)
            .ok() &&
        name == std::string(AGENT) + "\n") {
        kill(agent, SIGHUP);
    }
    return stored;
}
