// The end of an action: its result is stored, sent to the server and moved to the history.
#ifndef AGENT_RESULT_H
#define AGENT_RESULT_H

#include <string>

#include "agent/agent.h"

// How often a result that the server refuses is sent. After that the result is only in the local
// history, and is sent again if the server offers the action again.
constexpr uint32_t REFUSED_RESULTS_MAX = 5;

// Ends the action: stores its result, then removes its files. deliver_result() sends the result
// later. Returns AGENT_OK or AGENT_STORAGE.
AgentStatus finish_action(Agent& agent, bool succeeded, const std::string& message);

// Removes the record and the files of an action that has been canceled or replaced, or that the
// server no longer offers. Returns AGENT_OK or AGENT_STORAGE.
AgentStatus drop_action(Agent& agent, const std::string& why);

// ACTION_RESULT: sends the result to the server, once. recheck_success() must have checked it. If
// the server accepts the result, it is moved to the history. If not, the record is kept and the
// result is sent with later polls, up to REFUSED_RESULTS_MAX times. A "not found" moves it to the
// history at once only if `offered` is false, that is if the server no longer offers the action.
// Returns AGENT_OK, AGENT_STORAGE, AGENT_STOPPED, or the result of the request.
AgentStatus deliver_result(Agent& agent, bool offered);

// Adds the result to the history and removes the record. `accepted`: the server has accepted the
// result. Returns AGENT_OK or AGENT_STORAGE.
AgentStatus archive_result(Agent& agent, bool accepted);

#endif  // AGENT_RESULT_H
