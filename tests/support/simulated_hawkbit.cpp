#include "simulated_hawkbit.h"

#include <nlohmann/json.hpp>

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

json offer_of(const SimulatedAction& action, const std::string& url) {
    const std::string base = action.elsewhere.empty() ? url : action.elsewhere;
    const char* const link = base.starts_with("https") ? "download" : "download-http";
    json artifacts = json::array();
    for (const auto& [name, bytes] : action.files) {
        std::string href = base;
        href.append(CONTROLLER_PATH).append("/softwaremodules/").append(action.id);
        href.append("/artifacts/").append(name);
        artifacts.push_back({{"filename", name},
                             {"size", bytes.size()},
                             {"hashes", {{"sha256", digest_of(bytes)}}},
                             {"_links", {{link, {{"href", href}}}}}});
    }
    json offer = {{"download", action.download},
                  {"update", action.update},
                  {"chunks", {{{"part", "os"}, {"name", "camera"}, {"artifacts", artifacts}}}}};
    if (!action.window.empty()) {
        offer["maintenanceWindow"] = action.window;
    }
    return offer;
}

}  // namespace

void SimulatedHawkbit::classify(SimulatedRequest& request, const std::string& path) {
    static const std::string BASE = std::string("/DEFAULT/controller/v1/") + CONTROLLER;
    static const std::map<std::string, std::pair<const char*, const char*>> NAMES = {
        {"", {"poll", ""}},
        {"configData", {"attributes", ""}},
        {"deploymentBase", {"action", "feedback"}},
        {"confirmationBase", {"consent", "word"}},
        {"cancelAction", {"cancellation", "answer"}},
        {"installedBase", {"installed", ""}},
        {"softwaremodules", {"file", ""}}};
    // "", "deploymentBase", "11", "feedback"
    std::vector<std::string> parts(5);
    std::istringstream stream(path.starts_with(BASE) ? path.substr(BASE.size()) : "/other");
    for (std::string& part : parts) {
        std::getline(stream, part, '/');
    }
    if (const auto name = NAMES.find(parts[1]); name != NAMES.end()) {
        request.what = parts[3] == "feedback" ? name->second.second : name->second.first;
    }
    request.id = parts[2];
    request.file = parts[4];
}

SimulatedAnswer SimulatedHawkbit::answer(const SimulatedRequest& request) {
    static const std::map<std::string, std::string> STATES = {
        {"cancellation", "cancelling"}, {"consent", "waiting"}, {"action", "offered"}};
    const std::lock_guard<std::mutex> lock(mutex_);
    const std::string& what = request.what;
    if (what == "poll" || what == "attributes") {
        return what == "poll" ? poll() : take_attributes(request.body);
    }
    if (what == "installed") {
        const json root = json::parse(request.body, nullptr, false);
        attributes_[what] = root.value("name", "") + "-" + root.value("version", "");
        return {.status = old_ ? 404 : 201};
    }
    const auto found = actions_.find(request.id);
    const bool ended = found == actions_.end() || found->second.ended();
    if (found != actions_.end() && request.line.starts_with("POST")) {
        return ended ? SimulatedAnswer{.status = 410} : feedback(found->second, request);
    }
    if (!ended && what == "file") {
        return file(found->second, request);
    }
    if (ended || found->second.state != STATES.at(what)) {
        return {.status = 404};
    }
    const std::string& id = request.id;
    const json body = what == "cancellation"
                          ? json{{"id", id}, {"cancelAction", {{"stopId", id}}}}
                          : json{{"id", id},
                                 {what == "consent" ? "confirmation" : "deployment",
                                  offer_of(found->second.offered, url_)}};
    return {.body = body.dump()};
}

SimulatedAnswer SimulatedHawkbit::poll() const {
    json root = {{"config", {{"polling", {{"sleep", sleep_}}}}}};
    if (attributesWanted_) {
        root["_links"]["configData"]["href"] = url_ + CONTROLLER_PATH + "/configData";
    }
    if (!old_ && std::ranges::any_of(
                     actions_, [](const auto& each) { return each.second.state == "success"; })) {
        root["_links"]["installedBase"]["href"] = url_ + CONTROLLER_PATH + "/installedBase/11";
    }
    const auto current =
        std::ranges::find_if(actions_, [](const auto& each) { return !each.second.ended(); });
    if (current != actions_.end()) {
        const std::string& state = current->second.state;
        const std::string part = state == "cancelling" ? "cancelAction"
                                 : state == "waiting"  ? "confirmationBase"
                                                       : "deploymentBase";
        root["_links"][part]["href"] = url_ + CONTROLLER_PATH + "/" + part + "/" + current->first +
                                       (part[0] == 'c' ? "" : "?c=-211");
    }
    return {.body = root.dump()};
}

SimulatedAnswer SimulatedHawkbit::file(Action& action, const SimulatedRequest& request) const {
    const auto& files = action.offered.files;
    const auto file = std::ranges::find(files, request.file, &SimulatedFile::name);
    if (file == files.end()) {
        return {.status = 404};
    }
    action.statuses += old_ || action.statuses == 0 ? 1 : 0;
    const std::string tag = digest_of(file->bytes).substr(0, 40);
    SimulatedAnswer answer = {.body = file->bytes, .tag = old_ ? tag : "\"" + tag + "\""};
    const size_t size = file->bytes.size();
    size_t from = 0;
    size_t last = size - 1;
    if (sscanf(request.range.c_str(), "bytes=%zu-%zu", &from, &last) < 1 ||
        (!request.condition.empty() && request.condition != answer.tag)) {
        return answer;
    }
    if (from >= size) {
        return {.status = 416, .range = "bytes */" + std::to_string(size)};
    }
    answer.status = 206;
    last = std::min(last, size - 1);
    answer.body = answer.body.substr(from, last + 1 - from);
    answer.range =
        "bytes " + std::to_string(from) + "-" + std::to_string(last) + "/" + std::to_string(size);
    return answer;
}

SimulatedAnswer SimulatedHawkbit::feedback(Action& action, const SimulatedRequest& request) {
    const json root = json::parse(request.body, nullptr, false);
    const bool word = request.what == "word";
    const json status = word ? root : member(root, "status", json::object());
    const std::string execution = member(status, word ? "confirmation" : "execution", "");
    const std::string finished = member(member(status, "result", json::object()), "finished", "");
    if (execution.empty()) {
        return {.status = 400};
    }
    if (old_ && member(root, "id", "") != request.id) {
        return {.status = 404};
    }
    if (action.statuses >= STATUSES_MAX && (old_ || execution != "closed")) {
        return {.status = old_ ? 403 : 429};
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
        attributesWanted_ = attributesWanted_ || action.state == "success";
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
    if (member(root, "mode", "") == "replace") {
        std::erase_if(attributes_, [](const auto& each) { return each.first != "installed"; });
    }
    const json data = member(root, "data", json::object());
    for (const auto& [name, value] : data.items()) {
        attributes_[name] = value.get<std::string>();
    }
    attributesWanted_ = false;
    return {.status = root.is_object() ? 200 : 400};
}

void SimulatedHawkbit::offer(const SimulatedAction& action) {
    const std::lock_guard<std::mutex> lock(mutex_);
    for (auto& [id, older] : actions_) {
        older.state = older.ended() ? older.state : "cancelling";
    }
    actions_[action.id] = {.offered = action,
                           .state = action.consent && !old_ ? "waiting" : "offered"};
}

void SimulatedHawkbit::set_state(const std::string& id, const char* state) {
    const std::lock_guard<std::mutex> lock(mutex_);
    Action& action = actions_.at(id);
    action.state = action.ended() ? action.state : state;
}

void SimulatedHawkbit::change(const SimulatedAction& action) {
    const std::lock_guard<std::mutex> lock(mutex_);
    actions_.at(action.id).offered = action;
}

void SimulatedHawkbit::reinstall() {
    const std::lock_guard<std::mutex> lock(mutex_);
    actions_.clear();
}

std::map<std::string, std::string> SimulatedHawkbit::attributes() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return attributes_;
}

std::string SimulatedHawkbit::story(const std::string& id) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = actions_.find(id);
    return found == actions_.end() ? "unknown" : found->second.state + found->second.story;
}
