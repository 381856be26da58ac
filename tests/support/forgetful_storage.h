// Simulated storage that loses unflushed data: determines the states of files that a power cut can
// leave after the operations of a program.
//
// Each change that was not flushed may be lost independently: the size of a file, the first or the
// second half of what was written, a name that was created, renamed or removed. Flushing a file
// keeps its bytes but not its name, for which the folder must be flushed.
#ifndef TESTS_SUPPORT_FORGETFUL_STORAGE_H
#define TESTS_SUPPORT_FORGETFUL_STORAGE_H

#include "test.h"

class ForgetfulStorage {
  public:
    // Path and content of each file; the path of a folder ends in "/".
    using State = std::map<std::string, std::string>;

    // Starts with the current content of these folders (their paths end in "/"), all of it flushed.
    // Their parent folders must exist.
    explicit ForgetfulStorage(const std::vector<std::string>& watched);

    // Returns the prefix of a command with which its system calls are appended to the log, without
    // those of its child processes.
    static std::string tracer(const std::string& log);

    // Replays the operations of programs that have ended, and removes the log. `before` is called
    // before each operation with the name of the system call and the bytes that are sent to a
    // socket; successive writes to a file are one operation. An operation that cannot be simulated
    // fails the test.
    using Observer = std::function<void(const std::string& call, const std::string& sent)>;
    void replay(const std::string& log, const Observer& before);

    // What a power cut can leave now: first everything flushed and nothing else, at the end all
    // that was written; in between every single file and folder in all its variants, with the
    // others as flushed and as written.
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
    struct Operation;

    void perform(const Operation& operation);
    bool perform(const Operation& operation, File& file);
    [[nodiscard]] State state(const void* one, uint64_t which, uint64_t others) const;

    std::map<std::string, Stored<Names>> folders_;
    std::map<std::string, uint64_t> positions_;  // file positions for write()
};

// Creates the files and folders of a state below another root; "" is the real one.
void put_state(const ForgetfulStorage::State& state, const std::string& root);

#endif  // TESTS_SUPPORT_FORGETFUL_STORAGE_H
