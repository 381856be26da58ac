// Determines the result of an action after the camera has restarted. Has no side effects. The model
// in src/agent/action/protocol.pml decides in the same way (step JUDGE).
#ifndef AGENT_JUDGE_H
#define AGENT_JUDGE_H

#include <stdint.h>

#include <string>

// Maximum number of requests for one action.
constexpr uint32_t ATTEMPTS_MAX = 3;

enum class Judgement {
    SUCCESS,
    FAILURE,
    AGAIN,  // nothing was decided, and another request may follow
};

// What the agent finds after the restart.
struct StateAfterRestart {
    std::string record;            // the outcome record, byte for byte
    std::string recordBefore;      // the same at the commit
    char slot = '?';               // 'A', 'B', or '?' when unknown
    char slotBefore = '?';         // the same at the commit
    bool packageComplete = false;  // all files of the package exist and are complete
    // Set only when the slot has changed. `partitionsRead`: the partitions were read and hashed.
    // `mismatch`: the partition or version file that differs from the package; empty when all
    // agree or nothing was compared.
    bool partitionsRead = false;
    std::string mismatch;
    uint32_t attempts = 0;  // requests so far
};

// Whether both slots are known and differ.
bool slot_was_switched(char slot, char slotBefore);

// Returns the result, and in `message` the reason that the server gets.
Judgement judge(const StateAfterRestart& state, std::string& message);

#endif  // AGENT_JUDGE_H
