// The outcome record in words.
#ifndef TOOLS_OTACTL_OUTCOME_H
#define TOOLS_OTACTL_OUTCOME_H

#include <string>
#include <string_view>

#include "ota/ota_data.h"

// The record's content as text of a few lines. The file may be short, as it is for a moment while
// it is rewritten: the keys that are missing then read as 0, and the text says so.
std::string describe_outcome(std::string_view content);

#endif  // TOOLS_OTACTL_OUTCOME_H
