// The common part of every platform operation. After the operation has checked its arguments, it
// locks the mutex of its module, looks up the module's operation table, calls a slot and reports a
// failure once.
#ifndef PAL_CALL_FRAME_H
#define PAL_CALL_FRAME_H

#include <pthread.h>
#include <stdint.h>

#include "base/scoped_lock.h"
#include "hal/hal_interfaces.h"
#include "pal/error_log.h"
#include "pal/pal_result.h"

// The constants of one platform module.
template <typename Interface>
struct PalModule {
    pthread_mutex_t& mutex;
    // Looks up the module's table in the registry; returns null when no table has that index.
    const Interface* (*interface)(uint32_t index);
    ReportSource source;
    int32_t noInterface;  // the result when the table is missing or its slot is null
    // Converts a slot's result to the operation's: PAL_OK, or the code to return for a failure.
    int32_t (*result)(int32_t slotResult);
    // The function that reports failures, and the text appended to each report.
    decltype(&PAL_ErrorLog) report = PAL_ErrorLog;
    const char* textEnd = "";
};

// Reports that an argument of the operation is missing or out of range. Returns PAL_PARAM_INVALID.
// Takes no lock.
template <typename Interface>
int32_t pal_param_invalid(const PalModule<Interface>& module, const char* operation) {
    module.report(operation, __LINE__, module.source.tag, module.source.id, REPORT_LEVEL_ERROR,
                  "Param invalid%s", module.textEnd);
    return PAL_PARAM_INVALID;
}

// For PalModule::result: returns a slot's result, zero or not, as it is.
inline int32_t unchanged(int32_t slotResult) {
    return slotResult;
}

// Calls `call` with the slot and converts its result by PalModule::result. Failures are reported
// under the name `operation`. If a slot has further outputs, such as a descriptor, `call` stores
// them for the operation. Takes the module's mutex, which the caller must not hold; blocks until
// other calls of the module have ended and the slot returns.
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
