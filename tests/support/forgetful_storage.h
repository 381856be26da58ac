// Storage that forgets: what a power cut can leave of what a program did to files.
//
// What was not flushed is lost in whole or in part, each change on its own: the size of a file, the
// first and the second half of what was written, a name that was made, renamed or removed. A flush
// of a file keeps its bytes but not its name, which needs a flush of the folder.
#ifndef TESTS_SUPPORT_FORGETFUL_STORAGE_H
#define TESTS_SUPPORT_FORGETFUL_STORAGE_H

#include <stdint.h>

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

class ForgetfulStorage {
  public:
    // Files by path, with their content; the path of a folder ends in "/".
    using State = std::map<std::string, std::string>;

    // Starts with these folders (ending in "/") as they are, everything flushed. The folders that
    // they are in exist.
    explicit ForgetfulStorage(const std::vector<std::string>& watched);

    // What a command is preceded by so that its system calls are written to the log, behind what is
    // there. Those of its child processes are not.
    static std::string tracer(const std::string& log);

    // Performs what programs did that have ended, and removes the log. `before` is called before
    // each operation with the name of the system call and the bytes that go to a socket; writes to
    // one file that follow each other are one operation. What cannot be simulated fails the test.
    using Observer = std::function<void(const std::string& call, const std::string& sent)>;
    void replay(const std::string& log, const Observer& before);

    // What a power cut can leave now: first everything flushed and nothing else, at the end all
    // that was written; in between every combination, or, where these are too many, every single
    // file and folder in all its variants, with the others as flushed and as written.
    [[nodiscard]] std::vector<State> states() const;

  private:
    template <typename Value>
    struct Stored {
        Value flushed = {};
        std::vector<std::function<void(Value&)>> changes = {};
        [[nodiscard]] Value with(uint64_t which) const {
            Value value = flushed;
            for (size_t i = 0; i < changes.size(); ++i) {
                if ((which >> i & 1U) != 0) {
                    changes[i](value);
                }
            }
            return value;
        }
    };
    using File = Stored<std::string>;
    using Names = std::map<std::string, std::shared_ptr<File>>;  // null: a folder
    using Choice = std::map<const void*, uint64_t>;
    struct Operation;

    void perform(const Operation& operation);
    bool perform(const Operation& operation, File& file);
    [[nodiscard]] State state(const Choice& choice, uint64_t others) const;

    std::map<std::string, Stored<Names>> folders_;
    std::map<std::string, uint64_t> positions_;  // of write()
};

// Makes the files and folders of a state below another root, "" for the real one.
void put_state(const ForgetfulStorage::State& state, const std::string& root);

#endif  // TESTS_SUPPORT_FORGETFUL_STORAGE_H
