// Fuzzes the text of a log line: the result must be one line of limited size.
#include <fcntl.h>
#include <stdio.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "fuzz_input.h"
#include "log/log_front_end.h"

namespace {

int g_output = -1;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
    g_output = memfd_create("log", MFD_CLOEXEC);
    dup2(g_output, STDOUT_FILENO);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    UPGRADE_LOG("%s|%.*s", text.c_str(), static_cast<int>(size), text.data());
    fflush(stdout);
    char line[2 * LOG_LINE_SIZE] = {};
    const ssize_t length = pread(g_output, line, sizeof(line), 0);
    fuzz_expect(length > 0 && length <= LOG_TEXT_CAPACITY && line[length - 1] == '\n');
    lseek(g_output, 0, SEEK_SET);
    return ftruncate(g_output, 0);
}
