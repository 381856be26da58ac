// The LED module: a worker thread shows the requested pattern on the camera's status LED.
//
// init and deinit must not run concurrently; the LED mutex of the platform abstraction prevents
// that. enable and blink may be called from any thread at any time.
#ifndef HAL_T31_LED_H
#define HAL_T31_LED_H

#include "hal/hal_interfaces.h"

#endif  // HAL_T31_LED_H
