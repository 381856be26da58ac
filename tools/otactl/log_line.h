// What the log centre gets: the published message and the line in it.
#ifndef TOOLS_OTACTL_LOG_LINE_H
#define TOOLS_OTACTL_LOG_LINE_H

#include <stdint.h>

#include <string>
#include <string_view>

// The line of one published message, without its newline and NUL, and its level.
struct PublishedLine {
    uint32_t level;
    std::string_view line;
};

// Takes a message apart; `published` points into it. Returns false when it is not topic, "|", head
// and as many bytes as the head says.
bool parse_log_message(std::string_view message, PublishedLine& published);

// The fields of a line: "stamp;function;source line;module;level;text".
struct LogLine {
    std::string_view stamp;     // month, day, hour, minute, second, ".", milliseconds
    std::string_view function;  // that logged it
    std::string_view text;
};

// Takes a line apart; the fields point into it. Returns false when one is missing.
bool parse_log_line(std::string_view line, LogLine& fields);

// "0523081502.417" as "08:15:02.417"; a stamp of any other form as it is.
std::string time_of_day(std::string_view stamp);

// Fit for a terminal: control characters replaced, so that no line can play with it.
std::string printable(std::string_view text);

#endif  // TOOLS_OTACTL_LOG_LINE_H
