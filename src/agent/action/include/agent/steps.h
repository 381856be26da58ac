// The steps that the agent's procedure is made of. For procedure.cpp and the steps' own files only.
#ifndef AGENT_STEPS_H
#define AGENT_STEPS_H

#include <string>

#include "agent/procedure.h"

// A line on standard output: "action 11: TEXT", or TEXT alone without an action. Control characters
// are replaced.
void say(const Agent& agent, const std::string& text);

// The same for an action that is not the current one.
void log_action(const std::string& id, const std::string& text);

// The record onto the medium.
AgentStatus store(Agent& agent);

// A status of the action to the server, if there is room for one more; what does not arrive is
// lost. Returns what the server answered (AGENT_GONE: the action has vanished), AGENT_OK without
// asking when there is no room.
AgentStatus tell(Agent& agent, DdiExecution execution, const std::string& detail, uint32_t done = 0,
                 uint32_t of = 0);

// What the update waits for: for `status`, and for the server, once.
void wait_for(Agent& agent, const std::string& what);

// The update waits no longer: for the log.
void end_wait(Agent& agent);

// Ends the action: the verdict onto the medium, then its files away. It is delivered by
// deliver_verdict(). Returns AGENT_OK or AGENT_MEDIUM.
AgentStatus conclude(Agent& agent, bool succeeded, const std::string& words);

// Removes files that lie in the agent's folder and that the action does not name; of an action with
// a verdict all of them.
void remove_needless_files(const Agent& agent);

// Whether the card is not mounted that packages must lie on; what the update waits for is that
// then.
bool waits_for_card(Agent& agent);

// Forgets an action that the server does not know any more, and its files.
AgentStatus drop(Agent& agent, const std::string& why);

// The one manifest of an offer that has its signature beside it. Null when there is none, or more
// than one.
const DdiFile* find_manifest(const DdiAction& offer);

// ACTION_DOWNLOADING: fetches what is not there yet; ends in ACTION_WAITING or in a verdict.
// Returns AGENT_OK, or why it could not go on now; AGENT_GONE: ask the server again.
AgentStatus fetch_package(Agent& agent, const DdiAction& offer);

// The manifest in the agent's folder: whom it is signed by, and whether this camera takes it.
// Returns PACKAGE_OK or what is wrong.
PackageStatus read_manifest(const Agent& agent, Manifest& manifest);

// ACTION_WAITING: looks whether the upgrade may start, and starts it. Goes back to
// ACTION_DOWNLOADING when the package is not there, and nothing of it is on partitions yet: there
// is another card in the camera, or it was fetched to where none was.
AgentStatus start_upgrade(Agent& agent, const DdiAction& offer);

// ACTION_COMMITTED and ACTION_POSTED: finds out what has become of the request, waits for the
// restart while one may come, judges after it. Posts again where nothing was decided. Returns
// AGENT_OK, with the record in one of these stages or ACTION_VERDICT, AGENT_MEDIUM or
// AGENT_STOPPED.
AgentStatus see_through(Agent& agent);

// A success that was found before the last restart of the camera: checks whether the new system
// still runs. The result becomes a failure when it does not. Returns AGENT_OK, AGENT_MEDIUM or
// AGENT_STOPPED.
AgentStatus look_again(Agent& agent);

// ACTION_VERDICT: sends the result to the server, once; then it goes to the history and the record
// is removed. The record stays when the server does not take the result, a few times: "not found"
// is believed only when `offered` is false, which says that the server does not offer the action
// any more. Returns AGENT_OK, AGENT_MEDIUM, AGENT_STOPPED, or what the server answered.
AgentStatus deliver_verdict(Agent& agent, bool offered);

// Puts the result into the history, as taken by the server or not, and removes the record. Returns
// AGENT_OK or AGENT_MEDIUM.
AgentStatus forget_verdict(Agent& agent, bool taken);

// What the server may filter cameras by.
DdiAttributes camera_attributes(const AgentSettings& settings);

// Milliseconds of a clock that nobody sets.
uint64_t monotonic_ms();

// Sleeps. Returns false when the agent is to end.
bool pause(const Agent& agent, uint32_t milliseconds);

#endif  // AGENT_STEPS_H
