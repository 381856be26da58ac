#include "console.h"

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

std::string joined(const Lines& lines) {
    std::string text;
    for (const std::string& line : lines) {
        text += line + "\n";
    }
    return text;
}

// Writes the text of a row so that it says what was printed. The texts that rows have in common
// stay as they are.
void accept(const std::string& name, const ConsoleValues& values, const Lines& printed) {
    std::string accepted = joined(printed);
    for (const std::string common :
         {"start", "initialised", "kernel_copied", "switched", "deleted", "end"}) {
        replace_all(accepted, joined(console_lines(common, values)), "@" + common + "\n");
    }
    for (const auto& [word, value] : words_of(values)) {
        replace_all(accepted, value, word);
    }
    write_file(path_of(name), accepted);
}

}  // namespace

Lines console_lines(const std::string& name, const ConsoleValues& values) {
    if (const auto found = values.lines.find(name); found != values.lines.end()) {
        return found->second;
    }
    Lines lines;
    for (std::string line : lines_of(read_file(path_of(name)))) {
        if (line.starts_with('@')) {
            const Lines named = console_lines(line.substr(1), values);
            lines.insert(lines.end(), named.begin(), named.end());
            continue;
        }
        for (const auto& [word, value] : words_of(values)) {
            replace_all(line, word, value);
        }
        lines.push_back(line);
    }
    return lines;
}

void expect_console(const std::string& name, const ConsoleValues& values, const Lines& printed) {
    if (getenv("CORVO_ACCEPT") != nullptr) {
        accept(name, values, printed);
        return;
    }
    const Lines expected = console_lines(name, values);
    const auto [line, wanted] = std::ranges::mismatch(printed, expected);
    if (line != printed.end() || wanted != expected.end()) {
        ADD_FAILURE() << path_of(name) << ": " << (line == printed.end() ? "(end)" : *line)
                      << "\ninstead of\n"
                      << (wanted == expected.end() ? "(end)" : *wanted);
    }
}
