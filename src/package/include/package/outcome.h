// Reads the outcome record, in which the service stores the result of the last upgrade.
#ifndef PACKAGE_OUTCOME_H
#define PACKAGE_OUTCOME_H

#include <string>
#include <string_view>

#include "ota/ota_data.h"

// The result of the last upgrade according to the record.
enum class Outcome {
    NONE,  // no upgrade yet
    // The upgrade has started but has no verdict; or the record is inconsistent, too short or
    // empty, which happens because the service rewrites it in place.
    UNFINISHED,
    FAILED,
    SUCCEEDED,
};

Outcome read_outcome(std::string_view content);

// Describes the record in one line: "the last upgrade succeeded, state success".
std::string outcome_words(std::string_view content);

// Describes every key of the record, in a few lines. While the service rewrites the file it is too
// short for a moment: missing keys are shown as 0, and the text reports the file's size.
std::string describe_outcome(std::string_view content);

#endif  // PACKAGE_OUTCOME_H
