// corvo_agent_prepare prepares the folders and locks of the agent's user. Root runs it before each
// start of the agent.
//
//   corvo_agent_prepare USER FOLDER...
//
// Creates each folder that does not exist and makes the user its owner, with mode 700. Also makes
// the user the owner of the lock in the folder, which an agent that root started may have left.
// Makes root the owner of the boot environment's lock, and lets the user's group write to it. Other
// users may write to the parent folders, so no file is changed by its path: links are not followed,
// owner and mode are changed on open descriptors only, and files with a second hard link are not
// changed.
//
// Exit status: 0 all is done; 1 a step failed, with a line for each; 64 wrong use; 67 no such user.
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
// On many systems this is a link to another folder. It is followed, because only root can create
// it.
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

// Whether the file can be a lock: a regular, empty file with one name. A file with content or with
// a second hard link may be any file of the system.
bool is_lock(int file, struct stat& status) {
    return fstat(file, &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink == 1 &&
           status.st_size == 0;
}

// Opens the folder. Creates it and its parents if they do not exist.
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
        return fail(path, errno == ELOOP ? "its path contains a symbolic link" : strerror(errno));
    }
    // On a card's file system without owners (FAT) these calls fail. That is accepted if the card
    // is mounted so that the user's group may write.
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

// In a folder that all users may write to, many kernels do not let root open a file that another
// user has created. Then root could not take the lock, and no slot could be switched. A lock that
// does not belong to root is therefore replaced.
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
            done = fail(argv[i], "must be an absolute path");
            continue;
        }
        done = give_folder(argv[i], *user) && done;
    }
    return done ? EXIT_SUCCESS : EXIT_FAILURE;
}
