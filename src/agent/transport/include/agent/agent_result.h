// The status that the agent's functions return: a result code and one line with the reason.
#ifndef AGENT_AGENT_RESULT_H
#define AGENT_AGENT_RESULT_H

#include <stdint.h>

#include <string>
#include <utility>

enum AgentResult : int32_t {
    AGENT_OK = 0,
    AGENT_UNREACHABLE = 1,  // network, TLS, proxy (407), 429 or 5xx: a later attempt may succeed
    AGENT_REFUSED = 2,      // 401 or 403: the server refuses this camera
    AGENT_GONE = 3,         // 404 or 410: the requested object does not exist (any more)
    AGENT_MALFORMED = 4,    // another refusal (4xx), or an answer that cannot be used
    AGENT_DIFFERENT = 5,    // the received bytes are not the announced ones
    AGENT_STORAGE = 6,      // a file on this camera cannot be read or written, or storage is full
    AGENT_STOPPED = 7,      // a signal asked the agent to stop
    AGENT_NO_CARD = 8,      // no card is mounted at the package folder
};

struct [[nodiscard]] AgentStatus {
    AgentResult result = AGENT_OK;
    // One line for people: the operation and why it failed. It may contain text from the server.
    // Empty on success.
    std::string text;
    // Seconds to wait before the next request ("Retry-After"), at most a day; 0: the server named
    // no time.
    uint32_t retryAfterS = 0;

    [[nodiscard]] bool ok() const { return result == AGENT_OK; }
};

inline AgentStatus agent_fault(AgentResult result, std::string text) {
    return {result, std::move(text)};
}

inline AgentStatus agent_stopped() {
    return agent_fault(AGENT_STOPPED, "asked to stop");
}

#endif  // AGENT_AGENT_RESULT_H
