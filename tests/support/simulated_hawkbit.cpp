#include "simulated_hawkbit.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <sstream>

#include "package/content.h"

namespace {

using nlohmann::json;

constexpr size_t STATUSES_MAX = 1000;
constexpr char CONTROLLER_PATH[] = "/DEFAULT/controller/v1/cam%201";

std::string digest_of(const std::string& bytes) {
    Sha256Stream stream;
    stream.update(bytes);
    return digest_text(stream.take());
}

// Returns the member with this name if it has the same type as `other`.
json member(const json& object, const char* name, const json& other) {
    const json found = object.is_object() ? object.value(name, json()) : json();
    return found.type() == other.type() ? found : other;
}

}  // namespace

void classify(SimulatedRequest& request, const std::string& path) {
    const std::string base = std::string("/") + SimulatedServer::TENANT + "/controller/v1/" +
                             SimulatedServer::CONTROLLER;
    if (!path.starts_with(base)) {
        return;
    }
    // "", "deploymentBase", "11", "feedback"
    std::vector<std::string> parts(5);
    std::istringstream stream(path.substr(base.size()));
    for (std::string& part : parts) {
        std::getline(stream, part, '/');
    }
    struct Name {
        const char* part;
        const char* got;
        const char* fed;
    };
    for (const Name& name :
         {Name{"", "poll", ""}, Name{"configData", "attributes", ""},
          Name{"deploymentBase", "action", "feedback"}, Name{"confirmationBase", "consent", "word"},
          Name{"cancelAction", "cancellation", "answer"}, Name{"softwaremodules", "file", ""}}) {
        if (parts[1] == name.part) {
            request.what = parts[3] == "feedback" ? name.fed : name.got;
        }
    }
    request.id = parts[2];
    request.file = parts[4];
}

SimulatedHawkbit::Action* SimulatedHawkbit::find(const std::string& id) {
    const auto found = std::ranges::find(
        actions, id, [](const Action& action) -> const auto& { return action.offered.id; });
    return found == actions.end() ? nullptr : &*found;
}

SimulatedAnswer SimulatedHawkbit::answer(const SimulatedRequest& request) {
    if (request.what == "poll") {
        return poll();
    }
    if (request.what == "attributes") {
        return take_attributes(request.body);
    }
    Action* const action = find(request.id);
    const bool feeds = request.line.starts_with("POST");
    if (action == nullptr || (action->ended() && !feeds)) {
        return {.status = 404};
    }
    if (feeds) {
        return action->ended() ? SimulatedAnswer{.status = 410} : feedback(*action, request);
    }
    if (request.what == "file") {
        return file(*action, request);
    }
    const char* const asked = request.what == "cancellation" ? "cancelling"
                              : request.what == "consent"    ? "waiting"
                                                             : "offered";
    if (action->state != asked) {
        return {.status = 404};
    }
    if (request.what == "cancellation") {
        return {.body =
                    json{{"id", request.id}, {"cancelAction", {{"stopId", request.id}}}}.dump()};
    }
    return offer(*action, request.what == "consent" ? "confirmation" : "deployment");
}

SimulatedAnswer SimulatedHawkbit::poll() const {
    json root = {{"config", {{"polling", {{"sleep", sleep}}}}}};
    if (attributesWanted) {
        root["_links"]["configData"]["href"] = url + CONTROLLER_PATH + "/configData";
    }
    for (const Action& action : actions) {
        if (!action.ended()) {
            const std::string part = action.state == "cancelling" ? "cancelAction"
                                     : action.state == "waiting"  ? "confirmationBase"
                                                                  : "deploymentBase";
            root["_links"][part]["href"] = url + CONTROLLER_PATH + "/" + part + "/" +
                                           action.offered.id + (part[0] == 'c' ? "" : "?c=-211");
            break;
        }
    }
    return {.body = root.dump()};
}

SimulatedAnswer SimulatedHawkbit::offer(const Action& action, const char* name) const {
    const SimulatedAction& offered = action.offered;
    const std::string base = offered.elsewhere.empty() ? url : offered.elsewhere;
    json artifacts = json::array();
    for (const SimulatedFile& file : offered.files) {
        const std::string href =
            base + CONTROLLER_PATH + "/softwaremodules/" + offered.id + "/artifacts/" + file.name;
        artifacts.push_back(
            {{"filename", file.name},
             {"size", file.bytes.size()},
             {"hashes", {{"sha256", digest_of(file.bytes)}}},
             {"_links",
              {{base.starts_with("https") ? "download" : "download-http", {{"href", href}}}}}});
    }
    json deployment = {{"download", offered.download},
                       {"update", offered.update},
                       {"chunks", {{{"part", "os"}, {"artifacts", artifacts}}}}};
    if (!offered.window.empty()) {
        deployment["maintenanceWindow"] = offered.window;
    }
    return {.body = json{{"id", offered.id}, {name, deployment}}.dump()};
}

SimulatedAnswer SimulatedHawkbit::file(Action& action, const SimulatedRequest& request) const {
    const auto& files = action.offered.files;
    const auto file = std::ranges::find(files, request.file, &SimulatedFile::name);
    if (file == files.end()) {
        return {.status = 404};
    }
    action.statuses += old || action.statuses == 0 ? 1 : 0;
    const std::string tag = digest_of(file->bytes).substr(0, 40);
    SimulatedAnswer answer = {.body = file->bytes, .tag = old ? tag : "\"" + tag + "\""};
    const std::string size = std::to_string(file->bytes.size());
    unsigned long from = 0;
    if (sscanf(request.range.c_str(), "bytes=%lu-", &from) != 1 ||
        (!request.condition.empty() && request.condition != answer.tag)) {
        return answer;
    }
    if (from >= file->bytes.size()) {
        return {.status = 416, .range = "bytes */" + size};
    }
    answer.status = 206;
    answer.body.erase(0, from);
    answer.range =
        "bytes " + std::to_string(from) + "-" + std::to_string(file->bytes.size() - 1) + "/" + size;
    return answer;
}

SimulatedAnswer SimulatedHawkbit::feedback(Action& action, const SimulatedRequest& request) {
    const json root = json::parse(request.body, nullptr, false);
    const bool word = request.what == "word";
    const json status = word ? root : member(root, "status", json::object());
    const std::string execution = member(status, word ? "confirmation" : "execution", "");
    const json result = member(status, "result", json::object());
    const std::string finished = member(result, "finished", "");
    if (execution.empty()) {
        return {.status = 400};
    }
    if (old && member(root, "id", "") != request.id) {
        return {.status = 404};
    }
    if (action.statuses >= STATUSES_MAX && (old || execution != "closed")) {
        return {.status = old ? 403 : 429};
    }
    if (word && execution == "confirmed") {
        action.state = "offered";
    } else if (request.what == "answer") {
        if (action.state != "cancelling") {
            return {.status = 405};
        }
        action.state = execution == "closed" ? "canceled" : "offered";
    } else if (execution == "closed") {
        action.state = finished == "failure" ? "failure" : "success";
        attributesWanted = attributesWanted || action.state == "success";
    } else if (execution == "downloaded" && action.offered.update == "skip" &&
               action.offered.window.empty()) {
        action.state = "downloaded";
    }
    ++action.statuses;
    action.story += (request.what == "answer" ? " | cancellation " : " | ") + execution +
                    (finished.empty() ? "" : " " + finished);
    const char* before = ": ";
    for (const json& detail : member(status, "details", json::array())) {
        action.story += before + detail.get<std::string>();
        before = ", ";
    }
    return {};
}

SimulatedAnswer SimulatedHawkbit::take_attributes(const std::string& body) {
    const json root = json::parse(body, nullptr, false);
    const json data = member(root, "data", json::object());
    if (member(root, "mode", "") == "replace") {
        attributes.clear();
    }
    for (const auto& [name, value] : data.items()) {
        attributes[name] = value.get<std::string>();
    }
    attributesWanted = false;
    return {.status = root.is_object() ? 200 : 400};
}
