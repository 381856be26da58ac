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

// agent/protocol.pml has the same names.
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

struct ActionRecord {
    ActionStage stage = ACTION_NONE;
    std::string id;                  // the server's
    std::vector<std::string> files;  // the action's, in the download folder
    std::string manifestFile;        // one of them; from the download on
    bool downloadOnly = false;       // the server wanted no more; the files wait for another action
    uint32_t statuses = 0;  // that the server keeps of this action, requests for files included
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
};

// Reads the record; none is stage ACTION_NONE. Returns AGENT_OK, AGENT_MEDIUM when nobody can tell
// whether there is one, or AGENT_MALFORMED when it is not what an agent has written.
AgentStatus load_action(const std::string& stateFolder, ActionRecord& action);

// Renames a record that is malformed, as put_aside() does. Returns AGENT_OK or AGENT_MEDIUM.
AgentStatus put_action_aside(const std::string& stateFolder);

// Returns AGENT_OK or AGENT_MEDIUM.
AgentStatus store_action(const std::string& stateFolder, const ActionRecord& action);
AgentStatus remove_action(const std::string& stateFolder);

// A line of the local history: how an action ended, for `status` and for whoever looks at a camera
// that the server has forgotten.
struct HistoryEntry {
    std::string id;
    std::string version;
    bool succeeded = false;
    // The server took the verdict. Not known when it said that the action has ended: somebody may
    // have quit it, or the answer to the same verdict was lost.
    bool told = false;
    std::string words;
    int64_t time = 0;  // seconds since 1970, by the camera's clock
};

// Reads `history.json`; empty when there is none. Returns AGENT_OK, AGENT_MEDIUM when nobody can
// tell what it holds, or AGENT_MALFORMED when it is not what an agent has written.
AgentStatus load_history(const std::string& stateFolder, std::vector<HistoryEntry>& history);

// Adds to `history.json`, which keeps the last 20. One that is malformed is put aside, which is
// reported on standard error; one that cannot be read stays as it is. Returns AGENT_OK or
// AGENT_MEDIUM.
AgentStatus add_history(const std::string& stateFolder, const HistoryEntry& entry);

#endif  // AGENT_ACTION_H
