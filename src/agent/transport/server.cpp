#include "agent/server.h"

#include "agent/http.h"

namespace {

// The URL for feedback: that of the action or cancellation without its query, and "/feedback".
std::string feedback_place(const std::string& href) {
    return href.substr(0, href.find_first_of("?#")) + "/feedback";
}

std::string controller_place(const Http& http) {
    const ServerSettings& settings = http.settings();
    return settings.url + "/" + http.path_part(settings.tenant) + "/controller/v1/" +
           http.path_part(settings.controllerId);
}

// Sends a GET request and parses the answer.
template <typename Record>
AgentStatus get(Http& http, const std::string& url,
                AgentStatus (*parse)(std::string_view text, Record& record), Record& record) {
    std::string answer;
    AgentStatus status = http.call("GET", url, "", answer);
    if (!status.ok()) {
        return status;
    }
    status = parse(answer, record);
    if (!status.ok() && !answer.empty()) {
        status.text += "; the answer begins with \"" + printable_start(answer) + '"';
    }
    return status;
}

AgentStatus send_body(Http& http, const char* method, const std::string& url,
                      const std::string& body) {
    std::string answer;
    return http.call(method, url, body, answer);
}

}  // namespace

Server::Server(ServerSettings settings, const std::atomic<bool>& stop)
    : http_(std::make_unique<Http>(std::move(settings), stop)) {}

Server::Server(ServerSettings settings, const std::atomic<bool>& stop, const Server& other)
    : http_(std::make_unique<Http>(std::move(settings), stop, *other.http_)) {}

Server::~Server() = default;

AgentStatus Server::poll(DdiPoll& poll) {
    return get(*http_, controller_place(*http_), parse_poll, poll);
}

AgentStatus Server::get_action(const std::string& href, DdiAction& action) {
    return get(*http_, href, parse_action, action);
}

AgentStatus Server::get_cancellation(const std::string& href, DdiCancellation& cancellation) {
    return get(*http_, href, parse_cancellation, cancellation);
}

AgentStatus Server::reload_token() {
    return http_->reload_token();
}

std::string Server::action_href(const std::string& id) const {
    return controller_place(*http_) + "/deploymentBase/" + http_->path_part(id);
}

AgentStatus Server::send_feedback(const std::string& href, const DdiFeedback& feedback) {
    return send_body(*http_, "POST", feedback_place(href), feedback_text(feedback));
}

AgentStatus Server::send_confirmation(const std::string& href, bool confirmed,
                                      const std::string& detail) {
    return send_body(*http_, "POST", feedback_place(href), confirmation_text(confirmed, detail));
}

AgentStatus Server::send_attributes(const std::string& href, const DdiAttributes& attributes) {
    return send_body(*http_, "PUT", href.empty() ? controller_place(*http_) + "/configData" : href,
                     attributes_text(attributes));
}

AgentStatus Server::send_installed(const DdiVersion& installed) {
    return send_body(*http_, "PUT", controller_place(*http_) + "/installedBase",
                     installed_text(installed));
}
