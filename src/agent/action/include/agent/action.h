// The record of the current action, the history of ended ones, and the consent of a person. They
// are kept in the state folder so that they survive a restart of the agent or of the camera.
//
// The record is `action.json`. Each change is written to a second file, flushed, renamed to
// `action.json` and flushed again before the call returns, so that a power cut leaves either the
// old record or the new one.
#ifndef AGENT_ACTION_H
#define AGENT_ACTION_H

#include <stdint.h>

#include <string>
#include <vector>

#include "agent/agent_result.h"

// src/agent/action/protocol.pml has the same names.
enum ActionStage : int32_t {
    ACTION_NONE = 0,         // no action; the record does not exist
    ACTION_DOWNLOADING = 1,  // an offer was accepted, its files are being downloaded
    ACTION_WAITING = 2,      // all files are stored and verified; waits until the upgrade may start
    ACTION_COMMITTED = 3,    // the state before the upgrade is recorded; the request is posted next
    ACTION_POSTED = 4,       // the request was posted
    ACTION_RESULT = 5,       // the result is known and has to be delivered to the server
};

// The name of a stage in the record and in `status`: "downloading".
const char* stage_name(ActionStage stage);

// A file of an action as the server offered it.
struct OfferedFile {
    std::string name;  // in the download folder
    uint64_t size = 0;
    // 64 hexadecimal digits; empty in a record of an older agent, which stored only names.
    std::string sha256;
};

struct ActionRecord {
    ActionStage stage = ACTION_NONE;
    std::string id;                  // the server's id of the action
    std::vector<OfferedFile> files;  // an offer with the same id and other files is another action
    std::string manifestFile;   // its name in `files`; empty when the offer has not exactly one
    bool downloadOnly = false;  // the server asked for the download only; the files are kept
                                // for a later action
    std::string module;     // the server's name of the software module that contains the manifest
    uint32_t statuses = 0;  // statuses that the server has stored, including requests for files
    uint32_t malformedOffers = 0;     // unreadable offers in a row; `files` is empty then
    std::string refusedCancellation;  // id of the last cancellation that was refused

    // Set by the commit. `manifest` is the manifest's text, for parse_manifest().
    std::string manifest;
    uint32_t attempts = 0;     // requests that were posted or were about to be posted
    char slotBefore = '?';     // 'A', 'B', or '?' when unknown
    std::string recordBefore;  // the outcome record, byte for byte
    std::string bootId;        // kernel_boot_id() at the commit, or when a success was last checked
    int64_t processId = 0;     // of the agent that posts the request
    std::string trialBefore;   // Trial::mark at the commit

    // The result.
    bool succeeded = false;
    std::string message;
    uint32_t refusedResults = 0;  // how often the server refused it
};

// Returns the SHA-256 of the action's manifest in the form of OfferedFile; empty when unknown.
std::string manifest_digest(const ActionRecord& action);

// Reads the record; a missing record yields the stage ACTION_NONE. Returns AGENT_OK; AGENT_STORAGE
// when it cannot be read; or AGENT_MALFORMED when it is not a record that an agent has written.
AgentStatus load_action(const std::string& stateFolder, ActionRecord& action);

// Renames a malformed record as put_aside() does. Returns AGENT_OK or AGENT_STORAGE.
AgentStatus put_action_aside(const std::string& stateFolder);

// Returns AGENT_OK or AGENT_STORAGE.
AgentStatus store_action(const std::string& stateFolder, const ActionRecord& action);
AgentStatus remove_action(const std::string& stateFolder);

// The result of an ended action. `status` prints the last one. If the server offers an action again
// because it has lost the result, the result is sent from here. The manifest's digest distinguishes
// the action from one of another server with the same id.
struct HistoryEntry {
    std::string id;
    std::string manifestDigest;  // as manifest_digest() returns it
    std::string version;
    bool succeeded = false;
    // Whether the server accepted the result. If not, the server no longer knew the action (an
    // operator may have force quit it, or the answer to an earlier delivery was lost), or it
    // refused the result each time.
    bool reported = false;
    std::string message;
    // Set for a success, to check later that the same system still runs; as in ActionRecord.
    std::string manifest;
    char slotBefore = '?';
    std::string module;     // as in ActionRecord
    std::string installed;  // version that was reported as installed later; empty: none
    int64_t time = 0;       // seconds since 1970, by the camera's clock
};

// Reads `history.json`; `history` is empty when the file does not exist. Returns AGENT_OK;
// AGENT_STORAGE when it cannot be read; or AGENT_MALFORMED when an agent has not written it.
AgentStatus load_history(const std::string& stateFolder, std::vector<HistoryEntry>& history);

// Adds an entry to `history.json`, which keeps the last 20. A malformed file is renamed, as
// put_aside() does, and reported on standard error. A file that cannot be read is not changed.
// Returns AGENT_OK or AGENT_STORAGE.
AgentStatus add_history(const std::string& stateFolder, const HistoryEntry& entry);

// Returns the last entry of a success, or null.
const HistoryEntry* last_success(const std::vector<HistoryEntry>& history);

// Stores in the last entry of a success that this version was reported as installed. Returns
// AGENT_OK, or the result of load_history().
AgentStatus store_installed(const std::string& stateFolder, const std::string& version);

// Finds the action with this id and manifest. Returns false when the history does not contain it,
// or when the digest is empty (unknown).
bool find_in_history(const std::string& stateFolder, const std::string& id,
                     const std::string& manifestDigest, HistoryEntry& entry);

// A person's answer, given on the camera, to an update that waits for consent: `consent.json`.

// Stores the answer for the action with this id and replaces an older answer. `offer` is the digest
// over the offered files; the answer is not valid for other files with the same id. Returns
// AGENT_OK or AGENT_STORAGE.
AgentStatus store_consent(const std::string& stateFolder, const std::string& id,
                          const std::string& offer, bool confirmed);

// Reads the answer for this action. Returns AGENT_OK; AGENT_GONE when no answer is stored or it is
// for another action; AGENT_MALFORMED when store_consent() did not write the file; or AGENT_STORAGE
// when it cannot be read.
AgentStatus find_consent(const std::string& stateFolder, const std::string& id,
                         const std::string& offer, bool& confirmed);

// Renames a malformed answer as put_aside() does. Returns AGENT_OK or AGENT_STORAGE.
AgentStatus put_consent_aside(const std::string& stateFolder);

// Returns AGENT_OK or AGENT_STORAGE.
AgentStatus remove_consent(const std::string& stateFolder);

#endif  // AGENT_ACTION_H
