#include "patience.h"

#include <sys/stat.h>

#include "agent/camera_state.h"
#include "base/monotonic_clock.h"

bool wait_until(const Agent& agent, const std::function<bool()>& check) {
    const int64_t since = corvo::monotonic_ms();
    while (!check()) {
        if (agent.stop) {
            return false;
        }
        if (corvo::monotonic_ms() - since >= PATIENCE_MS) {
            return true;
        }
        if (!wait_ms(agent, CHECK_INTERVAL_MS)) {
            return false;
        }
    }
    return true;
}

bool wait_for_slot(const Agent& agent, char& slot) {
    return wait_until(agent, [&slot] { return (slot = boot_slot()) != '?'; });
}

bool wait_for_card(const Agent& agent) {
    return wait_until(agent, [&agent] {
        OpenFolder folder;
        struct stat status = {};
        return open_folder(agent.package.folder, folder).ok() &&
               find_entry(folder, agent.action.manifestFile, status);
    });
}

bool is_final(const PackageStatus& status) {
    return status.result != PACKAGE_UNREADABLE && status.result != PACKAGE_MISSING &&
           status.result != PACKAGE_NO_PARTITION;
}
