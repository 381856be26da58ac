// What is done at a start of the camera, and at the command of a person. Each step is stored before
// the next one begins, so that a power cut at any moment leaves a state of the table in state.h.
#ifndef COMMIT_PROCEDURE_H
#define COMMIT_PROCEDURE_H

#include <stdint.h>

#include <span>
#include <string>

#include "commit/record.h"
#include "commit/state.h"

constexpr int COMMIT_EXIT_OK = 0;      // decided, or nothing to decide
constexpr int COMMIT_EXIT_FAILED = 1;  // an error without a decision, or a rollback
constexpr int COMMIT_EXIT_REFUSED = 2;

struct BootValue {
    BootVariable variable;
    const char* value;  // "" removes the variable
};

// Returns whether all these variables have these values.
bool has_values(const BootEnvironment& environment, std::span<const BootValue> values);

// What the procedures use. The tests have another table, which simulates boot loader, clock and
// power cuts.
struct CommitPlatform {
    void* context;
    RecordStorage records;
    // Returns the running slot, or NO_SLOT.
    char (*running_slot)(void* context);
    // Writes the kernel's id of the present start; "" if it is unknown.
    void (*boot_id)(void* context, char (&id)[BOOT_ID_SIZE]);
    // Reads the variables. Returns whether they can be read.
    bool (*read_environment)(void* context, BootEnvironment& environment);
    // Changes all the values in one store. The result is only known by reading them.
    void (*store_environment)(void* context, std::span<const BootValue> values);
    // Runs every health command once, each for at most `limitMs`. Returns whether all of them
    // succeeded; if not, `reason` names the first one that failed, in one line.
    bool (*check_health)(void* context, int64_t limitMs, std::string& reason);
    int64_t (*monotonic_ms)(void* context);
    // Waits, or returns false at once when the program must end because the camera stops.
    bool (*wait)(void* context, int64_t milliseconds);
    // Flushes everything and requests a restart. Returns whether that was possible.
    bool (*restart)(void* context);
    // Keeps other instances of the program from acting until unlock().
    void (*lock)(void* context);
    void (*unlock)(void* context);
    // Reports one line.
    void (*log)(void* context, const std::string& line);
};

struct TrialSettings {
    uint32_t deadlineS = 300;    // seconds that the trial may take in all
    uint32_t intervalS = 5;      // between two rounds of health commands
    uint32_t startLimit = 3;     // unfinished starts
    bool adoptSwitched = false;  // a slot that another program has selected is not checked
};
constexpr uint32_t START_LIMIT_MIN = 3;
constexpr uint16_t ROLLBACK_RESTARTS_MAX = 3;

// Reads what the state follows from. Returns in a second or so; the environment is read by
// programs.
Observation observe(const CommitPlatform& platform);

// Decides about the running system. Blocks until then, at most about deadlineS. Returns an exit
// status.
int decide_at_boot(const CommitPlatform& platform, const TrialSettings& settings);

// Commits or gives up a system that is on trial, without a check. roll_back_now() also continues a
// rollback that was interrupted. Each returns COMMIT_EXIT_OK; COMMIT_EXIT_FAILED if nothing is on
// trial, or if a step failed, be it the last one, the restart.
int commit_now(const CommitPlatform& platform);
int roll_back_now(const CommitPlatform& platform);

// Records that the other slot is about to be selected for a trial. Returns COMMIT_EXIT_OK;
// COMMIT_EXIT_FAILED if this cannot be recorded; COMMIT_EXIT_REFUSED if that slot is running, or
// if the running system is on trial: the slot to return to must not be tried before that is
// decided.
int record_arming(const CommitPlatform& platform, char slot);

#endif  // COMMIT_PROCEDURE_H
