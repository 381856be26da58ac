// Status LED operations of the platform.
#ifndef PAL_PAL_LED_H
#define PAL_PAL_LED_H

#include <stdint.h>

#include "pal/pal_result.h"

// Starts the LED module. Takes the LED mutex. Returns PAL_OK, PAL_LED_NO_INTERFACE, or the module's
// non-zero code (1: the module is already running, or its thread cannot be created). Failures are
// reported.
int32_t PAL_LED_Init();

#endif  // PAL_PAL_LED_H
