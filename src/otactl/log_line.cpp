#include "otactl/log_line.h"

#include <string.h>

#include <algorithm>
#include <array>

#include "log/log_producer.h"

namespace {

constexpr std::string_view SEPARATOR = CORVO_LOG_TOPIC_SEPARATOR;

}  // namespace

bool parse_log_message(std::string_view message, PublishedLine& published) {
    const size_t separator = message.find(SEPARATOR);
    if (!message.starts_with(CORVO_LOG_PUB_TOPIC) || separator == std::string_view::npos) {
        return false;
    }
    message.remove_prefix(separator + SEPARATOR.size());
    LogRecord head = {};
    if (message.size() < sizeof(head)) {
        return false;
    }
    memcpy(&head, message.data(), sizeof(head));
    message.remove_prefix(sizeof(head));
    if (head.length != message.size()) {
        return false;
    }
    message = message.substr(0, message.find('\0'));
    if (message.ends_with('\n')) {
        message.remove_suffix(1);
    }
    published = {head.level, message};
    return true;
}

bool parse_log_line(std::string_view line, LogLine& fields) {
    std::array<std::string_view, 5> prefix;
    for (std::string_view& field : prefix) {
        const size_t end = line.find(';');
        if (end == std::string_view::npos) {
            return false;
        }
        field = line.substr(0, end);
        line.remove_prefix(end + 1);
    }
    fields = {.stamp = prefix[0], .function = prefix[1], .text = line};
    return true;
}

std::string time_of_day(std::string_view stamp) {
    constexpr size_t STAMP_SIZE = 14;
    if (stamp.size() != STAMP_SIZE) {
        return printable(stamp);
    }
    std::string time(stamp.substr(4));
    time.insert(4, ":");
    time.insert(2, ":");
    return printable(time);
}

std::string printable(std::string_view text) {
    std::string result(text);
    std::replace_if(
        result.begin(), result.end(), [](unsigned char c) { return c < 0x20 || c == 0x7f; }, '?');
    return result;
}
