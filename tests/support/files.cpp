#include "files.h"

#include <numeric>
#include <regex>

#include "stride.h"

namespace {

const std::string NEEDS = "# needs: ";
constexpr char QUIET[] = " > /dev/null 2>&1";

}  // namespace

std::string read_file(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    EXPECT_TRUE(file) << "cannot read " << path;
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

void write_file(const std::string& path, const std::string& content) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << content;
    file.close();
    ASSERT_TRUE(file) << "cannot write " << path;
}

std::string names_in(const std::string& folder) {
    std::set<std::string> names;
    std::error_code error;
    for (const auto& entry : std::filesystem::directory_iterator(folder, error)) {
        names.insert(" " + entry.path().filename().string());
    }
    return std::accumulate(names.begin(), names.end(), std::string());
}

std::string pattern_bytes(size_t size, unsigned seed) {
    std::string bytes(size, '\0');
    std::ranges::generate(bytes, std::minstd_rand(seed + 1));
    return bytes;
}

int error_number(const std::string& name) {
    int number = 133;
    while (number > 0 && (strerrorname_np(number) == nullptr || strerrorname_np(number) != name)) {
        --number;
    }
    return number;
}

bool eventually(int patienceMs, const std::function<bool()>& condition) {
    for (int waited = 0; waited < patienceMs; waited += 10) {
        if (condition()) {
            return true;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return condition();
}

int open_descriptors() {
    const std::filesystem::directory_iterator all("/proc/self/fd");  // includes its own descriptor
    return static_cast<int>(std::distance(all, {})) - 1;
}

std::string rest_of(std::istream& row) {
    std::string text;
    std::getline(row >> std::ws, text);
    text.resize(text.find_last_not_of(' ') + 1);
    return text;
}

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::string replaced(const std::string& text, const std::string& pattern, const std::string& with) {
    return std::regex_replace(text, std::regex(pattern), with);
}

bool matches(const std::string& text, const std::string& pattern) {
    return std::regex_match(text, std::regex(pattern));
}

void replace_all(std::string& text, const std::string& from, const std::string& to) {
    for (size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
        text.replace(at, from.size(), to);
    }
}

std::string without_source_lines(const std::string& text) {
    // "PAL error name,LINE,", "hal error name,LINE,", "...:function:LINE] ", ";function;LINE;",
    // "eModuleType=N lineLINE"
    return replaced(
        text,
        R"(((?:PAL|hal) error \w+,|\[\w+(?:/\w+)?:\w+:|\d{10}\.\d{3};\w+;|eModuleType=\d+ line)\d+)",
        "$1#");
}

void expect_cases(const std::string& name, const std::function<std::string(std::istream&)>& run,
                  Rows rows) {
    const std::string path = TEXTS "cases/" + name;
    const bool all = rows == Rows::BUILD_ON_EACH_OTHER || getenv("CORVO_ACCEPT") != nullptr;
    std::string accepted;
    int number = 0;
    int row = 0;
    for (std::string line : lines_of(read_file(path))) {
        ++number;
        if (line.starts_with(NEEDS) && system((line.substr(NEEDS.size()) + QUIET).c_str()) != 0) {
            GTEST_SKIP() << path << ": " << line;
        }
        if (!line.empty() && !line.starts_with('#') && (row++ % sweep_stride() == 0 || all)) {
            const testing::ScopedTrace trace(path.c_str(), number, "this row");
            const std::string text = line.substr(0, line.find("->"));
            std::istringstream input(text);
            std::string outcome = text + (text.ends_with(' ') ? "-> " : " -> ") + run(input);
            replace_all(outcome, std::string(1, '\0'), "\\0");
            if (getenv("CORVO_ACCEPT") == nullptr && outcome != line) {
                ADD_FAILURE_AT(path.c_str(), number) << outcome << "\ninstead of\n" << line;
            }
            line = outcome;
        }
        accepted += line + "\n";
    }
    if (getenv("CORVO_ACCEPT") != nullptr) {
        write_file(path, accepted);
    }
}

CapturedOutput::CapturedOutput()
    : saved_(dup(STDOUT_FILENO)), file_(memfd_create("output", MFD_CLOEXEC)) {
    fflush(stdout);
    dup2(file_.get(), STDOUT_FILENO);
}

CapturedOutput::~CapturedOutput() {
    if (saved_.valid()) {
        take();
    }
}

std::string CapturedOutput::take() {
    fflush(stdout);
    dup2(saved_.get(), STDOUT_FILENO);
    saved_.reset();
    return read_file("/proc/self/fd/" + std::to_string(file_.get()));
}
