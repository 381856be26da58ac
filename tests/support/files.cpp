#include "files.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>

#include <chrono>
#include <fstream>
#include <random>
#include <regex>
#include <sstream>
#include <thread>

std::string read_file(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    EXPECT_TRUE(file) << "cannot read " << path;
    std::ostringstream content;
    content << file.rdbuf();
    return content.str();
}

void write_file(const std::string& path, const std::string& content) {
    for (size_t at = path.find('/', 1); at != std::string::npos; at = path.find('/', at + 1)) {
        mkdir(path.substr(0, at).c_str(), 0755);
    }
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << content;
    file.close();
    ASSERT_TRUE(file) << "cannot write " << path;
}

std::string pattern_bytes(size_t size, unsigned seed) {
    std::minstd_rand random(seed + 1);
    std::string bytes(size, '\0');
    for (char& byte : bytes) {
        byte = static_cast<char>(random() >> 8);
    }
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
    DIR* directory = opendir("/proc/self/fd");
    int count = -1;  // the listing's own
    while (readdir(directory) != nullptr) {
        ++count;
    }
    closedir(directory);
    return count - 2;  // "." and ".."
}

std::vector<std::string> lines_of(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        lines.push_back(line);
    }
    return lines;
}

std::string without_source_lines(const std::string& text) {
    // "PAL error name,LINE,", "hal error name,LINE,", "...:function:LINE] ", ";function;LINE;",
    // "eModuleType=N lineLINE"
    static const std::regex number(
        R"(((?:PAL|hal) error \w+,|\[\w+(?:/\w+)?:\w+:|\d{10}\.\d{3};\w+;|eModuleType=\d+ line)\d+)");
    return std::regex_replace(text, number, "$1#");
}

void expect_cases(const std::string& name, const std::function<std::string(std::istream&)>& run) {
    for (const std::string& line : lines_of(read_file(TEXTS "cases/" + name))) {
        if (!line.empty() && !line.starts_with('#')) {
            const std::string text = line.substr(0, line.find("->"));
            std::istringstream input(text);
            EXPECT_EQ(text + "-> " + run(input), line) << "in cases/" << name;
        }
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
    std::string text;
    lseek(file_.get(), 0, SEEK_SET);
    char buffer[65536];
    for (ssize_t n = 0; (n = read(file_.get(), buffer, sizeof(buffer))) > 0;) {
        text.append(buffer, static_cast<size_t>(n));
    }
    return text;
}
