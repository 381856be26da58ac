// Shows the progress of reading a large file.
#ifndef CLI_PROGRESS_LINE_H
#define CLI_PROGRESS_LINE_H

#include <stdint.h>
#include <stdio.h>
#include <unistd.h>

#include <string>
#include <utility>

// A line that is redrawn while work continues, and erased at the end. Shown on a terminal only.
class ProgressLine {
  public:
    // The line is "42% of WHAT". `size` is in bytes, at least 1.
    ProgressLine(bool wanted, std::string what, uint64_t size)
        : shown_(wanted && isatty(STDOUT_FILENO) == 1), what_(std::move(what)), size_(size) {}
    ~ProgressLine() {
        if (percent_ >= 0) {
            printf("\r\033[K");
            fflush(stdout);
        }
    }
    ProgressLine(const ProgressLine&) = delete;
    ProgressLine& operator=(const ProgressLine&) = delete;

    void show(uint64_t bytes) {
        const int percent = static_cast<int>(bytes * 100 / size_);
        if (shown_ && percent != percent_) {
            percent_ = percent;
            printf("\r\033[K%3d%% of %s", percent, what_.c_str());
            fflush(stdout);
        }
    }

  private:
    bool shown_;
    std::string what_;
    uint64_t size_;
    int percent_ = -1;
};

#endif  // CLI_PROGRESS_LINE_H
