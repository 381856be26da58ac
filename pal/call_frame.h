// What every operation of the platform does behind the check of its arguments: hold its module's
// mutex, look the module's table up, call a slot, report a failure once.
#ifndef PAL_CALL_FRAME_H
#define PAL_CALL_FRAME_H

#include <pthread.h>
#include <stdint.h>

#include "base/scoped_lock.h"
#include "board/error_log.h"
#include "hal/hal_interfaces.h"
#include "pal/pal_result.h"

// What is fixed for one module of the platform.
template <typename Interface>
struct PalModule {
    pthread_mutex_t& mutex;
    // Its lookup in the registry; null when there is no table of that index.
    const Interface* (*interface)(uint32_t index);
    ReportSource source;
    int32_t noInterface;  // the result when there is no table, or its slot is empty
    // What becomes of a slot's result: PAL_OK, or what the operation returns for the failure.
    int32_t (*result)(int32_t slotResult);
    // Reports, and what ends the text of a report.
    decltype(&PAL_ErrorLog) report = PAL_ErrorLog;
    const char* textEnd = "";
};

// For an operation whose arguments are missing or out of range: reports it and returns
// PAL_PARAM_INVALID. Takes no lock.
template <typename Interface>
int32_t pal_param_invalid(const PalModule<Interface>& module, const char* operation) {
    module.report(operation, __LINE__, module.source.tag, module.source.id, REPORT_LEVEL_ERROR,
                  "Param invalid%s", module.textEnd);
    return PAL_PARAM_INVALID;
}

// A slot's non-zero result passes unchanged.
inline int32_t unchanged(int32_t slotResult) {
    return slotResult;
}

// Calls `call` with the slot, in the name of the operation; what else the slot yields than success
// or failure, such as a count of bytes, `call` keeps for the operation. Blocks as long as another
// call of the module and the slot do; the module's mutex must not be held.
template <typename Interface, typename Slot, typename Call>
int32_t pal_call(const PalModule<Interface>& module, const char* operation, uint32_t index,
                 Slot Interface::*slot, const Call& call) {
    const auto failed = [&module, operation](const char* text, int32_t line) {
        module.report(operation, line, module.source.tag, module.source.id, REPORT_LEVEL_ERROR,
                      "%s%s", text, module.textEnd);
    };
    const corvo::ScopedLock lock(module.mutex);
    const Interface* const hal = module.interface(index);
    if (hal == nullptr || hal->*slot == nullptr) {
        failed("Get HAL interface fail", __LINE__);
        return module.noInterface;
    }
    const int32_t result = module.result(call(hal->*slot));
    if (result != PAL_OK) {
        failed("HAL interface exec fail", __LINE__);
    }
    return result;
}

#endif  // PAL_CALL_FRAME_H
