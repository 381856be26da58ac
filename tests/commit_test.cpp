// Trials of a new system: the table of states, whole trials with power cuts on a simulated camera,
// and the programs with the real tools of the boot environment.
#include <gtest/gtest.h>

#include <filesystem>
#include <map>
#include <sstream>

#include "base/crc32.h"
#include "commit/procedure.h"
#include "files.h"
#include "forgetful_storage.h"
#include "session.h"

namespace {

struct PowerCut {};

// What a power cut can leave of bytes that replace others: any prefix, a last block of zeros.
enum class Torn { NOTHING, FIRST_BYTE, HALF, ZERO_BLOCK, ALL };
constexpr Torn TORN[] = {Torn::NOTHING, Torn::FIRST_BYTE, Torn::HALF, Torn::ZERO_BLOCK, Torn::ALL};

void write_torn(std::string& old, std::string bytes, Torn torn) {
    constexpr size_t BLOCK = 32;
    size_t written = torn == Torn::NOTHING      ? 0
                     : torn == Torn::FIRST_BYTE ? 1
                     : torn == Torn::HALF       ? bytes.size() / 2
                                                : bytes.size();
    if (torn == Torn::ZERO_BLOCK) {
        const size_t last = (bytes.size() - 1) / BLOCK * BLOCK;
        std::fill(bytes.begin() + static_cast<long>(last), bytes.end(), '\0');
    }
    old.replace(0, std::min(written, old.size()), bytes.substr(0, written));
}

using Variables = std::map<std::string, std::string>;

// A camera with two slots. Record and boot environment survive a power cut, which happens at the
// stores with the numbers of `cuts`.
class SimulatedCamera {
  public:
    std::map<int, Torn> cuts;
    int stores = 0;
    std::map<char, std::string> systems = {{'A', "healthy"}, {'B', "healthy"}};
    std::map<char, int> starts;
    int restarts = 0;
    int orderlyStops = 0;     // the camera stops in this many first checks of B
    bool counts = true;       // the boot loader counts starts
    char fixed = '\0';        // the boot loader starts this slot whatever is selected
    bool keepsRecord = true;  // otherwise every store of the record fails
    bool keepsEnvironment = true;
    bool readsEnvironment = true;
    std::string copies[RECORD_COPIES];
    std::string environment[2];
    char running = 'A';
    std::string log;
    TrialSettings settings;

    SimulatedCamera() {
        store_variables({{"bootsystem", "A"}, {"boot_loader_saved", "1"}});
        store_record(platform().records, committed('A'));
        stores = 0;
    }

    static TrialRecord committed(char slot) {
        TrialRecord record;
        record.phase = Phase::COMMITTED;
        record.committed = slot;
        return record;
    }

    // The switch script.
    void arm(char slot) {
        record_arming(platform(), slot);
        Variables variables = load_variables();
        variables["bootsystem"] = std::string(1, slot);
        variables["upgrade_available"] = counts ? "1" : "0";
        variables["bootcount"] = "0";
        variables.erase("rolled_back");
        store_variables(variables);
    }

    // One start: the boot loader, the system, the program. Returns whether the camera is to be
    // started again.
    bool start() {
        try {
            ++boot_;
            start_boot_loader();
            ++starts[running];
            if (is("panics")) {
                return true;
            }
            isRestarted_ = stopped_ = false;
            begunMs_ = nowMs_;
            decide_at_boot(platform(), settings);
            return isRestarted_ || stopped_ || is("crashes");
        } catch (const PowerCut&) {
            return true;
        }
    }

    // Starts until nothing is left to decide. Returns false if that takes too long.
    bool start_to_the_end() {
        for (int i = 0; i < 100; ++i) {
            if (!start()) {
                return true;
            }
        }
        return false;
    }

    TrialRecord record() {
        TrialRecord record;
        load_record(platform().records, record);
        return record;
    }
    std::string state() { return state_of(observe(platform())).name; }
    Variables variables() { return load_variables(); }
    void lose_environment() { environment[0] = environment[1] = "?"; }

    CommitPlatform platform() {
        return {
            .context = this,
            .records = {.context = this, .read = read_copy, .write = write_copy},
            .running_slot = [](void* context) { return of(context).running; },
            .boot_id =
                [](void* context, char(&id)[BOOT_ID_SIZE]) {
                    snprintf(id, sizeof(id), "%d", of(context).boot_);
                },
            .read_environment = read_environment,
            .store_environment = store_environment,
            .check_health = check_health,
            .monotonic_ms = [](void* context) { return of(context).nowMs_; },
            .wait =
                [](void* context, int64_t milliseconds) {
                    of(context).nowMs_ += milliseconds;
                    if (milliseconds > 0 && of(context).is("crashes")) {
                        throw PowerCut();
                    }
                    return !of(context).stopped_;
                },
            .restart =
                [](void* context) {
                    ++of(context).restarts;
                    return of(context).isRestarted_ = true;
                },
            .lock = [](void*) {},
            .unlock = [](void*) {},
            .log = [](void* context, const std::string& line) { of(context).log += line + '\n'; }};
    }

  private:
    [[nodiscard]] bool is(const char* system) { return systems[running] == system; }

    int boot_ = 0;
    int64_t nowMs_ = 1000;
    int64_t begunMs_ = 0;
    bool isRestarted_ = false;
    bool stopped_ = false;

    static SimulatedCamera& of(void* context) { return *static_cast<SimulatedCamera*>(context); }

    void store(std::string& target, const std::string& bytes) {
        const auto cut = cuts.find(++stores);
        target.resize(std::max(target.size(), bytes.size()), '\xff');
        write_torn(target, bytes, cut == cuts.end() ? Torn::ALL : cut->second);
        if (cut != cuts.end()) {
            throw PowerCut();
        }
    }

    static size_t read_copy(void* context, int copy, char* bytes, size_t size) {
        return of(context).copies[copy].copy(bytes, size);
    }
    static bool write_copy(void* context, int copy, std::span<const char> bytes) {
        if (of(context).keepsRecord) {
            of(context).store(of(context).copies[copy], {bytes.data(), bytes.size()});
        }
        return of(context).keepsRecord;
    }

    // The redundant environment of U-Boot: a checksum, a serial number of one byte, the variables.
    static std::string with_checksum(const std::string& text) {
        const uint32_t sum = corvo::crc32(0, text);
        return std::string(reinterpret_cast<const char*>(&sum), sizeof(sum)) + text;
    }
    bool is_complete(int copy) {
        const std::string& bytes = environment[copy];
        return bytes.size() > 5 && bytes == with_checksum(bytes.substr(4));
    }
    int current() {
        if (is_complete(0) && is_complete(1)) {
            return static_cast<int8_t>(environment[1][4] - environment[0][4]) > 0 ? 1 : 0;
        }
        return is_complete(0) ? 0 : is_complete(1) ? 1 : -1;
    }
    Variables load_variables() {
        if (current() < 0) {
            return {{"bootsystem", "A"}};  // the defaults that are compiled into the boot loader
        }
        Variables variables;
        for (const std::string& line : lines_of(environment[current()].substr(5))) {
            const std::string text = line.substr(0, line.find('\0'));
            if (!text.empty()) {
                variables[text.substr(0, text.find('='))] = text.substr(text.find('=') + 1);
            }
        }
        return variables;
    }
    void store_variables(const Variables& variables) {
        std::string text;
        for (const auto& [name, value] : variables) {
            text.append(name).append("=").append(value).append("\n");
        }
        text.resize(256);
        const char serial = current() < 0 ? '\xfe' : environment[current()][4];
        store(environment[current() == 0 ? 1 : 0],
              with_checksum(static_cast<char>(serial + 1) + text));
    }

    void start_boot_loader() {
        Variables variables = load_variables();
        if (variables["upgrade_available"] == "1") {
            const int count = atoi(variables["bootcount"].c_str()) + 1;
            variables["bootcount"] = std::to_string(count);
            store_variables(variables);
            if (count > 3) {
                const std::string failed = variables["bootsystem"];
                variables["bootsystem"] = failed == "B" ? "A" : "B";
                variables["upgrade_available"] = "0";
                variables["rolled_back"] = failed;
                store_variables(variables);
            }
        }
        if (variables["boot_loader_saved"].empty()) {
            variables["boot_loader_saved"] = "1";
            store_variables(variables);
        }
        running = fixed != '\0' ? fixed : variables["bootsystem"][0];
    }

    static bool read_environment(void* context, BootEnvironment& read) {
        SimulatedCamera& camera = of(context);
        read = {};
        for (const auto& [name, value] : camera.load_variables()) {
            for (size_t i = 0; i < BOOT_VARIABLES.size(); ++i) {
                if (name == BOOT_VARIABLES[i]) {
                    snprintf(read.values[i], BOOT_VALUE_SIZE, "%s", value.c_str());
                }
            }
        }
        return camera.readsEnvironment && camera.current() >= 0;
    }
    static void store_environment(void* context, std::span<const BootValue> values) {
        Variables variables = of(context).load_variables();
        for (const BootValue& value : values) {
            variables[BOOT_VARIABLES[value.variable]] = value.value;
        }
        if (of(context).keepsEnvironment) {
            of(context).store_variables(variables);
        }
    }
    static bool check_health(void* context, int64_t /*limitMs*/, std::string& reason) {
        SimulatedCamera& camera = of(context);
        if (camera.is("crashes")) {
            throw PowerCut();
        }
        if (camera.running == 'B' && camera.orderlyStops > 0) {
            --camera.orderlyStops;
            camera.stopped_ = true;
        }
        reason = "no picture";
        const bool isLate = camera.is("late") && camera.nowMs_ - camera.begunMs_ < 60000;
        return !camera.is("unhealthy") && !isLate;
    }
};

// Sets what one word of a row names.
void prepare(SimulatedCamera& camera, const std::string& word) {
    const std::map<std::string, std::function<void()>> known = {
        {"uncounted", [&] { camera.counts = false; }},
        {"ignored", [&] { camera.fixed = 'A'; }},
        {"stuck", [&] { camera.fixed = 'B'; }},
        {"no-record", [&] { camera.copies[0] = camera.copies[1] = ""; }},
        {"full", [&] { camera.keepsRecord = false; }},
        {"full-environment", [&] { camera.keepsEnvironment = false; }},
        {"unreadable", [&] { camera.readsEnvironment = false; }},
        {"lost", [&] { camera.lose_environment(); }},
        {"accept", [&] { camera.settings.adoptSwitched = true; }},
        {"arm", [&] { camera.arm('B'); }},
        {"record-only", [&] { record_arming(camera.platform(), 'B'); }},
        {"commit", [&] { commit_now(camera.platform()); }},
        {"rollback", [&] { roll_back_now(camera.platform()); }},
        {"starts", [&] { EXPECT_TRUE(camera.start_to_the_end()); }},
        {"start", [&] { camera.start(); }},
    };
    const size_t equals = word.find('=');
    if (equals == std::string::npos) {
        known.at(word)();
    } else if (word.starts_with("stops")) {
        camera.orderlyStops = std::stoi(word.substr(equals + 1));
    } else {
        camera.systems[word[0]] = word.substr(equals + 1);
    }
}

TEST(Trial, EndsAsItDeserves) {
    expect_cases("commit_trials.txt", [](std::istream& row) {
        SimulatedCamera camera;
        for (std::string word; row >> word;) {
            prepare(camera, word);
        }
        std::ostringstream text;
        text << camera.running << ' ' << camera.state() << ", starts " << camera.starts['A'] << ' '
             << camera.starts['B'] << ", restarts " << camera.restarts;
        const TrialRecord record = camera.record();
        text << (record.reason[0] == '\0' ? "" : ", ") << record.reason;
        return text.str();
    });
}

// Checks the result of a whole upgrade, from the arming to the last decision, after any power cuts.
void expect_whole_result(SimulatedCamera& camera, size_t cuts) {
    EXPECT_TRUE(camera.start_to_the_end()) << camera.log;
    EXPECT_EQ("committed", camera.state()) << camera.log;
    const TrialRecord record = camera.record();
    const bool isHealthy = camera.systems['B'] == "healthy" || camera.systems['B'] == "late";
    const bool wasSwitched = camera.starts['B'] > 0;
    EXPECT_LE(camera.restarts, ROLLBACK_RESTARTS_MAX);
    EXPECT_NE("1", camera.variables()["upgrade_available"]);
    if (camera.running == 'B') {
        EXPECT_TRUE(isHealthy) << camera.log;
    } else {
        EXPECT_TRUE(!wasSwitched || record.reason[0] != '\0') << camera.log;
        // Three unfinished starts are allowed.
        EXPECT_FALSE(isHealthy && wasSwitched && cuts <= 3) << camera.log;
    }
}

TEST(Trial, EndsInAWholeSystemAfterPowerCutsAtAndInsideEveryStore) {
    for (const char* system : {"healthy", "late", "unhealthy", "panics", "crashes"}) {
        for (const int stops : {0, 1}) {
            for (const bool counts : {true, false}) {
                if (!counts && std::string(system) == "panics") {
                    continue;  // nobody can notice that
                }
                const auto run = [&](const std::map<int, Torn>& cuts) {
                    SimulatedCamera camera;
                    camera.systems['B'] = system;
                    camera.orderlyStops = stops;
                    camera.counts = counts;
                    camera.cuts = cuts;
                    try {
                        camera.arm('B');
                    } catch (const PowerCut&) {
                    }
                    expect_whole_result(camera, cuts.size());
                    return camera.stores;
                };
                const int last = run({});
                for (int first = 1; first <= last; ++first) {
                    for (const Torn torn : TORN) {
                        SCOPED_TRACE(testing::Message() << system << stops << counts << " cut at "
                                                        << first << '/' << static_cast<int>(torn));
                        const int end = run({{first, torn}});
                        for (int second = first + 1; second <= end; ++second) {
                            run({{first, torn}, {second, TORN[(first + second) % 5]}});
                            run({{first, torn}, {second, TORN[(first + second + 2) % 5]}});
                        }
                    }
                }
            }
        }
    }
}

TEST(Trial, CommittedSystemIsNeverWrittenAgain) {
    SimulatedCamera camera;
    camera.arm('B');
    ASSERT_TRUE(camera.start_to_the_end());
    const int stores = camera.stores;
    for (int i = 0; i < 20; ++i) {
        camera.systems['B'] = i % 2 == 0 ? "panics" : "unhealthy";
        camera.start();
    }
    EXPECT_EQ('B', camera.running);
    EXPECT_EQ(stores, camera.stores);
}

// running, selected, upgrade_available, rolled_back; the record's phase, its slots, whether the
// camera was restarted since then.
Observation observation(std::istream& row) {
    static const std::map<std::string, Phase> PHASES = {{"none", Phase::NONE},
                                                        {"committed", Phase::COMMITTED},
                                                        {"armed", Phase::ARMED},
                                                        {"trial", Phase::TRIAL},
                                                        {"committing", Phase::COMMITTING},
                                                        {"rolling-back", Phase::ROLLING_BACK}};
    std::string selected, flag, rolledBack, phase, restarted;
    Observation seen;
    row >> seen.running >> selected >> flag >> rolledBack >> phase >> seen.record.committed >>
        seen.record.trial >> restarted;
    const auto put = [&seen](BootVariable variable, const std::string& value) {
        snprintf(seen.environment.values[variable], BOOT_VALUE_SIZE, "%s",
                 value == "-" ? "" : value.c_str());
    };
    seen.isReadable = selected != "unreadable";
    put(BOOTSYSTEM, selected);
    put(UPGRADE_AVAILABLE, flag);
    put(ROLLED_BACK, rolledBack);
    seen.record.phase = PHASES.at(phase);
    snprintf(seen.record.reason, REASON_SIZE, "%s",
             phase == "committed" && seen.record.trial != NO_SLOT ? "no picture" : "");
    seen.isRestarted = restarted == "later";
    return seen;
}

TEST(State, FollowsFromWhatRunsIsSelectedAndRecorded) {
    expect_cases("commit_states.txt", [](std::istream& row) {
        static const char* const ACTIONS[] = {"report",     "nothing",         "adopt",
                                              "try",        "try or adopt",    "finish commit",
                                              "roll back",  "finish rollback", "record fallback",
                                              "record lost"};
        const State& state = state_of(observation(row));
        return std::string(state.name) + ": " + ACTIONS[static_cast<size_t>(state.action)];
    });
}

TEST(Record, SurvivesWrapsAndTornCopiesAndIsReadAcrossVersions) {
    TrialRecord record = SimulatedCamera::committed('B');
    TrialRecord read;
    uint32_t generation = 0;
    SimulatedCamera camera;
    const RecordStorage storage = camera.platform().records;
    const auto put = [&](int copy, char slot, uint32_t number) {
        const StoredRecord bytes = encode_record(SimulatedCamera::committed(slot), number);
        camera.copies[copy].assign(bytes.data(), bytes.size());
    };
    put(0, 'A', UINT32_MAX);
    put(1, 'B', 0);
    EXPECT_EQ(RECORD_OK, load_record(storage, read));
    EXPECT_EQ('B', read.committed) << "the generation has wrapped";
    // Every byte of a copy counts.
    const std::string whole = camera.copies[1];
    for (size_t i = 0; i < whole.size(); ++i) {
        camera.copies[1][i] = static_cast<char>(camera.copies[1][i] ^ 1);
        EXPECT_EQ(RECORD_OK, load_record(storage, read));
        EXPECT_EQ('A', read.committed) << i;
        camera.copies[1] = whole;
    }
    camera.copies[0] = camera.copies[1] = "garbage";
    EXPECT_EQ(RECORD_CORRUPT, load_record(storage, read));
    EXPECT_EQ(RECORD_OK, store_record(storage, record));
    // A later version has appended fields.
    StoredRecord bytes = encode_record(record, 7);
    std::string later(bytes.data(), bytes.size() - 4);
    later[4] = 2;
    later.append("more");
    later[6] = static_cast<char>(later.size() + 4);
    const uint32_t sum = corvo::crc32(0, later);
    later.append(reinterpret_cast<const char*>(&sum), sizeof(sum));
    EXPECT_TRUE(decode_record(later, read, generation));
    EXPECT_EQ('B', read.committed);
    EXPECT_EQ(7U, generation);
}

constexpr char SETUP[] = "commit_camera; ";

TEST(Commit, SessionAtTheShell) {
    expect_session("commit.txt", SETUP);
}

// The record on simulated storage that loses what was not flushed: at every power cut the old or
// the new one is read.
TEST(Commit, RecordIsOldOrNewAtEveryPowerCut) {
    constexpr char LOG[] = "/run/storage.trace";
    ASSERT_TRUE(std::filesystem::create_directories("/config/commit"));
    ForgetfulStorage storage({"/config/commit/"});
    std::map<char, int> read;
    char newest = NO_SLOT;
    for (const char slot : {'A', 'B', 'A'}) {
        const char before = newest;
        const std::string command = std::string("corvo_commit --word-a x arm ") + slot;
        ASSERT_EQ(0, system((ForgetfulStorage::tracer(LOG) + PROGRAMS "/" + command).c_str()));
        const auto check = [&](const std::string& /*call*/, const std::string& /*sent*/) {
            for (const ForgetfulStorage::State& state : storage.states()) {
                put_state(state, "/run/cut");
                RecordFolder folder = {.path = "/run/cut/config/commit/"};
                TrialRecord record;
                const bool isRead = load_record(files_of(folder), record) == RECORD_OK;
                const char now = isRead ? record.trial : NO_SLOT;
                EXPECT_TRUE(now == before || now == slot) << now;
                ++read[now];
                std::filesystem::remove_all("/run/cut");
            }
        };
        storage.replay(LOG, check);
        newest = slot;
        EXPECT_EQ(storage.states().front(), storage.states().back()) << "not all is flushed";
    }
    EXPECT_EQ(3U, read.size());
}

}  // namespace
