#include "commit/status.h"

#include <stdio.h>

#include <string>

#include "cli/error_line.h"

namespace {

// A text in quotation marks. Control characters and invalid UTF-8 are replaced by printable().
std::string json_text(const std::string& text) {
    std::string quoted = "\"";
    for (const char c : printable(text)) {
        quoted += c == '"' || c == '\\' ? std::string{'\\', c} : std::string(1, c);
    }
    return quoted + '"';
}

std::string json_slot(char slot) {
    return slot == NO_SLOT ? "null" : json_text(std::string(1, slot));
}

}  // namespace

void print_status(const Observation& seen, bool json) {
    const State& state = state_of(seen);
    const TrialRecord& record = seen.record;
    const char* const selected = seen.environment.values[BOOTSYSTEM];
    if (json) {
        printf(
            "{\"state\":%s,\"meaning\":%s,\"running\":%s,\"selected\":%s,\"committed\":%s,"
            "\"trial\":%s,\"starts\":%u,\"restarts\":%u,\"reason\":%s}\n",
            json_text(state.name).c_str(), json_text(state.meaning).c_str(),
            json_slot(seen.running).c_str(),
            selected[0] == '\0' ? "null" : json_text(selected).c_str(),
            json_slot(record.committed).c_str(), json_slot(record.trial).c_str(), record.starts,
            record.restarts, json_text(record.reason).c_str());
        return;
    }
    printf("state      %s: %s\n", state.name, state.meaning);
    printf("running    %c\n", seen.running);
    printf("selected   %s\n", selected[0] == '\0' ? "?" : printable(selected).c_str());
    printf("committed  %c\n", record.committed);
    printf("trial      %c, starts %u\n", record.trial, record.starts);
    if (record.reason[0] != '\0') {
        printf("reason     %s\n", printable(record.reason).c_str());
    }
}
