#include "otactl/progress.h"

#include <array>

namespace {

// A log line of the service that is not about a module: what to show for it, and its effect.
struct KnownLine {
    std::string_view begin;
    std::string_view message;  // shown to the user; "": show the line itself
    void (*apply)(Progress& progress);
};

void nothing(Progress& /*progress*/) {}

constexpr std::array KNOWN_LINES = {
    KnownLine{"UPGRADE_LUMO_RECV_MSG", "request taken", [](Progress& p) { p.taken = true; }},
    KnownLine{"ota kill process start", "stopping the applications", nothing},
    KnownLine{"ota kill process end", "applications stopped",
              [](Progress& p) { p.applicationsStopped = true; }},
    KnownLine{"auto flash flag is set", "auto-flash: requested modules are not checked", nothing},
    KnownLine{"ota file ", "", nothing},
    KnownLine{"moduleType ", "", nothing},
    KnownLine{"moduleCount ", "", nothing},
    KnownLine{"UPGRADE_LUMO_UGRADE_SUCCESS", "upgrade succeeded",
              [](Progress& p) { p.verdict = Verdict::SUCCESS; }},
    KnownLine{"UPGRADE_LUMO_UGRADE_FAILED", "upgrade failed",
              [](Progress& p) { p.verdict = Verdict::FAILURE; }},
    KnownLine{"AB switch end, ret=0", "boot slot switched", nothing},
    KnownLine{"AB switch end, ret=", "boot slot not switched", nothing},
    KnownLine{"umount disk", "unmounting the disk", nothing},
    KnownLine{"Restart the system", "restarting", [](Progress& p) { p.restarting = true; }},
};

// A log line about one module. It consists of `begin`, the module's partition or path, and `end`.
struct ModuleLine {
    std::string_view begin;
    std::string_view end;
    ModuleStage stage;
    std::string_view message;  // shown to the user after the module's name
};

constexpr std::array MODULE_LINES = {
    ModuleLine{"upgrade ", " start, moudle type:", ModuleStage::WRITING, "writing"},
    ModuleLine{"partition: ", " upgrade success", ModuleStage::WRITTEN, "written"},
    ModuleLine{"partition: ", " read verify success", ModuleStage::VERIFIED, "read back, equal"},
    ModuleLine{"partition: ", " read verify failed", ModuleStage::WRITING, "read back, differs"},
    ModuleLine{"partition: ", " upgrade failed", ModuleStage::FAILED, "write failed"},
    ModuleLine{"ota ", " failed", ModuleStage::FAILED, "failed"},
};

ModuleProgress* find_named(Progress& progress, std::string_view name) {
    for (ModuleProgress& module : progress.modules) {
        const std::string_view fileName = module.entry->fileName;
        if (name == module.entry->partitionName ||
            (name.ends_with(fileName) &&
             name.substr(0, name.size() - fileName.size()).ends_with('/'))) {
            return &module;
        }
    }
    return nullptr;
}

std::string advance_module(Progress& progress, std::string_view text) {
    for (const ModuleLine& line : MODULE_LINES) {
        const size_t end = text.rfind(line.end);
        if (!text.starts_with(line.begin) || end == std::string_view::npos ||
            end < line.begin.size()) {
            continue;
        }
        ModuleProgress* module =
            find_named(progress, text.substr(line.begin.size(), end - line.begin.size()));
        if (module == nullptr) {
            continue;
        }
        // The service logs a mismatch twice, and a failure twice. Show each to the user once.
        const bool repeated = module->stage == ModuleStage::FAILED ||
                              (module->stage == ModuleStage::WRITING && line.message != "writing" &&
                               line.stage == ModuleStage::WRITING);
        module->stage = line.stage;
        if (line.stage == ModuleStage::FAILED) {
            progress.failed = module->entry;
        }
        if (repeated) {
            return "";
        }
        return std::string(module->entry->partitionName) + ": " + std::string(line.message);
    }
    return "";
}

int steps_of(const Progress& progress, const ModuleProgress& module) {
    switch (module.stage) {
        case ModuleStage::WRITTEN:
            return 1;
        case ModuleStage::VERIFIED:
            return progress.readsBack ? 2 : 1;
        default:
            return 0;
    }
}

}  // namespace

Progress start_progress(const std::vector<const OtaPackageEntry*>& modules, bool readsBack) {
    Progress progress = {};
    progress.readsBack = readsBack;
    for (const OtaPackageEntry* entry : modules) {
        progress.modules.push_back({entry, ModuleStage::WAITING});
    }
    return progress;
}

std::string advance_progress(Progress& progress, std::string_view text) {
    for (const KnownLine& line : KNOWN_LINES) {
        if (!text.starts_with(line.begin)) {
            continue;
        }
        line.apply(progress);
        std::string message(line.message.empty() ? text : line.message);
        // The service reports success for the modules that it tried to write. It skips a module
        // whose image has disappeared, which the user must know.
        if (line.begin == "UPGRADE_LUMO_UGRADE_SUCCESS") {
            for (const ModuleProgress& module : progress.modules) {
                if (module.stage == ModuleStage::WAITING) {
                    message +=
                        "\n" + std::string(module.entry->partitionName) + ": was not written";
                }
            }
        }
        return message;
    }
    if (text.starts_with("re-upgrade, cnt")) {
        return "writing again (" + std::string(text) + ")";
    }
    return advance_module(progress, text);
}

int progress_percent(const Progress& progress) {
    const int perModule = progress.readsBack ? 2 : 1;
    const int total = 4 + perModule * static_cast<int>(progress.modules.size());
    int done = static_cast<int>(progress.taken) + static_cast<int>(progress.applicationsStopped) +
               static_cast<int>(progress.verdict != Verdict::NONE) +
               static_cast<int>(progress.restarting);
    for (const ModuleProgress& module : progress.modules) {
        done += steps_of(progress, module);
    }
    return done * 100 / total;
}

std::string current_step(const Progress& progress) {
    if (progress.restarting) {
        return "restarting";
    }
    if (progress.verdict != Verdict::NONE) {
        return "finishing";
    }
    for (const ModuleProgress& module : progress.modules) {
        if (module.stage == ModuleStage::WRITING) {
            return std::string("writing ") + module.entry->partitionName;
        }
        if (module.stage == ModuleStage::WRITTEN && progress.readsBack) {
            return std::string("reading back ") + module.entry->partitionName;
        }
    }
    if (!progress.taken) {
        return "waiting for the service";
    }
    return progress.applicationsStopped ? "preparing" : "stopping the applications";
}
