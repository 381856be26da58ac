#include "forgetful_storage.h"

#include "files.h"

namespace {

constexpr uint64_t ALL = ~0ULL;
constexpr size_t TRIED_IN_ALL_SUBSETS = 4;  // changes of one file or folder
constexpr size_t ONE_WRITE_MAX = 1048576;   // bytes

std::string folder_of(const std::string& path) {
    return path.substr(0, path.rfind('/', path.size() - 2) + 1);
}

// Returns the sets of changes that may be kept (as bit masks): none first, all of them last.
std::vector<uint64_t> subsets(size_t count) {
    EXPECT_LT(count, 64U) << "too much is not flushed to be simulated";
    const uint64_t all = (1ULL << count) - 1;
    std::set<uint64_t> some = {0, all};
    for (uint64_t which = 0; count <= TRIED_IN_ALL_SUBSETS && which < all; ++which) {
        some.insert(which);
    }
    for (size_t i = 0; i < count; ++i) {
        some.insert({(1ULL << i) - 1, 1ULL << i, all & ~(1ULL << i)});
    }
    return {some.begin(), some.end()};
}

}  // namespace

// A system call that succeeded.
struct ForgetfulStorage::Operation {
    std::string call;
    std::vector<std::string> paths;  // the paths of descriptors only if there are no other paths
    std::string bytes;
    uint64_t number = 0;  // the last argument
    bool truncates = false;

    // Parses a line of strace: text is "\x68\x65", a descriptor with its path is 3<\x2f>.
    explicit Operation(const std::string& line) : call(line.substr(0, line.find('('))) {
        std::string folder;
        const size_t end = line.rfind(" = ");
        for (size_t at = call.size(); at < line.size(); ++at) {
            if (line[at] != '<' && line[at] != '"') {
                continue;
            }
            const bool isText = line[at] == '"';
            std::string text;
            for (++at; line[at] == '\\'; at += 4) {
                text += static_cast<char>(std::stoi(line.substr(at + 2, 2), nullptr, 16));
            }
            if (!isText) {
                folder = text;
                paths = call.starts_with("open") && at > end ? std::vector{text} : paths;
            } else if (call.find("write") != std::string::npos || call == "sendto") {
                bytes = text;
            } else {
                const bool isWhole = text.starts_with('/');
                text.resize(text.find_last_not_of('/') + 1);
                paths.push_back(std::string(isWhole ? "" : folder + "/").append(text));
            }
        }
        if (paths.empty()) {
            paths.push_back(folder);
        }
        const size_t last = line.rfind(", ", end);
        number = last > end ? 0 : strtoull(line.c_str() + last + 2, nullptr, 0);
        truncates = contains(line, "O_TRUNC");
    }

    // Returns whether data is sent to another process.
    [[nodiscard]] bool leaves() const {
        return call == "msgsnd" || (!bytes.empty() && !paths[0].starts_with('/'));
    }
    [[nodiscard]] bool is_followed_by(const Operation& next) const {
        return call == next.call && paths == next.paths && !leaves() && !bytes.empty() &&
               bytes.size() < ONE_WRITE_MAX &&
               (call == "write" || next.number == number + bytes.size());
    }
};

ForgetfulStorage::ForgetfulStorage(const std::vector<std::string>& watched) {
    for (const std::string& path : watched) {
        Names& above = folders_[folder_of(path)].flushed;
        if (!std::filesystem::is_directory(path)) {
            continue;
        }
        above[path] = nullptr;
        Names& names = folders_[path].flushed;
        for (const auto& entry : std::filesystem::directory_iterator(path)) {
            names[entry.path()] = std::make_shared<File>(File{.flushed = read_file(entry.path())});
        }
    }
}

std::string ForgetfulStorage::tracer(const std::string& log) {
    // The leak detector uses ptrace, which fails for a process that is already traced.
    return "env ASAN_OPTIONS=detect_leaks=0 strace -D -q -A -o " + log +
           " -z -y -xx -s 1000000 -e '?open,openat,?openat2,?creat,write,pwrite64,writev,pwritev,"
           "ftruncate,?truncate,fallocate,fsync,fdatasync,?rename,?renameat,renameat2,?link,linkat,"
           "?symlink,symlinkat,?unlink,unlinkat,?rmdir,?mkdir,mkdirat,sendto,msgsnd,"
           "copy_file_range,sendfile' ";
}

bool ForgetfulStorage::perform(const Operation& operation, File& file) {
    const auto& [call, paths, bytes, number, truncates] = operation;
    const auto resize = [&file](size_t size) {
        file.changes.emplace_back([size](std::string& content) { content.resize(size); });
    };
    uint64_t& position = positions_[paths[0]];
    if (call.starts_with("open")) {
        position = 0;
        if (truncates) {
            resize(0);
        }
    } else if (call == "ftruncate") {
        resize(number);
    } else if (call == "fsync" || call == "fdatasync") {
        file = {.flushed = file.with(ALL)};
    } else if (call == "write" || call == "pwrite64") {
        const uint64_t begin = call == "write" ? position : number;
        resize(std::max(file.with(ALL).size(), begin + bytes.size()));
        for (const size_t from : {size_t{0}, bytes.size() / 2}) {
            const std::string part = bytes.substr(from, from == 0 ? bytes.size() / 2 : bytes.npos);
            file.changes.emplace_back([at = begin + from, part](std::string& content) {
                content.resize(std::max(content.size(), at + part.size()));
                content.replace(at, part.size(), part);
            });
        }
        position = begin + bytes.size();
    } else {
        return false;
    }
    return true;
}

void ForgetfulStorage::perform(const Operation& operation) {
    const std::string& call = operation.call;
    const std::string path = operation.paths[0];
    const std::string other = operation.paths.back();
    const std::string folder = folder_of(path);
    if (const auto self = folders_.find(path + "/"); self != folders_.end()) {
        EXPECT_EQ("fsync", call) << "of " << path << " cannot be simulated";
        self->second = {.flushed = self->second.with(ALL)};
        return;
    }
    auto& names = folders_[folder].changes;
    const std::shared_ptr<File> file = folders_[folder].with(ALL)[path];
    if (call.starts_with("mkdir")) {
        folders_[path + "/"];
        names.emplace_back([name = path + "/"](Names& all) { all[name] = nullptr; });
    } else if (call.starts_with("open") && file == nullptr) {
        positions_[path] = 0;
        names.emplace_back(
            [path, made = std::make_shared<File>()](Names& all) { all[path] = made; });
    } else if (call.starts_with("unlink")) {
        names.emplace_back([path](Names& all) { all.erase(path); });
    } else if (call.starts_with("rename") && folder_of(other) == folder) {
        names.emplace_back([path, other, file](Names& all) {
            all.erase(path);
            all[other] = file;
        });
    } else if (file == nullptr || !perform(operation, *file)) {
        ADD_FAILURE() << call << " of " << path << " cannot be simulated";
    }
}

void ForgetfulStorage::replay(const std::string& log, const Observer& before) {
    // The tracer may still write for a moment after the program has ended.
    std::string trace;
    EXPECT_TRUE(eventually(10000,
                           [&] {
                               trace = read_file(log);
                               return trace.ends_with("+++\n");
                           }))
        << "the trace has no end: "
        << trace.substr(trace.size() - std::min<size_t>(trace.size(), 300));
    std::optional<Operation> pending;
    const auto finish = [&] {
        if (pending && pending->leaves()) {
            before(pending->call, pending->bytes);
        } else if (pending && (folders_.contains(folder_of(pending->paths[0])) ||
                               folders_.contains(pending->paths[0] + "/"))) {
            before(pending->call, "");
            perform(*pending);
        }
    };
    std::ifstream file(log);
    for (std::string line; std::getline(file, line);) {
        if (line[0] == '+' || line[0] == '-' ||
            (line.starts_with("open") && !contains(line, "O_CREAT") &&
             !contains(line, "O_TRUNC"))) {
            continue;
        }
        Operation next(line);
        if (pending && pending->is_followed_by(next)) {
            pending->bytes += next.bytes;
            continue;
        }
        finish();
        pending = std::move(next);
    }
    finish();
    std::filesystem::remove(log);
}

ForgetfulStorage::State ForgetfulStorage::state(const void* one, uint64_t which,
                                                uint64_t others) const {
    const auto pick = [&](const auto& of) { return of.with(&of == one ? which : others); };
    State state;
    for (const auto& [path, folder] : folders_) {
        if (state.contains(path) || !folders_.contains(folder_of(path))) {
            for (const auto& [name, file] : pick(folder)) {
                state[name] = file == nullptr ? "" : pick(*file);
            }
        }
    }
    return state;
}

std::vector<ForgetfulStorage::State> ForgetfulStorage::states() const {
    std::vector<State> states = {state(nullptr, 0, 0)};
    const auto add = [&](const auto& one) {
        for (const uint64_t which : subsets(one.changes.size())) {
            states.push_back(state(&one, which, 0));
            states.push_back(state(&one, which, ALL));
        }
    };
    for (const auto& [path, folder] : folders_) {
        for (const auto& [name, file] : folder.with(ALL)) {
            if (file != nullptr && !file->changes.empty()) {
                add(*file);
            }
        }
        if (!folder.changes.empty()) {
            add(folder);
        }
    }
    states.push_back(state(nullptr, 0, ALL));
    return states;
}

void put_state(const ForgetfulStorage::State& state, const std::string& root) {
    for (const auto& [path, content] : state) {
        if (path.ends_with('/')) {
            std::filesystem::create_directories(root + path);
        } else {
            write_file(root + path, content);
        }
    }
}
