// One poll of the update server and all that follows from it: from an offer over download, check,
// consent, commit and request to the restart, and from there to the verdict.
#ifndef AGENT_PROCEDURE_H
#define AGENT_PROCEDURE_H

#include <stdint.h>

#include <atomic>
#include <string>
#include <vector>

#include "agent/action.h"
#include "agent/agent_result.h"
#include "agent/server.h"
#include "agent/settings.h"
#include "package/certificates.h"
#include "package/content.h"
#include "package/manifest.h"

// Statuses of one action that are sent at the most, out of 1000 that the server keeps: the verdict
// must find room.
constexpr uint32_t STATUSES_MAX = 900;
// Of them, before what an update waits for is told no more.
constexpr uint32_t WAITING_STATUSES_MAX = 100;

// Times that a result is sent that the server refuses. After that it is in the local history only,
// and is sent again when the server offers the action again.
constexpr uint32_t REFUSED_RESULTS_MAX = 5;

// What an update waits for until somebody on the camera has answered.
constexpr char WAITS_FOR_CONSENT[] = "consent";

// Seconds that a service is waited for that does not run, or that ends without a restart. A camera
// that starts slowly starts it within that time.
constexpr uint32_t SERVICE_PATIENCE_S = 60;

// The process's state. For one thread.
struct Agent {
    // `stopFlag` outlives the agent.
    Agent(const AgentSettings& given, Keyring keys, std::atomic<bool>& stopFlag);

    const AgentSettings& settings;
    PackageFolder place;  // of the packages
    std::string folder;   // its path
    Keyring keyring;
    std::atomic<bool>& stop;
    Server server;
    Server files;  // for downloads, during which the other one is spoken with

    ActionRecord action;
    std::string bootId;
    std::vector<CheckedFile> checked;  // of this process: files of the action that need no check
    bool attributesDue = true;         // of this start or the last verdict; not after a sleep
    uint32_t sleepS = 0;               // what the server wants between two polls; 0: unknown
    std::string waitingFor;      // why an update that is there does not start; empty: none waits
    std::string waitingId;       // which one
    std::string waitingOffer;    // digest of what a consent is given to
    std::string waitingTold;     // that, as the server knows it
    bool awaitsRestart = false;  // the upgrade is over, nothing but a restart is left
    std::string consentLogged;   // the action whose wait for consent is in the log
    std::vector<std::string> answered;  // in this poll: not repeated before the next one
    std::string runningManifest;        // digest of the one that was found to run since the start
    bool verdictUnstored = false;       // the medium did not take it
    bool verdictSent = false;           // and the record of it not removed yet
    bool verdictTaken = false;          // of the one that was sent: the server has stored it
    bool lastFailed = false;            // the last action of this process did
    uint64_t othersSinceMs = 0;         // somebody else's request was seen in the queue; 0: not
    uint32_t goneOffers = 0;            // a file of the action was not there, in a row
    bool progressed = false;            // bytes of a file came that were not there before
};

// Loads what is in hand and removes files that nothing needs. Returns AGENT_OK, or AGENT_MEDIUM
// when state or download folder cannot be used.
AgentStatus agent_start(Agent& agent);

// Polls once and goes on with what is in hand. Blocks for as long as that takes: a download, and
// after a request the upgrade, which a restart ends. Returns AGENT_OK when the server has been
// asked and told everything, AGENT_UNREACHABLE, AGENT_REFUSED or AGENT_MALFORMED when it has not,
// AGENT_MEDIUM or AGENT_STOPPED.
AgentStatus agent_poll(Agent& agent);

// Tells the server what runs. Returns as agent_poll() does.
AgentStatus agent_report(Agent& agent);

#endif  // AGENT_PROCEDURE_H
