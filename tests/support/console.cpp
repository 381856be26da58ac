#include "console.h"

#include "files.h"

namespace {

using Lines = std::vector<std::string>;

struct Expected {
    std::string text;
    std::string path;  // where it is from
    int number;
};

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

void add_expected(const std::string& name, const ConsoleValues& values,
                  std::vector<Expected>& all) {
    int number = 0;
    for (std::string line : lines_of(read_file(path_of(name)))) {
        ++number;
        if (const auto found = values.lines.find(line); found != values.lines.end()) {
            for (const std::string& each : found->second) {
                all.push_back({each, path_of(name), number});
            }
        } else if (line.starts_with('@')) {
            add_expected(line.substr(1), values, all);
        } else {
            for (const auto& [word, value] : words_of(values)) {
                replace_all(line, word, value);
            }
            all.push_back({line, path_of(name), number});
        }
    }
}

// Rewrites a text, or writes that of a new row, so that it says what was printed. The texts that it
// names, for a new one those that all upgrades have in common, stay as they are.
void accept(const std::string& name, const ConsoleValues& values,
            std::span<const std::string> printed) {
    const bool isNew = !std::filesystem::exists(path_of(name));
    std::string after;
    for (const std::string& line :
         isNew ? Lines{"@start", "@initialised", "@switched", "@deleted", "@end", "@"}
               : lines_of(read_file(path_of(name)) + "@\n")) {
        if (!line.starts_with('@')) {
            continue;
        }
        const bool isLast = line == "@";
        Lines named;
        if (!isLast) {
            named = values.lines.contains(line) ? values.lines.at(line)
                                                : console_lines(line.substr(1), values);
        }
        const auto place =
            isLast ? printed.end()
                   : std::search(printed.begin(), printed.end(), named.begin(), named.end());
        const bool isMissing = place == printed.end() && !isLast;
        if (isNew && !isLast && (isMissing || named.empty())) {
            continue;
        }
        if (isMissing && !named.empty()) {
            ADD_FAILURE() << line << " is not printed: change it first";
            return;
        }
        for (; printed.begin() != place; printed = printed.subspan(1)) {
            std::string text = printed.front();
            for (const auto& [word, value] : words_of(values)) {
                replace_all(text, value, word);
            }
            after += text + "\n";
        }
        after += isLast ? "" : line + "\n";
        printed = printed.subspan(named.size());
    }
    write_file(path_of(name), after);
}

}  // namespace

Lines console_lines(const std::string& name, const ConsoleValues& values) {
    std::vector<Expected> all;
    add_expected(name, values, all);
    Lines lines;
    std::ranges::transform(all, std::back_inserter(lines), &Expected::text);
    return lines;
}

void expect_console(const std::string& name, const ConsoleValues& values, const Lines& printed) {
    if (getenv("CORVO_ACCEPT") != nullptr) {
        accept(name, values, printed);
        return;
    }
    std::vector<Expected> expected;
    add_expected(name, values, expected);
    expected.push_back({"(end)", path_of(name), 0});
    for (size_t i = 0; i < expected.size(); ++i) {
        const auto& [text, path, number] = expected[i];
        const std::string said = i < printed.size() ? printed[i] : "(end)";
        if (said != text) {
            ADD_FAILURE_AT(path.c_str(), number) << said << "\ninstead of\n" << text;
            return;
        }
    }
}
