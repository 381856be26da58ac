// corvo_agent_prepare: gives the agent's user what it must own, before each start of the agent. For
// root.
//
//   corvo_agent_prepare USER FOLDER...
//
// Makes each folder that does not exist, and gives it to the user with mode 700; also its lock,
// which an agent that root started may have left. Makes the lock of the boot environment root's,
// writable for the user's group. All of it lies where other users may write, so nothing is changed
// by its path: links are not followed, what is changed is open, and a file with a second name is
// not touched.
//
// Exit status: 0 all is done; 1 something is not, with a line for each; 64 wrong use; 67 no such
// user.
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <pwd.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sysexits.h>
#include <unistd.h>

#include "base/open_without_links.h"
#include "base/unique_fd.h"

namespace {

constexpr char PROGRAM[] = "corvo_agent_prepare";
constexpr char AGENT_LOCK[] = "lock";
// A link to another folder on many systems, and made by root on all of them.
constexpr char LOCK_FOLDER[] = "/var/lock";
constexpr char BOOT_ENVIRONMENT_LOCK[] = "/var/lock/fw_printenv.lock";
constexpr int LOCK_ATTEMPTS = 10;
constexpr mode_t FOLDER_MODE = 0700;
constexpr mode_t PARENT_MODE = 0755;
constexpr mode_t LOCK_MODE = 0664;

bool fail(const char* path, const char* reason) {
    fprintf(stderr, "%s: %s: %s\n", PROGRAM, path, reason);
    return false;
}

// A lock has no content. One that has, or has a second name, may be any other file of the system.
bool is_lock(int file, struct stat& status) {
    return fstat(file, &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink == 1 &&
           status.st_size == 0;
}

// Opens the folder; makes it, and the folders above it, where they do not exist.
corvo::UniqueFd open_folder(const char* path) {
    corvo::UniqueFd folder(open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const char* rest = path + strspn(path, "/");
    while (folder.valid() && *rest != '\0') {
        char name[NAME_MAX + 1] = {};
        const size_t length = strcspn(rest, "/");
        if (length > NAME_MAX) {
            errno = ENAMETOOLONG;
            return {};
        }
        memcpy(name, rest, length);
        rest += length;
        rest += strspn(rest, "/");
        if (mkdirat(folder.get(), name, *rest == '\0' ? FOLDER_MODE : PARENT_MODE) != 0 &&
            errno != EEXIST) {
            return {};
        }
        folder.reset(corvo::open_component(folder.get(), name, O_RDONLY | O_DIRECTORY, 0));
    }
    return folder;
}

bool give_folder(const char* path, const passwd& user) {
    const corvo::UniqueFd folder = open_folder(path);
    struct stat status = {};
    if (!folder.valid() || fstat(folder.get(), &status) != 0) {
        return fail(path, errno == ELOOP ? "a link is in its path" : strerror(errno));
    }
    // A card without owners cannot be changed; it may be mounted so that the user's group writes.
    const bool forGroup = status.st_gid == user.pw_gid && (status.st_mode & S_IRWXG) == S_IRWXG;
    if ((fchown(folder.get(), user.pw_uid, user.pw_gid) != 0 ||
         fchmod(folder.get(), FOLDER_MODE) != 0) &&
        !forGroup) {
        return fail(path, strerror(errno));
    }
    const corvo::UniqueFd lock(
        openat(folder.get(), AGENT_LOCK, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (lock.valid() && is_lock(lock.get(), status) && status.st_uid != user.pw_uid &&
        fchown(lock.get(), user.pw_uid, user.pw_gid) != 0 && !forGroup) {
        return fail(path, strerror(errno));
    }
    return true;
}

// Many kernels refuse root a lock that another user has made in a folder that all may write, and
// then no slot is switched: whatever is not root's own gives way to one that is.
bool share_boot_environment(const passwd& user) {
    const corvo::UniqueFd folder(open(LOCK_FOLDER, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!folder.valid()) {
        return fail(LOCK_FOLDER, strerror(errno));
    }
    const char* const name = BOOT_ENVIRONMENT_LOCK + sizeof(LOCK_FOLDER);
    for (int attempt = 0; attempt < LOCK_ATTEMPTS; ++attempt) {
        corvo::UniqueFd lock(
            openat(folder.get(), name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
        if (!lock.valid() && errno == ENOENT) {
            lock.reset(openat(folder.get(), name,
                              O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, LOCK_MODE));
        }
        struct stat status = {};
        if (lock.valid() && is_lock(lock.get(), status) && status.st_uid == geteuid()) {
            return (fchown(lock.get(), geteuid(), user.pw_gid) == 0 &&
                    fchmod(lock.get(), LOCK_MODE) == 0) ||
                   fail(BOOT_ENVIRONMENT_LOCK, strerror(errno));
        }
        if (unlinkat(folder.get(), name, 0) != 0 && errno != ENOENT) {
            break;
        }
    }
    return fail(BOOT_ENVIRONMENT_LOCK, strerror(errno));
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        fprintf(stderr, "usage: %s USER FOLDER...\n", PROGRAM);
        return EX_USAGE;
    }
    const passwd* const user = getpwnam(argv[1]);
    if (user == nullptr) {
        fail(argv[1], "no such user");
        return EX_NOUSER;
    }
    umask(S_IWGRP | S_IWOTH);
    bool done = share_boot_environment(*user);
    for (int i = 2; i < argc; ++i) {
        if (argv[i][0] != '/') {
            done = fail(argv[i], "an absolute path is needed");
            continue;
        }
        done = give_folder(argv[i], *user) && done;
    }
    return done ? EXIT_SUCCESS : EXIT_FAILURE;
}
