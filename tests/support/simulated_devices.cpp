// For the hal_tool of the tests: adds what plain files cannot do in place of devices. Each file
// /dev/mtd* behaves as a NOR chip. A descriptor that is left open is reported at the end.
#include <mtd/mtd-user.h>
#include <sys/ioctl.h>

#include "faults.h"
#include "files.h"

namespace {

std::string chip_of(int fd) {
    const std::string path = std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd));
    return path.starts_with("/dev/mtd") ? path : "";
}

// Programs the chip: only clears bits; a worn cell, if the environment names one, always reads 0.
void program(int fd, char* data, size_t count) {
    const std::string path = chip_of(fd);
    const std::string cells = path.empty() ? "" : read_file(path);
    const char* const cell = getenv("WORN_CELL");
    const size_t worn = cell == nullptr ? SIZE_MAX : strtoul(cell, nullptr, 10);
    // Not lseek(): this call must not be counted.
    const auto position = static_cast<size_t>(syscall(SYS_lseek, fd, 0, SEEK_CUR));
    for (size_t i = 0; i < count && position + i < cells.size(); ++i) {
        data[i] = static_cast<char>(position + i == worn ? 0 : data[i] & cells[position + i]);
    }
}

int control(int fd, unsigned long request, void* argument) {
    const std::string path = chip_of(fd);
    if (path.empty()) {
        return static_cast<int>(syscall(SYS_ioctl, fd, request, argument));
    }
    const auto size = static_cast<uint32_t>(std::filesystem::file_size(path));
    const auto range = *static_cast<const erase_info_user*>(argument);
    if (request == MEMGETINFO) {
        static_cast<mtd_info_user*>(argument)->size = size;
        return 0;
    }
    if (request == MEMERASE && range.start == 0 && range.length == size) {
        write_file(path, std::string(size, '\xff'));  // all bits set
        return 0;
    }
    errno = ENOTTY;  // only an erase of the whole chip is supported
    return -1;
}

const struct Chips {
    Chips() { devices = {.write = program, .ioctl = control}; }
    ~Chips() {
        if (open_descriptors() != before) {
            fprintf(stderr, "descriptors are left open\n");
        }
    }
    int before = open_descriptors();
} chips;

}  // namespace
