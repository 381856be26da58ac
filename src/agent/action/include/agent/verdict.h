// Determines the result of an action after the camera has restarted. Has no side effects. The model
// in src/agent/action/protocol.pml decides in the same way (step JUDGE).
#ifndef AGENT_VERDICT_H
#define AGENT_VERDICT_H

#include <stdint.h>

#include <string>

// Maximum number of requests for one action.
constexpr uint32_t ATTEMPTS_MAX = 3;

enum class Judgement { SUCCESS, FAILURE, AGAIN };

struct AfterRestart {
    std::string record;  // the outcome record, byte for byte
    std::string recordBefore;
    char slot = '?';  // 'A', 'B', or '?' when unknown
    char slotBefore = '?';
    bool packageComplete = false;  // all files of the package exist and are complete
    // Set only when the slot has changed. `partitionsRead`: the partitions were read and hashed.
    // `mismatch`: the partition or version file that differs from the package; empty when all
    // agree or nothing was compared.
    bool partitionsRead = false;
    std::string mismatch;
    uint32_t attempts = 0;  // requests so far
};

// Whether both slots are known and differ.
bool is_other_slot(char slot, char before);

// Returns the result, and in `message` the reason that the server gets.
Judgement judge(const AfterRestart& state, std::string& message);

#endif  // AGENT_VERDICT_H
