// Corrects what the server shows as installed, when a camera has returned to another system after
// it reported success. Only servers of the 1.0 generation accept that.
#ifndef AGENT_INSTALLED_H
#define AGENT_INSTALLED_H

#include "agent/agent.h"
#include "trial.h"

// Returns what runs, if corvo_commit has recorded a fallback from the system of the last success,
// and the server was not informed. The name is that of the software module of that success, the
// version that of the version file. Returns an empty record if either of them is unknown, or if
// nothing has to be reported.
DdiVersion find_unreported_system(const AgentSettings& settings, const Trial& trial);

// Sends `agent.polling.installed`, but not while the server offers an action, because it would
// ignore the request. Any answer is final, and is stored after it has arrived, so that a power cut
// repeats the request at most. Without an answer, or with a 5xx, it is sent again with the next
// poll. No error has an effect on actions. Blocks as a function of server.h does.
void report_installed(Agent& agent, const DdiPoll& poll);

#endif  // AGENT_INSTALLED_H
