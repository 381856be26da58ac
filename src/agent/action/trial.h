// What corvo_commit has recorded about the running system. Its record is read, and never changed.
#ifndef AGENT_TRIAL_H
#define AGENT_TRIAL_H

#include <string>

// What an upgrade waits for while a trial is not decided.
constexpr char WAITS_FOR_COMMIT[] = "corvo_commit: a new system is on trial";

struct Trial {
    // Whether corvo_commit has a record. If not, nothing of it is installed, and the other fields
    // have their defaults.
    bool isRecorded = false;
    // Whether a system is on trial, or about to be, or whether corvo_commit still has to decide
    // about the running one.
    bool isUndecided = false;
    char committed = '?';  // the slot; '?' if the record cannot be read
    char tried = '?';      // the slot of the current or of the last trial
    std::string reason;    // why the last trial failed; empty if it did not
    std::string mark;      // differs between two trials
};

// Reads the record, in a moment. `slot` is the slot that the boot environment starts.
Trial read_trial(char slot);

// Reads the record and, if it exists, the slot; blocks for at most 10 s.
Trial read_trial();

#endif  // AGENT_TRIAL_H
