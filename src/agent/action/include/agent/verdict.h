// How an action ended, judged after the camera has restarted. A table without side effects; the
// model in src/agent/action/protocol.pml has the same rows.
#ifndef AGENT_VERDICT_H
#define AGENT_VERDICT_H

#include <stdint.h>

#include <string>

// Requests for one action in all.
constexpr uint32_t ATTEMPTS_MAX = 3;

enum class Judgement { SUCCESS, FAILURE, AGAIN };

struct AfterRestart {
    std::string record;  // the outcome record, byte for byte
    std::string recordBefore;
    char slot = '?';  // 'A', 'B', or '?' when it cannot be told
    char slotBefore = '?';
    bool packageThere = false;  // every file of it, whole
    // With the other slot only: whether the partitions were read and hashed, and what speaks
    // against the new system running, a partition or the version file that is not what the package
    // has. Empty when nothing does or nobody asked.
    bool partitionsRead = false;
    std::string disagreement;
    uint32_t attempts = 0;  // so far
};

bool is_other_slot(char slot, char before);

// `words` is what the server is told.
Judgement judge(const AfterRestart& seen, std::string& words);

#endif  // AGENT_VERDICT_H
