// A raw-flash partition as a NOR chip: erasing sets bits, writing only clears bits, and a worn cell
// holds a value of its own. It stands behind fopen, write and ioctl (see faults.h); one at a time.
#ifndef TESTS_SUPPORT_NOR_CHIP_H
#define TESTS_SUPPORT_NOR_CHIP_H

#include <errno.h>
#include <mtd/mtd-user.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "faults.h"
#include "files.h"

struct NorChip {
    std::string path;       // "/dev/mtd/N"
    uint32_t size;          // bytes
    int64_t wornCell = -1;  // position of a cell that holds 0 for good; -1: all are sound

    // Erased, and behind the calls from now on, with this text of "/proc/mtd".
    void install(const std::string& table) {
        write_file("/tmp/proc_mtd", table);
        write_file(path, std::string(size, '\xff'));
        devices = {this,
                   [](void* chip, int fd, char* data, size_t count) {
                       static_cast<NorChip*>(chip)->program(fd, data, count);
                   },
                   [](void* chip, unsigned long request, void* argument) {
                       return static_cast<NorChip*>(chip)->control(request, argument);
                   }};
    }
    ~NorChip() {
        devices = {};
        unlink(path.c_str());
    }

    void program(int fd, char* data, size_t count) const {
        if (std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(fd)) != path) {
            return;
        }
        const std::string cells = read_file(path);
        // Not lseek(): that would count as the program's call.
        auto position = static_cast<size_t>(syscall(SYS_lseek, fd, 0, SEEK_CUR));
        for (size_t i = 0; i < count && position < size; ++i, ++position) {
            const bool worn = position == static_cast<size_t>(wornCell);
            data[i] = static_cast<char>(worn ? 0 : data[i] & cells[position]);
        }
    }

    int control(unsigned long request, void* argument) const {
        const auto range = *static_cast<const erase_info_user*>(argument);
        if (request == MEMGETINFO) {
            static_cast<mtd_info_user*>(argument)->size = size;
            return 0;
        }
        if (request == MEMERASE && range.start == 0 && range.length == size) {
            write_file(path, std::string(size, '\xff'));
            return 0;
        }
        errno = ENOTTY;  // of erases only that of the whole chip is granted
        return -1;
    }
};

#endif  // TESTS_SUPPORT_NOR_CHIP_H
