// Runs a command and writes its times and peak memory to a file, as one line of JSON:
//
//   measure FILE COMMAND [ARGUMENT...]
//   {"started": seconds on the monotonic clock, "wall": seconds, "cpu": seconds, "peak": KiB,
//    "status": number}
//
// On Linux the peak memory of a process includes that of its parent at the time of the fork. So the
// parent must be smaller than every program that it measures; an interpreter would be too large.
#include <stdio.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "base/owned.h"

namespace {

constexpr int EXIT_CANNOT_RUN = 127;
constexpr int EXIT_SIGNAL_BASE = 128;

double now() {
    timespec time = {};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

double seconds(const timeval& time) {
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) * 1e-6;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        fprintf(stderr, "usage: measure FILE COMMAND [ARGUMENT...]\n");
        return EXIT_FAILURE;
    }
    const double start = now();
    const pid_t child = fork();
    if (child == 0) {
        execvp(argv[2], argv + 2);
        perror(argv[2]);
        _exit(EXIT_CANNOT_RUN);
    }
    int status = 0;
    rusage usage = {};
    if (child < 0 || wait4(child, &status, 0, &usage) != child) {
        perror("measure");
        return EXIT_FAILURE;
    }
    const double wall = now() - start;
    const corvo::OwnedFile file(fopen(argv[1], "we"));
    if (file == nullptr) {
        perror(argv[1]);
        return EXIT_FAILURE;
    }
    const int code =
        WIFSIGNALED(status) ? EXIT_SIGNAL_BASE + WTERMSIG(status) : WEXITSTATUS(status);
    fprintf(file.get(),
            "{\"started\": %.6f, \"wall\": %.6f, \"cpu\": %.6f, \"peak\": %ld, \"status\": %d}\n",
            start, wall, seconds(usage.ru_utime) + seconds(usage.ru_stime), usage.ru_maxrss, code);
    return code;
}
