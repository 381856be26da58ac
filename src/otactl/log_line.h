// Parses the messages that the service publishes for the log centre.
#ifndef OTACTL_LOG_LINE_H
#define OTACTL_LOG_LINE_H

#include <stdint.h>

#include <string>
#include <string_view>

// The log line of one published message, without the trailing newline and NUL, and its level.
struct PublishedLine {
    uint32_t level;
    std::string_view line;
};

// Parses a message; `published` points into it. Returns false unless the message consists of the
// topic, "|", a record header, and as many bytes as the header says.
bool parse_log_message(std::string_view message, PublishedLine& published);

// The fields of a line: "stamp;function;source line;module;level;text".
struct LogLine {
    std::string_view stamp;     // month, day, hour, minute, second, ".", milliseconds
    std::string_view function;  // name of the function that logged the line
    std::string_view text;
};

// Splits a line; the fields point into it. Returns false when a field is missing.
bool parse_log_line(std::string_view line, LogLine& fields);

// Formats the stamp "0523081502.417" as "08:15:02.417". A stamp of another length is returned
// without its control characters, but otherwise unchanged.
std::string time_of_day(std::string_view stamp);

// Replaces control characters by "?", so that a log line cannot send commands to the terminal.
std::string printable(std::string_view text);

#endif  // OTACTL_LOG_LINE_H
