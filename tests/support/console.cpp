#include "console.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <filesystem>
#include <span>

#include "files.h"

namespace {

using Lines = std::vector<std::string>;

std::string path_of(const std::string& name) {
    return TEXTS "expected/" + name + ".txt";
}

void replace_all(std::string& text, const std::string& from, const std::string& to) {
    for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
        text.replace(at, from.size(), to);
    }
}

std::vector<std::pair<std::string, std::string>> words_of(const ConsoleValues& values) {
    auto words = values.words;
    words.emplace_back("\\e", "\033");
    words.emplace_back("\\0", std::string(1, '\0'));
    return words;
}

// Returns the output lines that one line of a text stands for.
Lines lines_for(const std::string& line, const ConsoleValues& values) {
    if (values.lines.contains(line)) {
        return values.lines.at(line);
    }
    if (line.starts_with('@')) {
        return console_lines(line.substr(1), values);
    }
    std::string text = line;
    for (const auto& [word, value] : words_of(values)) {
        replace_all(text, word, value);
    }
    return {text};
}

// Returns whether the output begins with the lines of the text, and removes these lines from
// `printed`.
bool begins_with(const std::string& name, const ConsoleValues& values,
                 std::span<const std::string>& printed) {
    int number = 0;
    for (const std::string& line : lines_of(read_file(path_of(name)))) {
        ++number;
        if (line.starts_with('@') && !values.lines.contains(line)) {
            if (!begins_with(line.substr(1), values, printed)) {
                return false;
            }
            continue;
        }
        for (const std::string& wanted : lines_for(line, values)) {
            const std::string said = printed.empty() ? "(end)" : printed.front();
            if (said != wanted) {
                ADD_FAILURE_AT(path_of(name).c_str(), number) << said << "\ninstead of\n" << wanted;
                return false;
            }
            printed = printed.subspan(1);
        }
    }
    return true;
}

// Returns where the lines begin in the output: the position of a changed line follows from that of
// the lines after it. Returns the end of the output if none of the lines was printed.
size_t begin_of(const Lines& lines, std::span<const std::string> printed) {
    for (size_t i = 0; i < lines.size() && i < printed.size(); ++i) {
        const auto found = std::ranges::find(printed.subspan(i), lines[i]);
        if (found != printed.end()) {
            return static_cast<size_t>(found - printed.begin()) - i;
        }
    }
    return printed.size();
}

// Returns where the lines end in the output.
size_t end_of(const Lines& lines, std::span<const std::string> printed) {
    const Lines linesBack(lines.rbegin(), lines.rend());
    const Lines printedBack(printed.rbegin(), printed.rend());
    return printed.size() - begin_of(linesBack, printedBack);
}

// Returns the initial text of a new row: those parts common to all upgrades that were printed.
Lines new_text(const ConsoleValues& values, std::span<const std::string> printed) {
    Lines text = {""};
    for (const char* common : {"@start", "@initialised", "@switched", "@deleted", "@end"}) {
        const Lines lines = lines_for(common, values);
        if (!lines.empty() && std::search(printed.begin(), printed.end(), lines.begin(),
                                          lines.end()) != printed.end()) {
            text.emplace_back(common);
        }
    }
    return text;
}

// Rewrites a text so that it matches the output: each of its lines stands for the output up to
// where the next one begins.
void accept(const std::string& name, const ConsoleValues& values,
            std::span<const std::string> printed) {
    Lines before = lines_of(read_file(path_of(name)));
    if (before.empty()) {
        before = new_text(values, printed);
    }
    std::string after;
    for (size_t i = 0, next = 1; i < before.size(); i = next++) {
        size_t count = printed.size();
        for (; next < before.size(); ++next) {
            count = begin_of(lines_for(before[next], values), printed);
            if (count != printed.size()) {
                break;
            }
        }
        size_t included = 0;
        if (before[i].starts_with('@')) {
            after += before[i] + "\n";
            included = end_of(lines_for(before[i], values), printed.first(count));
            if (!values.lines.contains(before[i])) {
                accept(before[i].substr(1), values, printed.first(included));
            }
        }
        for (std::string line : printed.subspan(included, count - included)) {
            for (const auto& [word, value] : words_of(values)) {
                replace_all(line, value, word);
            }
            after += line + "\n";
        }
        printed = printed.subspan(count);
    }
    write_file(path_of(name), after);
}

}  // namespace

Lines console_lines(const std::string& name, const ConsoleValues& values) {
    Lines all;
    for (const std::string& line : lines_of(read_file(path_of(name)))) {
        const Lines lines = lines_for(line, values);
        all.insert(all.end(), lines.begin(), lines.end());
    }
    return all;
}

void expect_console(const std::string& name, const ConsoleValues& values, const Lines& printed) {
    if (getenv("CORVO_ACCEPT") != nullptr) {
        if (!std::filesystem::exists(path_of(name))) {
            write_file(path_of(name), "");
        }
        if (printed != console_lines(name, values)) {
            accept(name, values, printed);
        }
        return;
    }
    std::span<const std::string> rest = printed;
    if (begins_with(name, values, rest) && !rest.empty()) {
        ADD_FAILURE_AT(path_of(name).c_str(), 1) << "more was printed: " << rest.front();
    }
}
