// The action in hand, as it lies on the medium: what a restart of agent or camera must not forget.
//
// `action.json` in the state folder. Every change is written beside it, flushed, renamed into place
// and flushed again before the call returns, so that the medium has the old record or the new one.
#ifndef AGENT_ACTION_H
#define AGENT_ACTION_H

#include <stdint.h>

#include <string>
#include <vector>

#include "agent/agent_result.h"

// src/agent/action/protocol.pml has the same names.
enum ActionStage : int32_t {
    ACTION_NONE = 0,         // nothing in hand; there is no file
    ACTION_DOWNLOADING = 1,  // an offer was taken, its files are being fetched
    ACTION_WAITING = 2,      // all is there and verified; waits until the upgrade may start
    ACTION_COMMITTED = 3,    // what is needed to judge is on the medium; the request comes next
    ACTION_POSTED = 4,       // the request was posted
    ACTION_VERDICT = 5,      // how it ended is known; goes when the server has answered
};

// The word for a stage: "downloading".
const char* stage_word(ActionStage stage);

// A file of an action as the server offered it.
struct OfferedFile {
    std::string name;  // in the download folder
    uint64_t size = 0;
    std::string
        sha256;  // 64 hexadecimal digits; empty in a record of an agent that kept names only
};

struct ActionRecord {
    ActionStage stage = ACTION_NONE;
    std::string id;                  // the server's
    std::vector<OfferedFile> files;  // with other ones under the same id it is another action
    std::string manifestFile;        // one of them; empty when the offer does not show which
    bool downloadOnly = false;       // the server wanted no more; the files wait for another action
    uint32_t statuses = 0;  // that the server keeps of this action, requests for files included
    uint32_t malformedOffers = 0;     // in a row that could not be read; `files` is empty then
    std::string refusedCancellation;  // the last one that was answered

    // From the commit on. `manifest` is its text as package/manifest.h reads it.
    std::string manifest;
    uint32_t attempts = 0;     // requests that were posted or were about to be
    char slotBefore = '?';     // 'A', 'B', or '?' when it cannot be told
    std::string recordBefore;  // the outcome record, byte for byte
    std::string bootId;
    int64_t processId = 0;  // of the agent that posts

    // The verdict.
    bool succeeded = false;
    std::string words;
    uint32_t refusedResults = 0;  // times that the server did not take it
};

// The SHA-256 of the action's manifest, as in OfferedFile; empty when it is not known.
std::string manifest_digest(const ActionRecord& action);

// Reads the record; none is stage ACTION_NONE. Returns AGENT_OK, AGENT_MEDIUM when nobody can tell
// whether there is one, or AGENT_MALFORMED when it is not what an agent has written.
AgentStatus load_action(const std::string& stateFolder, ActionRecord& action);

// Renames a record that is malformed, as put_aside() does. Returns AGENT_OK or AGENT_MEDIUM.
AgentStatus put_action_aside(const std::string& stateFolder);

// Returns AGENT_OK or AGENT_MEDIUM.
AgentStatus store_action(const std::string& stateFolder, const ActionRecord& action);
AgentStatus remove_action(const std::string& stateFolder);

// A line of the local history: how an action ended, for `status`, for whoever examines a camera
// that the server has forgotten, and for a server that offers the same action again because it has
// lost the result. The digest tells it from another server's action with the same id.
struct HistoryEntry {
    std::string id;
    std::string manifestDigest;  // as manifest_digest() returns it
    std::string version;
    bool succeeded = false;
    // The server took the result. Else it did not know the action any more (somebody may have quit
    // it, or the answer to the same result was lost), or it refused the result each time.
    bool told = false;
    std::string words;
    // Of a success, what is needed to check that the same system still runs: as in ActionRecord.
    std::string manifest;
    char slotBefore = '?';
    int64_t time = 0;  // seconds since 1970, by the camera's clock
};

// Reads `history.json`; empty when there is none. Returns AGENT_OK, AGENT_MEDIUM when nobody can
// tell what it holds, or AGENT_MALFORMED when it is not what an agent has written.
AgentStatus load_history(const std::string& stateFolder, std::vector<HistoryEntry>& history);

// Adds to `history.json`, which keeps the last 20. One that is malformed is put aside, which is
// reported on standard error; one that cannot be read stays as it is. Returns AGENT_OK or
// AGENT_MEDIUM.
AgentStatus add_history(const std::string& stateFolder, const HistoryEntry& entry);

// Returns whether the history has this action. It has none whose digest is not known.
bool find_in_history(const std::string& stateFolder, const std::string& id,
                     const std::string& manifestDigest, HistoryEntry& entry);

#endif  // AGENT_ACTION_H
