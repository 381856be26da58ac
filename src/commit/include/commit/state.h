// Determines the state of a camera with two slots from what runs, what the boot environment selects
// and what is recorded. No side effects.
#ifndef COMMIT_STATE_H
#define COMMIT_STATE_H

#include <stdint.h>

#include <array>

#include "commit/record.h"

// The variables of the boot environment, as text; "" for one that is not set. The names are those
// of BOOT_VARIABLES.
enum BootVariable { BOOTSYSTEM, UPGRADE_AVAILABLE, BOOTCOUNT, ROLLED_BACK, BOOT_LOADER_SAVED };
constexpr std::array<const char*, 5> BOOT_VARIABLES = {
    "bootsystem", "upgrade_available", "bootcount", "rolled_back", "boot_loader_saved"};
constexpr size_t BOOT_VALUE_SIZE = 16;
struct BootEnvironment {
    char values[BOOT_VARIABLES.size()][BOOT_VALUE_SIZE]{};
};

// What is observed at a start.
struct Observation {
    char running = NO_SLOT;  // from the kernel, never from the boot environment
    bool isReadable = false;
    BootEnvironment environment;  // empty if it is not readable
    TrialRecord record;           // phase NONE if no record can be read
    bool isRestarted = false;     // since the record's start
};

enum class Action : uint8_t {
    REPORT,           // an error: decide nothing, change nothing
    NOTHING,          // there is nothing to decide
    ADOPT,            // record the running system as committed
    TRY,              // check the health of the running system, then commit or roll back
    TRY_OR_ADOPT,     // a setting decides
    FINISH_COMMIT,    // record the commit
    ROLL_BACK,        // continue the rollback
    FINISH_ROLLBACK,  // record that the rollback has arrived
    RECORD_FALLBACK,  // record that the boot loader has returned to this system
    RECORD_LOST,      // record that the other system was never started, or is not selected any more
};

// One row of the table of states.
struct State {
    const char* name;     // one word
    uint8_t selected;     // bits of SELECTED_...: the boot environment's slot
    uint8_t flag;         // bits of BIT_NO and BIT_YES: upgrade_available
    uint8_t fallback;     // the same: the boot loader has returned here, which is not recorded yet
    uint8_t phases;       // bits 1 << Phase
    uint8_t isRunning;    // BIT_NO and BIT_YES: the record's slot is the running one
    uint8_t isRestarted;  // BIT_NO and BIT_YES
    Action action;
    const char* meaning;  // for people
};
constexpr uint8_t BIT_NO = 1;
constexpr uint8_t BIT_YES = 2;
constexpr uint8_t SELECTED_RUNNING = 1;
constexpr uint8_t SELECTED_OTHER = 2;
constexpr uint8_t SELECTED_NONE = 4;  // the boot environment names no slot
constexpr uint8_t SELECTED_UNREADABLE = 8;
constexpr uint8_t RUNNING_UNKNOWN = 16;

// The first row whose conditions are met; the rows cover every observation.
const State& state_of(const Observation& seen);

// 'B' for 'A' and the other way round, otherwise NO_SLOT.
char other_slot(char slot);

#endif  // COMMIT_STATE_H
