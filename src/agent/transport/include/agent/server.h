// The conversation with the update server, a procedure for each thing that is asked or said.
//
// Each blocks until the answer is there, at most `connectTimeoutS` and `stallTimeoutS` together
// (for each of up to five redirects), or for a second after `stop` is set. All return AGENT_OK,
// AGENT_UNREACHABLE, AGENT_REFUSED, AGENT_GONE, AGENT_MALFORMED or AGENT_STOPPED.
#ifndef AGENT_SERVER_H
#define AGENT_SERVER_H

#include <stdint.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>

#include "agent/agent_result.h"
#include "agent/ddi.h"

class Http;

// How the server is reached, and how it and the camera prove who they are.
struct ServerSettings {
    std::string url = {};  // "https://host:port", without a path's last "/"
    std::string tenant = "DEFAULT";
    std::string controllerId = {};   // any text of 1 to 255 characters
    std::string authorization = {};  // value of that header ("TargetToken SECRET"), or empty
    std::string tokenFile = {};      // where its SECRET is from, to be read again; or empty
    std::string proxy = {};          // "http://host:port" of an HTTP proxy, or empty: none
    std::string certificate = {};    // PEM file of the camera's certificate, or empty
    std::string key = {};            // its key: a PEM file or a PKCS#11 URI
    std::string ca = {};            // PEM file of who may vouch for the server; empty: the system's
    uint64_t rateLimit = 0;         // bytes a second of downloads, at least 1024; 0: no limit
    uint32_t connectTimeoutS = 30;  // at least 1, as the next one
    uint32_t stallTimeoutS = 60;    // without 64 bytes a second
};

// One handle for all calls, so that a connection is used again. For one thread.
class Server {
  public:
    // `stop` ends calls that are under way; it outlives the server. May be set by a signal handler.
    Server(ServerSettings settings, const std::atomic<bool>& stop);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    AgentStatus poll(DdiPoll& poll);
    AgentStatus get_action(const std::string& href, DdiAction& action);
    AgentStatus get_cancellation(const std::string& href, DdiCancellation& cancellation);

    // Where the server of the settings has an action, whatever link it was got by.
    [[nodiscard]] std::string action_href(const std::string& id) const;
    // `href` is of an action or a cancellation: the feedback's place is beside it.
    AgentStatus send_feedback(const std::string& href, const DdiFeedback& feedback);
    AgentStatus send_confirmation(const std::string& href, bool confirmed,
                                  const std::string& detail);
    // The attributes' place is the controller's own when `href` is empty.
    AgentStatus send_attributes(const std::string& href, const DdiAttributes& attributes);

    // Reads the token's file again, as each refusal (401) does. Returns AGENT_OK, or
    // AGENT_MALFORMED when it cannot be used; the token that is known stays then.
    AgentStatus reload_token();

    // For files: see download.h, whose procedure is the only caller.
    [[nodiscard]] Http& http() { return *http_; }

  private:
    std::unique_ptr<Http> http_;
};

#endif  // AGENT_SERVER_H
