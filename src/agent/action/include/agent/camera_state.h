// What can be seen of this camera from outside the upgrade service.
#ifndef AGENT_CAMERA_STATE_H
#define AGENT_CAMERA_STATE_H

#include <stdint.h>

#include <functional>
#include <string>

#include "agent/agent_result.h"
#include "package/manifest.h"
#include "package/status.h"

// Which system the boot environment starts, as `fw_printenv` says: 'A', 'B', or '?' when it cannot
// be told, or the agent is to end. Starts a command; blocks for at most 10 s.
char boot_slot();

// Of the outcome record, byte for byte; empty when there is none.
std::string outcome_record();

// What the kernel drew when it started (random(4), "boot_id"); empty when it cannot be read.
std::string kernel_boot_id();

// Who has used the service's request queue (msgctl(2), IPC_STAT).
enum class QueueUse {
    NO_QUEUE,  // the service does not run, or its upgrade is over
    UNUSED,    // nobody has sent anything since the queue was made
    BY_US,     // the last sender has the given process id
    BY_OTHERS,
};
QueueUse queue_use(int64_t processId);

// Text that is another one as soon as anybody has sent something to the queue.
std::string queue_mark();

// Whether an upgrade has begun since the camera started: the service then has the system-call
// daemon write a pid file to a folder that a restart empties. A file there that is not root's, or
// that is a link, was made by somebody else and counts for nothing.
bool upgrade_has_begun();

// Whether a service is at work: whom the pid file names lives and is one, or one has taken the last
// request from the queue, and that was sent by this process id. A service is a process that has its
// name, that belongs to root with all its ids, and, where this process may look, that runs its
// program.
bool service_is_busy(int64_t sender);

// Takes a request of this type back. Returns whether it still stood in the queue.
bool take_request_back(long messageType);

// Reads as many bytes of each written partition as its image had and compares their SHA-256 with
// the manifest's. Returns PACKAGE_OK, or PACKAGE_DIFFERENT or PACKAGE_UNREADABLE with the
// partition.
PackageStatus check_partitions(const Manifest& manifest);

// Runs the fitness command; blocks for at most a minute. Returns whether the camera may be upgraded
// now; else `words` has its first line of output or its exit status. One that was killed because
// the agent is to end says nothing: the caller looks at that first.
bool camera_is_fit(const std::string& command, std::string& words);

// Bytes that an ordinary process may still write to the open folder's file system; 0 when it cannot
// be told.
uint64_t free_space(int folder);

#endif  // AGENT_CAMERA_STATE_H
