#include "console.h"

#include "files.h"

namespace {

using Lines = std::vector<std::string>;

std::string path_of(const std::string& name) {
    return TEXTS "expected/" + name + ".txt";
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
    for (const auto& [word, value] : values.words) {
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
        for (const auto& [word, value] : values.words) {
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
    EXPECT_EQ(joined(console_lines(name, values)), joined(printed)) << path_of(name);
}
