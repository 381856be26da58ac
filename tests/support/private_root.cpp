// main() of every test program: first starts the program again inside the private root, while the
// process still has a single thread.
#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

#include <filesystem>
#include <string>
#include <vector>

int main(int argc, char** argv) {
    const bool lists = argc > 1 && strcmp(argv[1], "--gtest_list_tests") == 0;
    if (!lists && access("/.private_root", F_OK) != 0) {
        std::string script = PRIVATE_ROOT_SCRIPT;
        std::string self = std::filesystem::read_symlink("/proc/self/exe");
        std::vector<char*> arguments(argv, argv + argc + 1);
        arguments[0] = self.data();
        arguments.insert(arguments.begin(), script.data());
        execv(script.c_str(), arguments.data());
        perror(script.c_str());
        return 1;
    }
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
