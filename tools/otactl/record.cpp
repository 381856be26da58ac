#include <errno.h>
#include <stdio.h>
#include <string.h>

#include "base/owned.h"
#include "error_line.h"
#include "otactl/commands.h"
#include "otactl/outcome.h"

namespace {

// A little more than the record, so that a longer file is noticed.
constexpr size_t RECORD_SIZE_MAX = 4096;

}  // namespace

bool read_small_file(const std::string& path, size_t limit, std::string& content) {
    const corvo::OwnedFile file(fopen(path.c_str(), "rbe"));
    if (!file) {
        return false;
    }
    content.resize(limit + 1);
    errno = 0;
    const size_t size = fread(content.data(), 1, content.size(), file.get());
    if (ferror(file.get()) != 0) {
        return false;
    }
    content.resize(size);
    if (size > limit) {
        errno = EFBIG;
        return false;
    }
    return true;
}

int record(const std::string& path) {
    std::string content;
    if (!read_small_file(path, RECORD_SIZE_MAX, content)) {
        print_error(OTACTL, "cannot read " + path + ": " + strerror(errno));
        return OTACTL_FAILED;
    }
    printf("%s", describe_outcome(content).c_str());
    return fflush(stdout) == 0 ? OTACTL_OK : OTACTL_FAILED;
}
