// Prints the state of the camera's two slots.
#ifndef COMMIT_STATUS_H
#define COMMIT_STATUS_H

#include "commit/state.h"

// Prints lines of "name  value", or one JSON object, to standard output.
void print_status(const Observation& seen, bool json);

#endif  // COMMIT_STATUS_H
