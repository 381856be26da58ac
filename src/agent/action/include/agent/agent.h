// The state of the agent's process, and the functions that all steps of its procedure share.
#ifndef AGENT_AGENT_H
#define AGENT_AGENT_H

#include <stdint.h>

#include <atomic>
#include <string>
#include <vector>

#include "agent/action.h"
#include "agent/agent_result.h"
#include "agent/folder.h"
#include "agent/server.h"
#include "agent/settings.h"
#include "package/certificates.h"
#include "package/content.h"

// Maximum number of statuses that are sent for one action. The server stores 1000; the rest is kept
// free for the result.
constexpr uint32_t STATUSES_MAX = 900;

// The value of `Waiting::reason` until a person on the camera has confirmed or denied the update.
constexpr char WAITS_FOR_CONSENT[] = "consent";

// The package of the current action, in the download folder.
struct Package {
    PackageFolder folder;
    std::vector<CheckedFile> checked = {};  // files that this process has verified already
    uint32_t goneOffers = 0;                // how often in a row one of its files did not exist
};

// What is known about the camera since this process was started.
struct CameraState {
    std::string bootId = {};           // of the running kernel
    std::string runningManifest = {};  // digest of the manifest whose system was found running
    bool awaitsRestart = false;        // the upgrade has ended, only the restart is missing
    // When another sender's request was found in the queue; 0: not found.
    int64_t othersSinceMs = 0;
    bool isOnTrial = false;  // corvo_commit had not decided at the last poll
};

// What the current update waits for.
struct Waiting {
    std::string reason = {};         // empty: it does not wait
    std::string id = {};             // of the action that waits
    std::string offer = {};          // digest of the offer that waits for consent
    std::string reported = {};       // the last `reason` that was logged and sent to the server
    std::string consentLogged = {};  // id and digest of the offer whose wait for consent was logged
};

// The delivery of an action's result.
struct Delivery {
    bool isUnstored = false;  // the result could not be stored
    bool isSent = false;      // the result was delivered, but its record still exists
    bool isAccepted = false;  // the server has accepted the delivered result
    bool lastFailed = false;  // the last action of this process failed
};

// What follows from the polls of the server.
struct Polling {
    uint32_t sleepS = 0;                     // the server's polling interval; 0: unknown
    std::vector<std::string> answered = {};  // what was answered in this poll, to answer it once
    bool progressed = false;                 // new bytes of a file were downloaded in this poll
    uint64_t bytesFetched = 0;  // of the last download, in bytes, when its progress was last sent
    uint64_t bytesToFetch = 0;  // by that download; 0: there was none
    DdiVersion installed = {};  // to be reported as installed; without a name: nothing is
    bool isDelayed = false;     // nothing is sent, because the first poll is to come later
    bool attributesDue = true;  // they are sent after a start and after each result, but not after
                                // each sleep
};

// To be used from one thread only.
struct Agent {
    // `stopFlag` must outlive the agent.
    Agent(const AgentSettings& given, Keyring keys, std::atomic<bool>& stopFlag);

    const AgentSettings& settings;
    Keyring keyring;
    std::atomic<bool>& stop;
    Server server;
    // For downloads, because `server` is used while a download is running. Between downloads both
    // use the same connection.
    Server files;

    ActionRecord action;
    Package package;
    CameraState camera;
    Waiting waiting;
    Delivery delivery;
    Polling polling;
};

// Prints a line on standard output: "action 11: TEXT" for the current action, or TEXT alone without
// an action. Control characters are replaced.
void log_action(const Agent& agent, const std::string& text);

// Prints the same line for another action.
void log_action(const std::string& id, const std::string& text);

// Stores the record of the current action. Returns AGENT_OK or AGENT_STORAGE.
AgentStatus store(Agent& agent);

// Sends a status of the action to the server, once. If the action has STATUSES_MAX statuses
// already, or the first poll is delayed, nothing is sent and AGENT_OK is returned. Otherwise
// returns the result of the request; AGENT_GONE means that the server no longer has the action.
AgentStatus send_status(Agent& agent, DdiExecution execution, const std::string& detail,
                        uint32_t done = 0, uint32_t of = 0);

// Sets what the update waits for, as `status` prints it. Logs it and sends it to the server if it
// has changed, unless the first poll is delayed, which does that.
void wait_for(Agent& agent, const std::string& reason);

// Logs that the update no longer waits.
void end_wait(Agent& agent);

// Whether the card for packages is not mounted. If so, the update is set to wait for it.
bool waits_for_card(Agent& agent);

// Removes all files in the agent's folder that the action does not need. An action with a result
// needs none.
void remove_unused_files(const Agent& agent);

// Waits; a signal ends the wait early. Returns false when the agent is stopping.
bool wait_ms(const Agent& agent, uint32_t milliseconds);

#endif  // AGENT_AGENT_H
