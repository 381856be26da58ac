// The outcome record in words.
#ifndef PACKAGE_OUTCOME_H
#define PACKAGE_OUTCOME_H

#include <string>
#include <string_view>

#include "ota/ota_data.h"

// What a record says of the last upgrade.
enum class Outcome {
    NONE,  // there was none
    // Begun without a verdict, or the record makes no sense or is cut short, to nothing at all too:
    // it is rewritten in place.
    UNFINISHED,
    FAILED,
    SUCCEEDED,
};

Outcome read_outcome(std::string_view content);

// The same in one line: "the last upgrade succeeded, state success".
std::string outcome_words(std::string_view content);

// The record's content as text of a few lines. The file may be short, as it is for a moment while
// it is rewritten: the keys that are missing then read as 0, and the text says so.
std::string describe_outcome(std::string_view content);

#endif  // PACKAGE_OUTCOME_H
