// The requests of the update server's interface, one function for each.
//
// Each function blocks until the answer is complete, at most `connectTimeoutS` + `stallTimeoutS`
// for the request and for each of up to five redirects. It returns within a second after `stop` is
// set. All return AGENT_OK, AGENT_UNREACHABLE, AGENT_REFUSED, AGENT_GONE, AGENT_MALFORMED or
// AGENT_STOPPED.
#ifndef AGENT_SERVER_H
#define AGENT_SERVER_H

#include <atomic>
#include <memory>
#include <string>

#include "agent/agent_result.h"
#include "agent/ddi.h"
#include "agent/settings.h"

class Http;

// One libcurl handle serves all calls, so that connections are reused. To be used from one thread
// only.
class Server {
  public:
    // `stop` must outlive the Server. Setting it ends a running call; a signal handler may do so.
    Server(ServerSettings settings, const std::atomic<bool>& stop);
    // Shares open connections with `other`. A connection on which a call of `other` is running is
    // not used; both must be used from the same thread.
    Server(ServerSettings settings, const std::atomic<bool>& stop, const Server& other);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    AgentStatus poll(DdiPoll& poll);
    AgentStatus get_action(const std::string& href, DdiAction& action);
    AgentStatus get_cancellation(const std::string& href, DdiCancellation& cancellation);

    // Returns the URL of an action at the configured server, built from the action's id.
    [[nodiscard]] std::string action_href(const std::string& id) const;
    // `href` is the link of the action or of the cancellation; "/feedback" is appended to it.
    AgentStatus send_feedback(const std::string& href, const DdiFeedback& feedback);
    AgentStatus send_confirmation(const std::string& href, bool confirmed,
                                  const std::string& detail);
    // With an empty `href` the controller's standard URL for attributes is used.
    AgentStatus send_attributes(const std::string& href, const DdiAttributes& attributes);
    // Sets what the server shows as installed. It must have a distribution set with exactly this
    // name and version, or the result is AGENT_GONE. It ignores the request while it offers an
    // action. Only for servers that named an installed set (DdiPoll).
    AgentStatus send_installed(const DdiVersion& installed);

    // Reads the token file again. This also happens after each 401. Returns AGENT_OK, or
    // AGENT_MALFORMED when the file cannot be used; the old token stays in use then.
    AgentStatus reload_token();

    // For downloads; only download_file() (download.h) uses it.
    [[nodiscard]] Http& http() { return *http_; }

  private:
    std::unique_ptr<Http> http_;
};

#endif  // AGENT_SERVER_H
