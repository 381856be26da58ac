// Compares what the server offers with the agent's record, and decides what follows. Has no side
// effects. The model in src/agent/action/protocol.pml decides in the same way (step POLL).
#ifndef AGENT_OFFER_H
#define AGENT_OFFER_H

#include <stddef.h>

#include <string>

#include "agent/action.h"
#include "agent/ddi.h"

enum Offer : size_t {
    OFFER_NOTHING = 0,       // the server offers no action
    OFFER_GONE = 1,          // the action was not found; the next poll shows whether it has ended
    OFFER_UNREADABLE = 2,    // the action cannot be parsed; only its id is known
    OFFER_SAME = 3,          // the current action
    OFFER_OTHER_FILES = 4,   // the current action's id with other files
    OFFER_OTHER_ACTION = 5,  // another action
};

// Except for ACCEPT and REFUSE, the model has the same names; there ACCEPT is a part of POLL, and
// offers are always readable.
enum class Step {
    POLL,      // nothing follows until the next poll
    ACCEPT,    // the offer becomes the current action
    REFUSE,    // the action fails if it stays unreadable
    DROP,      // the current action is removed
    DOWNLOAD,  // its missing files are downloaded
    COMMIT,    // its upgrade is started
    CLOSE,     // its result is sent
    REMEMBER,  // its result goes only to the history
};

// Whether the upgrade must be completed. This also holds for an interrupted upgrade that waits for
// its next request, because partitions may be half written.
bool has_begun(const ActionRecord& action);

// Compares an offer that was read.
Offer compare_offer(const ActionRecord& action, const DdiAction& offer);

// Returns what follows from the offer for the current action.
Step next_step(const ActionRecord& action, Offer offer);

// Returns "11" for ".../deploymentBase/11?c=-2127183556".
std::string id_of(const std::string& href);

// Returns the digest over the offer that a person consents to: names, sizes and digests of its
// files, in the server's order.
std::string offer_digest(const DdiAction& offer);

// Returns the offer's file with this name, or null.
const DdiFile* find_file(const DdiAction& offer, const std::string& name);

// Returns the one file of the offer that has a signature file, or null when the offer has no such
// file or more than one.
const DdiFile* find_manifest(const DdiAction& offer);

// Adds id, files and module of the offer to an empty record.
void take_files(const DdiAction& offer, ActionRecord& action);

#endif  // AGENT_OFFER_H
