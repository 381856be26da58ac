// main() of every test program: re-enters the private root first, while the process still has one
// thread.
#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace {

bool only_lists_tests(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--gtest_list_tests") == 0) {
            return true;
        }
    }
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    if (!only_lists_tests(argc, argv) && access("/.private_root", F_OK) != 0) {
        char self[4096] = {};
        if (readlink("/proc/self/exe", self, sizeof(self) - 1) < 0) {
            perror("readlink");
            return 1;
        }
        std::vector<char*> arguments(argv, argv + argc + 1);
        std::string script = PRIVATE_ROOT_SCRIPT;
        arguments[0] = self;
        arguments.insert(arguments.begin(), script.data());
        execv(script.c_str(), arguments.data());
        perror(script.c_str());
        return 1;
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
