// The platform of a real camera: the kernel, the tools of the boot environment, the record's
// folder, commands and signals.
#ifndef COMMIT_CAMERA_H
#define COMMIT_CAMERA_H

#include <string>

#include "base/unique_fd.h"
#include "commit/procedure.h"
#include "commit/settings.h"

struct Camera {
    const CommitSettings& settings;
    RecordFolder folder{};
    corvo::UniqueFd lock;
};

// The table of operations. The camera, whose settings are complete, must outlive it.
CommitPlatform platform_of(Camera& camera);

// Returns the slot whose word is on a kernel command line; NO_SLOT if the line contains neither
// word, or both.
char slot_on_command_line(const std::string& line, const std::string& wordA,
                          const std::string& wordB);

// From now on SIGTERM and SIGINT end the trial in an orderly way: wait() returns false, and a
// running command gets little more time.
void end_in_order_on_signals();

#endif  // COMMIT_CAMERA_H
