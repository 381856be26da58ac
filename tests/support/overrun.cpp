// Writes beyond the end of a buffer whose size the compiler does not know. Exits with success if
// the hardened call stops it.
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

int main(int count, char** words) {
    const size_t size = strlen(words[0]) * static_cast<size_t>(count);
    char* copy = static_cast<char*>(malloc(size));
    signal(SIGABRT, [](int) { _exit(0); });
    if (copy == nullptr) {
        return 2;
    }
    memset(copy, count, size + 1);
    const ssize_t written = write(STDOUT_FILENO, copy, size);
    free(copy);
    return written < 0 ? 2 : 1;
}
