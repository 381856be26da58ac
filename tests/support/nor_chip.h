// A raw-flash partition as a NOR chip: erasing sets bits, writing only clears bits, and a worn cell
// holds a value of its own. It stands behind fopen, write and ioctl (see faults.h); one at a time.
#ifndef TESTS_SUPPORT_NOR_CHIP_H
#define TESTS_SUPPORT_NOR_CHIP_H

#include <errno.h>
#include <mtd/mtd-user.h>
#include <sys/ioctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <map>
#include <string>

#include "faults.h"
#include "files.h"

class NorChip {
  public:
    // The partition on device `number`, `size` bytes, with this text of "/proc/mtd".
    NorChip(int number, uint32_t size, const std::string& table)
        : path_("/dev/mtd/" + std::to_string(number)), size_(size) {
        write_file("/tmp/proc_mtd", table);
        set_content(std::string(size, '\0'));
        devices.paths["/proc/mtd"] = "/tmp/proc_mtd";
        devices.write = [this](int fd, std::string& data) { program(fd, data); };
        devices.ioctl = [this](int, unsigned long request, void* argument) {
            return control(request, argument);
        };
    }
    ~NorChip() {
        devices = {};
        unlink(path_.c_str());
    }
    NorChip(const NorChip&) = delete;
    NorChip& operator=(const NorChip&) = delete;

    [[nodiscard]] std::string content() const { return read_file(path_); }
    // The cells from the start on; the rest is erased.
    void set_content(std::string cells) {
        cells.resize(size_, '\xff');
        for (const auto& [position, value] : wornCells) {
            cells[position] = value;
        }
        write_file(path_, cells);
    }

    std::map<size_t, char> wornCells;  // position -> the value that it holds

  private:
    [[nodiscard]] bool is_mine(int fd) const {
        char target[64] = {};
        const std::string link = "/proc/self/fd/" + std::to_string(fd);
        return readlink(link.c_str(), target, sizeof(target) - 1) > 0 && path_ == target;
    }

    void program(int fd, std::string& data) const {
        const std::string cells = is_mine(fd) ? content() : "";
        // Not lseek(): that would count as the program's call.
        auto position = static_cast<size_t>(syscall(SYS_lseek, fd, 0, SEEK_CUR));
        for (size_t i = 0; i < data.size() && position < cells.size(); ++i, ++position) {
            const auto worn = wornCells.find(position);
            data[i] = static_cast<char>(worn != wornCells.end() ? worn->second
                                                                : data[i] & cells[position]);
        }
    }

    int control(unsigned long request, void* argument) {
        const auto range = *static_cast<const erase_info_user*>(argument);
        if (request == MEMGETINFO) {
            static_cast<mtd_info_user*>(argument)->size = size_;
            return 0;
        }
        if (request == MEMERASE && range.start == 0 && range.length == size_) {
            set_content("");
            return 0;
        }
        errno = ENOTTY;  // of erases only that of the whole chip is granted
        return -1;
    }

    std::string path_;
    uint32_t size_;
};

#endif  // TESTS_SUPPORT_NOR_CHIP_H
