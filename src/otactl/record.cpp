#include <stdio.h>

#include "cli/error_line.h"
#include "otactl/commands.h"
#include "package/files.h"
#include "package/outcome.h"

namespace {

// More than the size of a record, so that describe_outcome() can report a file that is too long.
constexpr size_t RECORD_SIZE_MAX = 4096;

}  // namespace

int record(const std::string& path) {
    std::string content;
    const PackageStatus status = read_small_file(path, RECORD_SIZE_MAX, FileKind::ANY, content);
    if (!status.ok()) {
        print_error(OTACTL, status.text);
        return OTACTL_FAILED;
    }
    printf("%s", describe_outcome(content).c_str());
    return flush_output(OTACTL) ? OTACTL_OK : OTACTL_FAILED;
}
