#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

#include "cli/error_line.h"
#include "otactl/commands.h"
#include "otactl/log_line.h"
#include "otactl/log_stream.h"

namespace {

const char* colour_of(uint32_t level) {
    switch (level) {
        case 2:
            return "\033[2m";  // detail: dim
        case 3:
            return "";
        default:
            return "\033[1;32m";  // key events
    }
}

}  // namespace

int logs(const LogsOptions& options) {
    LogStream stream;
    std::string error;
    if (!stream.open(options.address, error)) {
        print_error(OTACTL, "cannot subscribe at " + options.address + ": " + error);
        return OTACTL_WRONG_USE;
    }
    const bool coloured = isatty(STDOUT_FILENO) == 1 && getenv("NO_COLOR") == nullptr;
    std::string message;
    for (;;) {
        switch (stream.receive(message, -1)) {
            case StreamEvent::BROKEN:
                print_error(OTACTL, "the subscription to the log failed");
                return OTACTL_FAILED;
            case StreamEvent::QUIET:
                continue;
            case StreamEvent::MESSAGE:
                break;
        }
        PublishedLine published = {};
        if (!parse_log_message(message, published)) {
            print_error(OTACTL, "ignored a message that is not a log record");
            continue;
        }
        if (published.level < options.level) {
            continue;
        }
        const std::string line = printable(published.line);
        const char* colour = coloured ? colour_of(published.level) : "";
        printf("%s%s%s\n", colour, line.c_str(), *colour != '\0' ? "\033[0m" : "");
        if (!flush_output(OTACTL)) {
            return OTACTL_FAILED;
        }
    }
}
