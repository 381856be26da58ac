// Trials of a new system: the table of states, whole trials with power cuts on a simulated camera,
// and the programs with the real tools of the boot environment.
#include "base/crc32.h"
#include "commit/procedure.h"
#include "forgetful_storage.h"
#include "session.h"

namespace {

struct PowerCut {};

// What a power cut can leave of bytes that replace others: any prefix, a last block of zeros.
enum Torn { NOTHING, FIRST_BYTE, HALF, ZERO_BLOCK, ALL, TORN_KINDS };

void write_torn(std::string& old, std::string bytes, Torn torn) {
    constexpr size_t BLOCK = 32;
    const size_t size = bytes.size();
    const size_t written[TORN_KINDS] = {0, 1, size / 2, size, size};
    if (torn == ZERO_BLOCK) {
        const size_t last = (size - 1) / BLOCK * BLOCK;
        bytes.replace(last, size - last, size - last, '\0');
    }
    old.resize(std::max(old.size(), size), '\xff');
    old.replace(0, written[torn], bytes, 0, written[torn]);
}

// A camera with two slots. Record and boot environment survive a power cut, which happens at the
// stores with the numbers of `cuts`.
class SimulatedCamera {
  public:
    std::map<int, Torn> cuts;
    int stores = 0;
    std::map<char, std::string> systems = {{'A', "healthy"}, {'B', "healthy"}};
    std::map<char, int> starts;
    int restarts = 0;
    int orderlyStops = 0;             // the camera stops in this many first checks of B
    std::function<void()> meanwhile;  // happens once between two checks; then the camera stops
    std::set<std::string> words;      // what else is wrong: see cases/commit_trials.txt
    std::string copies[RECORD_COPIES];
    std::array<std::string, BOOT_VARIABLES.size()> variables = {"A", "", "", "", "1"};
    char running = 'A';
    std::string log;

    SimulatedCamera() {
        decide_at_boot(platform(), {});
        stores = 0;
    }

    // The switch script.
    void arm() {
        record_arming(platform(), 'B');
        store_variables({{BOOTSYSTEM, "B"},
                         {UPGRADE_AVAILABLE, has("uncounted") ? "0" : "1"},
                         {BOOTCOUNT, "0"},
                         {ROLLED_BACK, ""}});
    }

    // One start: the boot loader, the system, the program. Returns whether the camera is to be
    // started again.
    bool start() {
        ++boot_;
        nowMs_ = 0;
        isDown_ = false;
        try {
            start_boot_loader();
            ++starts[running];
            if (is("panics")) {
                return true;
            }
            decide_at_boot(platform(), {.adoptSwitched = has("accept")});
            return isDown_ || is("crashes");
        } catch (const PowerCut&) {
            return true;
        }
    }

    // Starts until nothing is left to decide. Fails the test if that takes too long.
    void start_to_the_end() {
        int left = 100;
        while (start() && --left > 0) {
        }
        EXPECT_LT(0, left) << log;
    }

    Observation observed() { return observe(platform()); }

    CommitPlatform platform() {
        return {
            .context = this,
            .records = {.context = this,
                        .read =
                            [](void* context, int copy, char* bytes, size_t size) {
                                return of(context).copies[copy].copy(bytes, size);
                            },
                        .write = write_copy},
            .running_slot = [](void* context) { return of(context).running; },
            .boot_id =
                [](void* context, char(&id)[BOOT_ID_SIZE]) {
                    snprintf(id, sizeof(id), "%d", of(context).boot_);
                },
            .read_environment = read_environment,
            .store_environment =
                [](void* context, std::span<const BootValue> values) {
                    if (!of(context).has("full-environment")) {
                        of(context).store_variables({values.begin(), values.end()});
                    }
                },
            .check_health = check_health,
            .monotonic_ms = [](void* context) { return of(context).nowMs_; },
            .wait =
                [](void* context, int64_t milliseconds) {
                    SimulatedCamera& camera = of(context);
                    camera.nowMs_ += milliseconds;
                    if (milliseconds > 0 && camera.is("crashes")) {
                        throw PowerCut();
                    }
                    if (milliseconds > 0 && camera.meanwhile) {
                        std::exchange(camera.meanwhile, nullptr)();
                        camera.isDown_ = true;
                    }
                    return !camera.isDown_;
                },
            .restart =
                [](void* context) {
                    ++of(context).restarts;
                    return of(context).isDown_ = true;
                },
            .lock = [](void* context) { EXPECT_EQ(1, ++of(context).locks_) << "waits for itself"; },
            .unlock = [](void* context) { --of(context).locks_; },
            .log = [](void* context, const std::string& line) { of(context).log += line + '\n'; }};
    }

  private:
    int boot_ = 0;
    int64_t nowMs_ = 0;  // since the start
    bool isDown_ = false;
    int locks_ = 0;

    static SimulatedCamera& of(void* context) { return *static_cast<SimulatedCamera*>(context); }
    [[nodiscard]] bool is(const char* system) { return systems[running] == system; }
    [[nodiscard]] bool has(const char* word) const { return words.contains(word); }

    // Counts a store; `write` gets what a power cut leaves of it.
    void store(const std::function<void(Torn)>& write) {
        const auto cut = cuts.find(++stores);
        write(cut == cuts.end() ? ALL : cut->second);
        if (cut != cuts.end()) {
            throw PowerCut();
        }
    }

    static bool write_copy(void* context, int copy, std::span<const char> bytes) {
        SimulatedCamera& camera = of(context);
        EXPECT_EQ(1, camera.locks_) << "another instance can decide at the same time";
        if (!camera.has("full")) {
            camera.store([&](Torn torn) {
                write_torn(camera.copies[copy], {bytes.data(), bytes.size()}, torn);
            });
        }
        return !camera.has("full");
    }

    // The boot environment has two copies: until the new one is complete, the old one is read.
    void store_variables(const std::vector<BootValue>& values) {
        store([&](Torn torn) {
            for (const BootValue& value : values) {
                std::string& variable = variables[value.variable];
                variable = torn == ALL ? value.value : variable;
            }
        });
    }

    void start_boot_loader() {
        if (variables[UPGRADE_AVAILABLE] == "1") {
            const std::string count = std::to_string(atoi(variables[BOOTCOUNT].c_str()) + 1);
            store_variables({{BOOTCOUNT, count.c_str()}});
            if (std::stoi(count) > 3) {
                const std::string failed = variables[BOOTSYSTEM];
                store_variables({{BOOTSYSTEM, failed == "B" ? "A" : "B"},
                                 {UPGRADE_AVAILABLE, "0"},
                                 {ROLLED_BACK, failed.c_str()}});
            }
        }
        if (variables[BOOT_LOADER_SAVED].empty()) {
            store_variables({{BOOT_LOADER_SAVED, "1"}});
        }
        running = has("ignored") ? 'A' : has("stuck") ? 'B' : variables[BOOTSYSTEM][0];
    }

    static bool read_environment(void* context, BootEnvironment& read) {
        const SimulatedCamera& camera = of(context);
        for (size_t i = 0; i < BOOT_VARIABLES.size(); ++i) {
            snprintf(read.values[i], BOOT_VALUE_SIZE, "%s", camera.variables[i].c_str());
        }
        return !camera.has("unreadable") && !camera.variables[BOOT_LOADER_SAVED].empty();
    }
    static bool check_health(void* context, int64_t /*limitMs*/, std::string& reason) {
        SimulatedCamera& camera = of(context);
        if (camera.is("crashes")) {
            throw PowerCut();
        }
        if (camera.running == 'B' && camera.orderlyStops > 0) {
            --camera.orderlyStops;
            camera.isDown_ = true;
        }
        reason = "no picture";
        return !camera.is("unhealthy") && (!camera.is("late") || camera.nowMs_ >= 60000);
    }
};

// Does what the words of a row name.
void prepare(SimulatedCamera& camera, std::istream& row) {
    static const std::map<std::string, void (*)(SimulatedCamera & camera)> EVENTS = {
        {"no-record", [](SimulatedCamera& at) { at.copies[0] = at.copies[1] = ""; }},
        // The defaults that are compiled into the boot loader.
        {"lost", [](SimulatedCamera& at) { at.variables = {"A"}; }},
        {"storable", [](SimulatedCamera& at) { at.words.erase("full-environment"); }},
        {"arm", [](SimulatedCamera& at) { at.arm(); }},
        {"record-only", [](SimulatedCamera& at) { record_arming(at.platform(), 'B'); }},
        {"commit", [](SimulatedCamera& at) { commit_now(at.platform()); }},
        {"rollback", [](SimulatedCamera& at) { roll_back_now(at.platform()); }},
        {"starts", [](SimulatedCamera& at) { at.start_to_the_end(); }},
        {"start", [](SimulatedCamera& at) { at.start(); }}};
    for (std::string word; row >> word;) {
        if (EVENTS.contains(word)) {
            EVENTS.at(word)(camera);
        } else if (word.starts_with("stops=")) {
            camera.orderlyStops = std::stoi(word.substr(6));
        } else if (word.starts_with("meanwhile=")) {
            camera.meanwhile = [&camera, event = EVENTS.at(word.substr(10))] { event(camera); };
        } else if (word[1] == '=') {
            camera.systems[word[0]] = word.substr(2);
        } else {
            camera.words.insert(word);
        }
    }
}

TEST(Trial, EndsAsItDeserves) {
    expect_cases("commit_trials.txt", [](std::istream& row) {
        SimulatedCamera camera;
        prepare(camera, row);
        std::ostringstream text;
        const Observation seen = camera.observed();
        text << camera.running << ' ' << state_of(seen).name << ", starts " << camera.starts['A']
             << ' ' << camera.starts['B'] << ", restarts " << camera.restarts
             << (seen.record.reason[0] == '\0' ? "" : ", ") << seen.record.reason;
        return text.str();
    });
}

// Arms system B of a camera that these words describe, starts until the last decision, and checks
// the result. Returns the number of stores.
int upgrade(const std::string& words, const std::map<int, Torn>& cuts) {
    SimulatedCamera camera;
    std::istringstream row(words);
    prepare(camera, row);
    camera.cuts = cuts;
    try {
        camera.arm();
    } catch (const PowerCut&) {
    }
    camera.start_to_the_end();
    const Observation seen = camera.observed();
    EXPECT_STREQ("committed", state_of(seen).name) << camera.log;
    const bool isHealthy = camera.systems['B'] == "healthy" || camera.systems['B'] == "late";
    const bool wasSwitched = camera.starts['B'] > 0;
    EXPECT_LE(camera.restarts, ROLLBACK_RESTARTS_MAX);
    if (camera.running == 'B') {
        EXPECT_TRUE(isHealthy) << camera.log;
    } else {
        EXPECT_TRUE(!wasSwitched || seen.record.reason[0] != '\0') << camera.log;
        // Three unfinished starts are allowed.
        EXPECT_FALSE(isHealthy && wasSwitched && cuts.size() <= 3) << camera.log;
    }
    // A committed system is never written again.
    const int stores = camera.stores;
    for (const char* system : {"panics", "unhealthy"}) {
        camera.systems[camera.running] = system;
        camera.start();
    }
    EXPECT_EQ(stores, camera.stores) << camera.log;
    return stores;
}

TEST(Trial, EndsInAWholeSystemAfterPowerCutsAtAndInsideEveryStore) {
    // Nobody can notice that B panics when its starts are not counted.
    for (const std::string system :
         {"B=healthy", "B=late", "B=unhealthy", "B=crashes", "B=panics", "uncounted B=healthy",
          "uncounted B=late", "uncounted B=unhealthy", "uncounted B=crashes"}) {
        for (const std::string& words : {system, system + " stops=1"}) {
            const int last = upgrade(words, {});
            for (int cut = 0; cut < last * TORN_KINDS; ++cut) {
                const int first = 1 + cut / TORN_KINDS;
                const auto torn = static_cast<Torn>(cut % TORN_KINDS);
                SCOPED_TRACE(testing::Message() << words << " cut at " << first << '/' << torn);
                const int end = upgrade(words, {{first, torn}});
                for (int second = first + 1; second <= end; ++second) {
                    for (const int more : {0, 2}) {
                        const auto other = static_cast<Torn>((first + second + more) % TORN_KINDS);
                        upgrade(words, {{first, torn}, {second, other}});
                    }
                }
            }
        }
    }
}

// running, selected, upgrade_available, rolled_back; the record's phase, its slots, whether the
// camera was restarted since then.
TEST(State, FollowsFromWhatRunsIsSelectedAndRecorded) {
    expect_cases("commit_states.txt", [](std::istream& row) {
        static constexpr std::string_view PHASES[] = {"none",  "committed",  "armed",
                                                      "trial", "committing", "rolling-back"};
        Observation seen;
        std::string text;
        row >> seen.running;
        for (const BootVariable variable : {BOOTSYSTEM, UPGRADE_AVAILABLE, ROLLED_BACK}) {
            row >> text;
            text.copy(seen.environment.values[variable], text == "-" ? 0 : BOOT_VALUE_SIZE - 1);
        }
        seen.isReadable = seen.environment.values[BOOTSYSTEM] != std::string("unreadable");
        row >> text >> seen.record.committed >> seen.record.trial;
        seen.record.phase = static_cast<Phase>(std::ranges::find(PHASES, text) - PHASES);
        // A committed record has a reason if the system that it tried failed.
        const bool hasFailed =
            seen.record.trial != NO_SLOT && seen.record.trial != seen.record.committed;
        seen.record.reason[0] = text == "committed" && hasFailed ? '!' : '\0';
        seen.isRestarted = rest_of(row) == "later";
        return std::string(state_of(seen).name);
    });
}

TEST(Record, SurvivesWrapsAndTornCopiesAndIsReadAcrossVersions) {
    TrialRecord read;
    uint32_t generation = 0;
    SimulatedCamera camera;
    const CommitPlatform platform = camera.platform();
    const RecordStorage& storage = platform.records;
    platform.lock(platform.context);
    const auto put = [&](int copy, char slot, uint32_t number) {
        const TrialRecord record = {.phase = Phase::COMMITTED, .committed = slot};
        const StoredRecord bytes = encode_record(record, number);
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
    EXPECT_EQ(RECORD_OK, store_record(storage, {.phase = Phase::COMMITTED, .committed = 'B'}));
    EXPECT_EQ(RECORD_OK, load_record(storage, read));
    // A later version has appended fields.
    put(0, 'B', 7);
    std::string later = camera.copies[0].substr(0, whole.size() - 4);
    later[4] = 2;
    later.append("more");
    later[6] = static_cast<char>(later.size() + 4);
    const uint32_t sum = corvo::crc32(0, later);
    later.append(reinterpret_cast<const char*>(&sum), sizeof(sum));
    EXPECT_TRUE(decode_record(later, read, generation));
    EXPECT_EQ('B', read.committed);
    EXPECT_EQ(7U, generation);
}

TEST(Commit, SessionAtTheShell) {
    expect_session("commit.txt", "commit_camera; ");
}

// By the root's device, when the kernel's command line does not name it.
TEST(Commit, FindsTheSlotOfTheRootDevice) {
    expect_session("commit_root.txt", "");
}

// The record on simulated storage that loses what was not flushed: at every power cut the old or
// the new one is read.
TEST(Commit, RecordIsOldOrNewAtEveryPowerCut) {
    constexpr char LOG[] = "/run/storage.trace";
    ASSERT_TRUE(std::filesystem::create_directories("/config/state"));
    ForgetfulStorage storage({"/config/state/"});
    std::set<char> read;
    char before = NO_SLOT;
    for (const char slot : {'A', 'B', 'A'}) {
        // The first run creates the folder.
        const std::string command =
            std::string("corvo_commit --word-a x --state-folder /config/state/commit arm ") + slot;
        ASSERT_EQ(0, system((ForgetfulStorage::tracer(LOG) + PROGRAMS "/" + command).c_str()));
        const auto check = [&](const std::string& /*call*/, const std::string& /*sent*/) {
            for (const ForgetfulStorage::State& state : storage.states()) {
                put_state(state, "/run/cut");
                RecordFolder folder = {.path = "/run/cut/config/state/commit/"};
                TrialRecord record;
                load_record(files_of(folder), record);
                EXPECT_TRUE(record.trial == before || record.trial == slot) << record.trial;
                read.insert(record.trial);
                std::filesystem::remove_all("/run/cut");
            }
        };
        storage.replay(LOG, check);
        before = slot;
        EXPECT_EQ(storage.states().front(), storage.states().back()) << "not all is flushed";
    }
    EXPECT_EQ(3U, read.size());
}

}  // namespace
