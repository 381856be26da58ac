// Reads the camera's state from outside the upgrade service: slot, outcome record, request queue,
// running service and partitions.
#ifndef AGENT_CAMERA_STATE_H
#define AGENT_CAMERA_STATE_H

#include <stdint.h>

#include <string>

#include "package/manifest.h"
#include "package/status.h"

// Returns the slot that the boot environment starts, as `fw_printenv` prints it: 'A', 'B', or '?'
// when it is unknown or the agent is stopping. Runs a command; blocks for at most 10 s.
char boot_slot();

// Returns the outcome record, byte for byte; empty when it cannot be read.
std::string outcome_record();

// Returns the random id that the kernel generated when it started (random(4), "boot_id"); empty
// when it cannot be read.
std::string kernel_boot_id();

// Returns the time since the kernel was started; UINT64_MAX when it cannot be read.
uint64_t seconds_since_start();

// Which process used the service's request queue last (msgctl(2), IPC_STAT).
enum class QueueUse {
    NO_QUEUE,  // the service does not run, or its upgrade has ended
    UNUSED,    // no process has sent a message since the queue was created
    BY_US,     // the last sender has the given process id
    BY_OTHERS,
};
QueueUse queue_use(int64_t processId);

// Returns a text that changes when any process sends a message to the queue.
std::string queue_mark();

// Whether an upgrade has begun since the camera started. At its beginning the service has the
// system-call daemon write a pid file, and a restart removes it. A pid file that does not belong to
// root, or that is a link, is ignored, because any user could have created it.
bool upgrade_has_begun();

// Whether the upgrade service is working: the pid file names a running service, or a service took
// the last request from the queue and that request was sent by the process `sender`. A process
// counts as the service if it has the service's name, if all its user and group ids are root's, and
// if it runs the service's program (skipped where this process may not read that).
bool service_is_busy(int64_t sender);

// Removes a request of this type from the queue. Returns whether it was still in the queue.
bool take_request_back(long messageType);

// Reads the beginning of each partition of the manifest, of the running slot's copy where two
// exist, as many bytes as its image has, and compares the SHA-256 with the manifest. Returns
// PACKAGE_OK; PACKAGE_DIFFERENT or PACKAGE_UNREADABLE with a text that names the partition.
PackageStatus check_partitions(const Manifest& manifest);

// Runs the fitness command; blocks for at most a minute. Returns whether the camera may be upgraded
// now. If not, `message` becomes the command's first line of output, or its exit status. When the
// agent is stopping, the command is killed and the result has no meaning; callers check that first.
bool camera_is_fit(const std::string& command, std::string& message);

// Returns the free bytes, for unprivileged processes, of the open folder's file system; 0 when
// unknown.
uint64_t free_space(int folder);

#endif  // AGENT_CAMERA_STATE_H
