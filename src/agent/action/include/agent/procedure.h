// One poll of the update server and everything that follows from it: download, check, consent,
// commit, request, restart of the camera, and the result.
#ifndef AGENT_PROCEDURE_H
#define AGENT_PROCEDURE_H

#include <stdint.h>

#include <atomic>
#include <string>
#include <vector>

#include "agent/action.h"
#include "agent/agent_result.h"
#include "agent/check_settings.h"
#include "agent/server.h"
#include "package/certificates.h"
#include "package/content.h"
#include "package/manifest.h"

// Maximum number of statuses that are sent for one action. The server stores 1000; the rest is kept
// free for the result.
constexpr uint32_t STATUSES_MAX = 900;
// After so many statuses of an action, reasons for waiting are no longer sent.
constexpr uint32_t WAITING_STATUSES_MAX = 100;

// How often a result that the server refuses is sent. After that the result is only in the local
// history, and is sent again if the server offers the action again.
constexpr uint32_t REFUSED_RESULTS_MAX = 5;

// The value of `waitingFor` until a person on the camera has confirmed or denied the update.
constexpr char WAITS_FOR_CONSENT[] = "consent";

// Seconds to wait for a service that does not run, or for the restart after a service has ended.
// The time is long enough for a camera that starts its services slowly.
constexpr uint32_t SERVICE_PATIENCE_S = 60;

// The state of the agent's process. To be used from one thread only.
struct Agent {
    // `stopFlag` must outlive the agent.
    Agent(const AgentSettings& given, Keyring keys, std::atomic<bool>& stopFlag);

    const AgentSettings& settings;
    PackageFolder place;  // the agent's folder for packages
    std::string folder;   // path of `place`
    Keyring keyring;
    std::atomic<bool>& stop;
    Server server;
    Server files;  // for downloads, because `server` is used while a download is running

    ActionRecord action;
    std::string bootId;                // of the running kernel
    std::vector<CheckedFile> checked;  // files that this process has verified already
    bool attributesDue = true;         // they are sent after a start and after each result, but not
                                       // after each sleep
    uint32_t sleepS = 0;               // the server's polling interval; 0: unknown
    std::string waitingFor;            // what the current update waits for; empty: it does not wait
    std::string waitingId;             // id of the action that waits
    std::string waitingOffer;          // digest of the offer that waits for consent
    std::string waitingReported;  // the last `waitingFor` that was logged and sent to the server
    bool awaitsRestart = false;   // the upgrade has ended, only the restart is missing
    std::string consentLogged;    // id and digest of the offer whose wait for consent was logged
    std::vector<std::string> answered;  // what was answered in this poll, to answer each thing once
    std::string runningManifest;        // digest of the manifest whose system was found running
    bool resultUnstored = false;        // the result could not be stored
    bool resultSent = false;            // the result was delivered, but its record still exists
    bool resultAccepted = false;        // the server has accepted the delivered result
    bool lastFailed = false;            // the last action of this process failed
    uint64_t othersSinceMs =
        0;                    // when another sender's request was found in the queue; 0: not found
    uint32_t goneOffers = 0;  // how often in a row a file of the action did not exist
    bool progressed = false;  // new bytes of a file were downloaded in this poll
};

// Loads the record of the current action and removes unused files. Returns AGENT_OK, or
// AGENT_STORAGE when the state folder cannot be used or the kernel's boot id cannot be read.
AgentStatus agent_start(Agent& agent);

// Polls once and continues the current action. Blocks as long as that takes: for a download, and
// after a request for the upgrade, which ends with a restart of the camera. Returns AGENT_OK when
// all requests to the server succeeded; AGENT_UNREACHABLE, AGENT_REFUSED or AGENT_MALFORMED when
// one failed; AGENT_STORAGE or AGENT_STOPPED.
AgentStatus agent_poll(Agent& agent);

// Sends the camera's attributes to the server. Returns the codes of agent_poll().
AgentStatus agent_report(Agent& agent);

#endif  // AGENT_PROCEDURE_H
