// The steps of the agent's procedure. Only procedure.cpp and the files that implement the steps
// include this.
#ifndef AGENT_STEPS_H
#define AGENT_STEPS_H

#include <string>

#include "agent/procedure.h"

// Prints a line on standard output: "action 11: TEXT" for the current action, or TEXT alone without
// an action. Control characters are replaced.
void log_action(const Agent& agent, const std::string& text);

// Prints the same line for another action.
void log_action(const std::string& id, const std::string& text);

// Stores the record of the current action.
AgentStatus store(Agent& agent);

// Sends a status of the action to the server, once. If the action has STATUSES_MAX statuses
// already, nothing is sent and AGENT_OK is returned. Otherwise returns the result of the request;
// AGENT_GONE means that the server no longer has the action.
AgentStatus send_status(Agent& agent, DdiExecution execution, const std::string& detail,
                        uint32_t done = 0, uint32_t of = 0);

// Sets what the update waits for, as `status` prints it. Logs it and sends it to the server if it
// has changed.
void wait_for(Agent& agent, const std::string& what);

// Logs that the update no longer waits.
void end_wait(Agent& agent);

// Ends the action: stores its result, then removes its files. deliver_result() sends the result
// later. Returns AGENT_OK or AGENT_STORAGE.
AgentStatus finish_action(Agent& agent, bool succeeded, const std::string& message);

// Removes all files in the agent's folder that the action does not need. An action with a result
// needs none.
void remove_unused_files(const Agent& agent);

// Whether the card for packages is not mounted. If so, the update is set to wait for it.
bool waits_for_card(Agent& agent);

// Removes the record and the files of an action that has been canceled or replaced, or that the
// server no longer offers. Returns AGENT_OK or AGENT_STORAGE.
AgentStatus drop_action(Agent& agent, const std::string& why);

// Returns the one file of the offer that has a signature file, or null when the offer has no such
// file or more than one.
const DdiFile* find_manifest(const DdiAction& offer);

// ACTION_DOWNLOADING: downloads the missing files. The stage becomes ACTION_WAITING or
// ACTION_RESULT. Returns AGENT_OK, or why the download could not continue; AGENT_GONE: poll the
// server again.
AgentStatus fetch_package(Agent& agent, const DdiAction& offer);

// Reads the manifest in the agent's folder, verifies its signature and checks that this camera
// accepts the package. Returns PACKAGE_OK or what is wrong.
PackageStatus read_manifest(const Agent& agent, Manifest& manifest);

// ACTION_WAITING: starts the upgrade if it may start now. The stage becomes ACTION_DOWNLOADING
// again when files are missing and no request was posted yet; the card may have been exchanged, or
// mounted over the folder after the download.
AgentStatus start_upgrade(Agent& agent, const DdiAction& offer);

// ACTION_COMMITTED and ACTION_POSTED: finds out what happened to the request. Waits for the restart
// as long as one is possible, and determines the result after the restart. Posts again where
// nothing was decided. Returns AGENT_OK, with one of these stages, ACTION_WAITING or ACTION_RESULT;
// AGENT_STORAGE or AGENT_STOPPED.
AgentStatus follow_upgrade(Agent& agent);

// For a success that was found before the last restart of the camera: checks that the new system
// still runs. If not, the result becomes a failure. Returns AGENT_OK, AGENT_STORAGE or
// AGENT_STOPPED.
AgentStatus recheck_success(Agent& agent);

// ACTION_RESULT: sends the result to the server, once. If the server accepts it, it is moved to the
// history. If not, the record is kept and the result is sent with later polls, up to
// REFUSED_RESULTS_MAX times. A "not found" moves it to the history at once only if `offered` is
// false, that is if the server no longer offers the action. Returns AGENT_OK, AGENT_STORAGE,
// AGENT_STOPPED, or the result of the request.
AgentStatus deliver_result(Agent& agent, bool offered);

// Adds the result to the history and removes the record. `accepted`: the server has accepted the
// result. Returns AGENT_OK or AGENT_STORAGE.
AgentStatus archive_result(Agent& agent, bool accepted);

// Returns the attributes of the camera by which the server may filter.
DdiAttributes camera_attributes(const AgentSettings& settings);

// Returns the milliseconds of CLOCK_MONOTONIC, which does not jump when the time is set.
uint64_t monotonic_ms();

// Waits; a signal ends the wait early. Returns false when the agent is stopping.
bool wait_ms(const Agent& agent, uint32_t milliseconds);

#endif  // AGENT_STEPS_H
