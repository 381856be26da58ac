// Whole actions with the real agent and the real service on a simulated camera, and a simulated
// server: with disturbances by operators, network and power cuts.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/msg.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <filesystem>
#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <utility>

#include "agent/action.h"
#include "agent/consent.h"
#include "agent/part_file.h"
#include "files.h"
#include "forgetful_storage.h"
#include "ota/ota_data.h"
#include "simulated_camera.h"
#include "simulated_server.h"
#include "stride.h"

namespace {

constexpr char BOOT_ID[] = "/proc/sys/kernel/random/boot_id";
constexpr char SIMULATED_BOOT_ID[] = "/run/boot_id";
constexpr char SLOT[] = "/run/slot";
const std::string AGENT_FOLDER = "/media/mmcblk0p1/ota/agent/";
// Where the package is until the card is "mounted" late, and after how many checks that happens.
constexpr char UNMOUNTED[] = "/media/mmcblk0p1/ota/unmounted";
constexpr char PARTITION[] = "/dev/block/by-name/kernel";
constexpr char LATE_PARTITION[] = "/dev/block/late";
constexpr int MOUNTED_AFTER_LOOKS = 50;
const std::string STATE_FOLDER = "/config/agent/";
const std::string KERNEL = pattern_bytes(70000, 1);
const std::string ROOTFS = pattern_bytes(16384, 2);
const std::string PACKAGES = "/run/packages/";
const std::vector<std::string> FILES = {"package.manifest", "package.manifest.sig", "kernel.bin",
                                        "rootfs.img"};
constexpr char ID[] = "11";
constexpr char OLD_TAG[] = "\"old\"";
constexpr char TRACE[] = "/run/storage.trace";
const std::vector<std::string> FOLDERS = {STATE_FOLDER, AGENT_FOLDER};

std::atomic<bool> g_delays{false};  // delay the service's next command by half a second
bool g_switches = true;             // whether a command that switches the slot has an effect

// Simulates the commands that the service sends to the system-call daemon.
int32_t run_command(const void* command, uint32_t length, void* out, uint32_t outSize) {
    const std::string text(static_cast<const char*>(command), length);
    usleep(g_delays.exchange(false) ? 500000 : 0);
    if (text.starts_with("/etc/init.d/S99checkboot system") && g_switches) {
        write_file(SLOT, text.substr(31, 1) + "\n");
    } else if (text.starts_with("echo ")) {
        write_file(text.substr(text.find("> ") + 2), text.substr(5, text.find(" >") - 5) + "\n");
    }
    return snprintf(static_cast<char*>(out), outSize, "0");
}

int32_t print_slot(const void* /*command*/, uint32_t /*length*/, void* out, uint32_t outSize) {
    return snprintf(static_cast<char*>(out), outSize, "%s", read_file(SLOT).c_str());
}

int shell(const std::string& command) {
    return WEXITSTATUS(system(("PATH=" PROGRAMS ":$PATH; " + command).c_str()));
}

// Creates, once, the keys and the packages that the rows name.
void make_packages() {
    write_file("/run/images/kernel.bin", KERNEL);
    write_file("/run/large/kernel.bin", pattern_bytes(2500000, 3));
    write_file("/run/images/rootfs.img", ROOTFS);
    ASSERT_EQ(0, shell("sh " TEXTS "support/agent_packages.sh " TEXTS "../scripts/make_pki"));
}

SimulatedAction make_action(const std::string& kind) {
    SimulatedAction action = {.id = ID, .files = {}};
    std::vector<std::string> names = FILES;
    if (kind == "combined") {
        names = {"all.manifest", "all.manifest.sig", "all.pkg"};
    } else if (kind == "unsigned") {
        names.erase(names.begin() + 1);
    } else if (kind == "too-little" || kind == "large") {
        names.pop_back();
    } else if (kind == "two-manifests") {
        names.insert(names.end(), {"all.manifest", "all.manifest.sig"});
    } else if (kind == "too-much") {
        names.emplace_back("all.pkg");
    }
    const bool waits = kind == "download-only" || kind == "large" || kind == "outside-window" ||
                       kind == "changed-early";
    action.update = waits ? "skip" : kind == "attempt" ? "attempt" : "forced";
    action.window = waits && kind != "download-only" && kind != "large" ? "unavailable" : "";
    action.consent = kind.starts_with("consent");
    const std::string folder =
        PACKAGES + (kind == "older" || kind == "foreign" || kind == "large" ? kind : "files") + "/";
    for (const std::string& name : names) {
        action.files.push_back({name, read_file(folder + name)});
    }
    if (kind == "large-signature") {
        action.files[1].bytes.resize(65537);
    }
    if (kind == "changed-image") {
        action.files.back().bytes[100] ^= 1;
    }
    return action;
}

using nlohmann::json;

// Creates the record in the format of older agents, which stored only the names of files.
void make_record_old() {
    json record = json::parse(read_file(STATE_FOLDER + "action.json"));
    for (json& file : record["files"]) {
        file = json(file["name"]);
    }
    write_file(STATE_FOLDER + "action.json", record.dump());
}

class World {
  public:
    World(const std::string& camera, const std::string& action)
        : server_({.old = contains(camera, "0.3"),
                   .sleep = camera == "slow" ? "01:00:00" : "00:00:02"}),
          mode_(camera) {
        make_packages();
        g_switches = !contains(camera, "no-switch");
        EXPECT_EQ(0, shell("sh " TEXTS "support/agent_camera.sh '" + camera + "' " + server_.url() +
                           " '" + SimulatedServer::CONTROLLER + "'"));
        server_.offer(make_action(action));
    }
    ~World() {
        stop_agent();
        stop_service();
        umount(BOOT_ID);
        umount("/media/mmcblk0p1/ota");
        umount("/media/mmcblk0p1");
        umount((STATE_FOLDER + "history.json").c_str());
    }

    SimulatedServer& server() { return server_; }
    [[nodiscard]] int posted() const { return posted_; }
    [[nodiscard]] bool acted() const { return !act_; }
    [[nodiscard]] int boots() const { return boots_; }
    [[nodiscard]] bool agent_was_cut() const { return cut_; }

    // Switches the power off and on.
    void restart(int lostAt = -1) {
        stop_agent();
        stop_service();
        observe_storage();
        if (storage_) {
            if (lostAt >= 0) {
                lose_power(static_cast<size_t>(lostAt));
            }
            storage_.emplace(FOLDERS);
        }
        write_file(SIMULATED_BOOT_ID, std::to_string(++boots_) + "\n");
        if (contains(mode_, "switched-back") && boots_ > (contains(mode_, "later") ? 1 : 0)) {
            write_file(SLOT, "A\n");
        }
        if (contains(mode_, "stopped")) {
            write_file("/run/stop", "");
        }
        if (contains(mode_, "old-record") && boots_ == 1) {
            make_record_old();
        }
        if (contains(mode_, "taken-out")) {
            umount("/media/mmcblk0p1");
        }
        if (contains(mode_, "late-partition")) {
            rename(PARTITION, LATE_PARTITION);
        }
        if (contains(mode_, "late-card")) {
            rename(AGENT_FOLDER.c_str(), UNMOUNTED);
        }
        if (contains(mode_, "by-hand") || (contains(mode_, "later") && boots_ > 1)) {
            write_file("/dev/block/by-name/kernel", std::string(Camera::PARTITION_SIZE, 'h'));
        }
        if (!contains(mode_, "other-version") && read_file(SLOT) == "B\n") {
            write_file("/etc/version", contains(mode_, "long-version") ? "2.0.0\n" : "2.0\n");
        }
        start_service();
    }

    void start_service(const std::vector<Fault>& faults = {}) {
        if (contains(mode_, "no-service")) {
            return;
        }
        camera_.daemon.reset();
        camera_.daemon = std::make_unique<SimulatedDaemon>(run_command, print_slot);
        std::vector<Fault> all = faults;
        const bool dies =
            contains(mode_, "service-dies") || (contains(mode_, "dies-once") && boots_ == 0);
        if (contains(mode_, "fails") || dies) {
            all.push_back(
                {.call = "image", .ordinal = dies ? 1 : -1, .effect = dies ? CRASH : FLIP});
        }
        camera_.start(all);
        serves_ = true;
        EXPECT_TRUE(eventually(5000, [] { return Camera::queue() >= 0; }));
        if (contains(mode_, "stuck")) {
            kill(camera_.pid(), SIGSTOP);
        }
    }

    // From now on a power cut loses everything that the agent has not flushed. After the agent has
    // ended, `observer` is called for each operation, with the state before it.
    void watch_storage(ForgetfulStorage::Observer observer) {
        observer_ = std::move(observer);
        storage_.emplace(FOLDERS);
    }
    [[nodiscard]] const ForgetfulStorage& storage() const { return *storage_; }

    // Calls `act`, an act of the operator, when the server has received so many requests.
    void when_asked(size_t requests, std::function<void(SimulatedServer&)> act) {
        actAt_ = requests;
        act_ = std::move(act);
    }

    // Runs the agent until it ends, is killed at `cutAt`, or the camera restarts because the
    // service has ended. Returns the agent's exit status, -1 if the camera restarted.
    int live(int cutAt = 0, bool powerGoesToo = false) {
        start_agent(cutAt);
        int status = 0;
        bool restarts = false;
        int looks = 0;
        EXPECT_TRUE(eventually(30000, [&] {
            count_requests();
            if (++looks == MOUNTED_AFTER_LOOKS) {
                rename(UNMOUNTED, AGENT_FOLDER.c_str());
                rename(LATE_PARTITION, PARTITION);
            }
            interfere();
            if (act_ && server_.requests().size() >= actAt_) {
                std::exchange(act_, nullptr)(server_);
            }
            restarts = serves_ && service_has_ended();
            return restarts || waitpid(agent_, &status, WNOHANG) != 0;
        })) << "the agent hangs";
        cut_ = !restarts && WIFSIGNALED(status);
        if (!restarts) {
            agent_ = -1;
            observe_storage();
        }
        if (restarts || (cut_ && powerGoesToo)) {
            restart(cut_ ? cutAt : -1);
            return -1;
        }
        EXPECT_NE(64, WIFEXITED(status) ? WEXITSTATUS(status) : -1) << "settings";
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    // Runs the agent until the server has the result and no action is pending, at most ten times.
    void live_to_the_end(const char* id = ID) {
        for (int lives = 0; lives < 10; ++lives) {
            const int status = live();
            const std::string story = server_.story(id);
            const bool ended = !story.starts_with("offered") && !story.starts_with("cancelling");
            if (status == 0 && ended && !std::filesystem::exists(STATE_FOLDER + "action.json")) {
                return;
            }
        }
    }

    // What must be true at the end in every case: server and camera agree on the result, and no
    // file or record is left over. `id`: the last action; empty: the result is not reported.
    void expect_promise(const std::string& id = ID) {
        const std::string story = server_.story(id);
        const bool runs = Camera::partition("kernel").starts_with(KERNEL) &&
                          Camera::partition("rootfs").starts_with(ROOTFS) &&
                          (read_file(SLOT) == "B\n" || id != ID);
        EXPECT_TRUE(id.empty() || runs == story.starts_with("success")) << story;
        EXPECT_FALSE(std::filesystem::exists(STATE_FOLDER + "action.json")) << story;
        if (!id.empty() && !story.starts_with("canceled")) {
            EXPECT_TRUE(
                contains(read_file(STATE_FOLDER + "history.json"), "\"id\": \"" + id + "\""));
        }
        EXPECT_EQ("", names_in(AGENT_FOLDER));
        EXPECT_LE(posted_, 3);
    }

  private:
    void start_agent(int cutAt) {
        agent_ = fork();
        if (agent_ == 0) {
            write_file("/run/agent.pid", std::to_string(getpid()) + "\n");
            setenv("CORVO_CUT", std::to_string(cutAt).c_str(), 1);
            if (contains(mode_, "slow")) {
                setenv("CORVO_SLOW", "2000", 1);
            }
            const int log = open("/run/agent.log", O_WRONLY | O_CREAT | O_APPEND, 0644);
            dup2(log, STDOUT_FILENO);
            dup2(log, STDERR_FILENO);
            const std::string before = storage_ ? ForgetfulStorage::tracer(TRACE) : "";
            execl("/bin/sh", "sh", "-c", ("exec " + before + AGENT_WITH_CUTS " once").c_str(),
                  nullptr);
            _exit(127);
        }
    }

    void stop_agent() {
        if (agent_ > 0) {
            kill(agent_, SIGKILL);
            waitpid(agent_, nullptr, 0);
            agent_ = -1;
        }
    }

    void observe_storage() {
        if (std::filesystem::exists(TRACE)) {
            storage_->replay(TRACE, observer_);
        }
    }

    // Replaces the agent's folders by a state that a power cut can leave: every second time only
    // the flushed data, otherwise one of the other states.
    void lose_power(size_t choice) {
        const std::vector<ForgetfulStorage::State> states = storage_->states();
        ForgetfulStorage::State left = states[choice % 2 == 0 ? 0 : choice / 2 % states.size()];
        for (const auto& [path, content] : states.back()) {
            if (!std::filesystem::exists(path)) {
                left.erase(path);  // removed by the service, which is not traced
            }
        }
        for (const std::string& folder : FOLDERS) {
            std::filesystem::remove_all(folder);
        }
        put_state(left, "");
    }

    [[nodiscard]] bool service_has_ended() const {
        siginfo_t info = {};
        return waitid(P_PID, static_cast<id_t>(camera_.pid()), &info,
                      WEXITED | WNOHANG | WNOWAIT) == 0 &&
               info.si_pid != 0;
    }

    void stop_service() {
        if (serves_) {
            kill(camera_.pid(), SIGKILL);
            camera_.finish();
            serves_ = false;
        }
        // Waits for a command of the service that the daemon still runs.
        camera_.daemon.reset();
        msgctl(Camera::queue(), IPC_RMID, nullptr);
        remove("/tmp/corvo_upgrade.pid");
        counted_ = false;
    }

    // Performs the events for which the agent, or a command that it runs, waits.
    void interfere() {
        if (std::filesystem::exists("/run/withdraws")) {
            // The service receives the request; for a moment only the queue shows that.
            g_delays = true;
            kill(camera_.pid(), SIGCONT);
            EXPECT_TRUE(eventually(5000, [] {
                msqid_ds status = {};
                return msgctl(Camera::queue(), IPC_STAT, &status) != 0 || status.msg_qnum == 0;
            }));
            remove("/run/withdraws");
        }
        if (std::filesystem::exists("/run/overtake")) {
            if (contains(mode_, "begun")) {
                write_file("/tmp/corvo_upgrade.pid", "999999\n");
            } else {
                OtaMessage empty = {};
                empty.mtype = 1;
                Camera::post(empty, 0);
            }
            remove("/run/overtake");
        }
    }

    // There is at most one request for each queue; the time of the last send shows it.
    void count_requests() {
        msqid_ds status = {};
        if (!counted_ && msgctl(Camera::queue(), IPC_STAT, &status) == 0 && status.msg_stime != 0) {
            counted_ = true;
            ++posted_;
        }
    }

    SimulatedServer server_;
    Camera camera_;
    std::string mode_;
    pid_t agent_ = -1;
    bool serves_ = false;
    bool counted_ = false;
    bool cut_ = false;
    int boots_ = 0;
    int posted_ = 0;
    std::optional<ForgetfulStorage> storage_;
    ForgetfulStorage::Observer observer_;
    size_t actAt_ = 0;
    std::function<void(SimulatedServer&)> act_;
};

std::string simulate(const std::string& camera, const std::string& action,
                     const std::string& faults) {
    World world(camera, action);
    world.server().misbehave(faults);
    world.start_service();
    if (action == "cancelled" || action == "quit") {
        action == "quit" ? world.server().force_quit(ID) : world.server().cancel(ID);
    }
    if (camera.starts_with("agrees") || camera == "denies") {
        EXPECT_EQ(0, world.live());
        EXPECT_EQ(0, shell(camera != "denies" ? "corvo_agent confirm" : "corvo_agent deny"));
    }
    if (contains(camera, "mounted")) {
        EXPECT_EQ(0, world.live());
        EXPECT_EQ(0, shell("mount -t tmpfs -o mode=755 none /media/mmcblk0p1"));
        world.server().change(
            ID, [](SimulatedAction& offer) { offer.update = "forced", offer.window = ""; });
    }
    if (contains(camera, "twice")) {  // killed before the request, and again after it
        EXPECT_EQ(-1, world.live(-2));
        if (camera == "tampers twice") {
            write_file(AGENT_FOLDER + "kernel.bin", "x");
        } else if (camera == "begun-later twice") {
            write_file("/tmp/corvo_upgrade.pid", "999999\n");
        }
    }
    if (camera.starts_with("stuck")) {  // killed after the request, whose posting is not recorded
        EXPECT_EQ(-1, world.live(-1));
        OtaQueueMessage own = {};
        if (contains(camera, "another")) {  // another sender replaces the request
            EXPECT_LT(0, msgrcv(Camera::queue(), &own, sizeof(own.text), 0, IPC_NOWAIT));
            OtaMessage others = {};
            others.mtype = 1;
            Camera::post(others, 0);
        }
    }
    if (action == "cancelled-late") {
        EXPECT_EQ(contains(camera, "overtaken") ? 0 : -1, world.live());
        world.server().cancel(ID);
    }
    if (camera == "talked") {  // the limit of statuses for an action is nearly reached
        const bool closed = action == "outside-window";
        world.live();
        EXPECT_EQ(0, shell(std::string("sed -i 's/statuses.*/statuses\": ") +
                           (closed ? "900" : "896") + ",/' " + STATE_FOLDER + "action.json"));
        world.server().change(
            ID, [&](SimulatedAction& offer) { offer.window = closed ? "" : offer.window; });
    }
    if (action == "changed-early" || action == "changed-late") {
        EXPECT_EQ(action == "changed-early" ? 0 : -1, world.live());
        world.server().change(ID, [&](SimulatedAction& of) {
            of = make_action(camera.starts_with("less") ? "too-little"
                             : camera == "talked"       ? "changed-image"
                                                        : "older");
        });
    }
    if (action == "consent, then another") {
        SimulatedAction another = make_action("consent");
        another.id = "12";
        world.server().offer(another);
    }
    if (action == "consent, then changed") {
        world.server().change(ID, [](SimulatedAction& of) { of = make_action("changed-image"); });
    }
    if (action == "unreachable-later") {
        EXPECT_EQ(-1, world.live());
        if (!faults.empty()) {  // the fault affects the report of the result
            EXPECT_EQ(1, world.live());
        }
        world.server().misbehave("poll status 503");
    }
    // Each poll sends only one answer, or reads an unreadable offer only once.
    const std::string repeated = faults.substr(0, faults.find(' '));
    if (repeated == "answer" || repeated == "word" || repeated == "action") {
        world.live();
        EXPECT_EQ(1U, world.server().count(repeated));
    }
    world.live_to_the_end();
    // The result was not delivered, and then the camera restarts or is upgraded manually.
    if (camera.starts_with("later")) {
        world.restart();
        world.server().misbehave("");
        world.live_to_the_end();
    }
    if (action == "offered-again" || action == "id-reused") {
        world.server().reinstall();
        world.server().offer(make_action(action == "id-reused" ? "older" : "files"));
        world.live_to_the_end();
    }
    const std::string story = world.server().story(ID);
    const std::string history = STATE_FOLDER + "history.json";
    const bool lost = std::filesystem::exists(history) && !contains(camera, "state ") &&
                      !json::parse(read_file(history)).back()["told"].get<bool>();
    std::string left = names_in(AGENT_FOLDER);
    if (contains(camera, "state ")) {
        left += names_in(STATE_FOLDER) + ", closed " +
                std::to_string(world.server().count("feedback", "closed")) + " times,";
    }
    msqid_ds queue = {};
    const bool queued = msgctl(Camera::queue(), IPC_STAT, &queue) == 0 && queue.msg_qnum > 0;
    return std::to_string(world.posted()) + (queued ? " in the queue" : "") +
           (lost ? " not delivered" : "") + (left.empty() ? "" : " left" + left) + " " +
           story.substr(0, story.find(" | ")) +
           (contains(story, " | ")
                ? replaced(story.substr(story.rfind(" | ")), "[0-9]{2}:[0-9]{2}|:[0-9]{5}", "#")
                : "");
}

TEST(Action, EndsAsItDeserves) {
    expect_cases(
        "agent_actions.txt",
        [](std::istream& row) {
            std::string camera, action, faults;
            std::getline(row, camera, ';');
            std::getline(row >> std::ws, action, ';');
            std::getline(row >> std::ws, faults);
            return simulate(camera, action, faults);
        },
        Rows::ARE_INDEPENDENT);
}

// Tries one position after the other until `cut_at` returns that no cut happened. After a single
// cut at any position, the camera must be upgraded and the server must have the result.
void sweep(const std::function<bool(World& world, int place)>& cut_at) {
    bool cut = true;
    for (int place = 1; cut && !testing::Test::HasFailure(); place += sweep_stride()) {
        SCOPED_TRACE(place);
        World world("good", "files");
        cut = cut_at(world, place);
        const bool decided = world.server().story(ID).starts_with("success");
        const int posted = world.posted();
        world.live_to_the_end();
        EXPECT_TRUE(!decided || posted == world.posted()) << "flashed twice";
        cut = cut || world.boots() > 1;  // one restart belongs to the upgrade
        world.expect_promise();
        EXPECT_TRUE(world.server().story(ID).starts_with("success"));
    }
}

// What must be true at every power cut, and whenever the agent posts a request or sends a report.
class Promise {
  public:
    Promise(World& world, const std::string& kernel) : bytes_(kernel), world_(world) {
        Sha256Stream sha256;
        sha256.update(bytes_);
        kernel_ = {.name = NAME, .size = bytes_.size(), .sha256 = sha256.take(), .href = {}};
        world.watch_storage([this](const std::string& call, const std::string& sent) {
            if (call == "msgsnd") {
                expect_flushed_request();
            } else if (!sent.empty()) {
                expect_flushed_report(sent);
            } else {
                expect_states();
            }
        });
    }
    [[nodiscard]] const std::string& told() const { return told_; }
    void expect_cancellation() { begun_ = false; }

  private:
    static constexpr uint64_t COST_MAX = 2097152;  // bytes
    static constexpr char NAME[] = "kernel.bin";
    static constexpr char ROOT[] = "/run/after_power_cut";

    using State = ForgetfulStorage::State;

    static State begins_with(const std::string& folder, State state) {
        std::erase_if(state, [&](const auto& file) { return !file.first.starts_with(folder); });
        state.erase(STATE_FOLDER + "lock");
        return state;
    }

    ActionRecord flushed_action() {
        const std::vector<State> states = world_.storage().states();
        EXPECT_EQ(begins_with(STATE_FOLDER, states.front()),
                  begins_with(STATE_FOLDER, states.back()));
        return load(states.front());
    }

    // Loads action, history and consent from a state; all of them must be readable.
    ActionRecord load(const State& state) {
        std::filesystem::remove_all(ROOT);
        put_state(state, ROOT);
        ActionRecord action;
        EXPECT_EQ("", load_action(ROOT + STATE_FOLDER, action).text);
        history_.clear();
        confirmed_ = false;
        EXPECT_EQ("", load_history(ROOT + STATE_FOLDER, history_).text);
        const std::string path = ROOT + STATE_FOLDER + "consent.json";
        const std::string offer =
            std::filesystem::exists(path) ? json::parse(read_file(path))["offer"] : json("");
        const AgentStatus consent = find_consent(ROOT + STATE_FOLDER, ID, offer, confirmed_);
        EXPECT_TRUE(consent.ok() || consent.result == AGENT_GONE) << consent.text;
        return action;
    }

    void expect_flushed_request() {
        const ActionRecord action = flushed_action();
        EXPECT_EQ(ACTION_COMMITTED, action.stage);
        const std::vector<State> states = world_.storage().states();
        for (const OfferedFile& file : action.files) {
            const std::string path = AGENT_FOLDER + file.name;
            EXPECT_TRUE(states.front().contains(path) &&
                        states.front().at(path) == states.back().at(path))
                << path << " is not flushed";
        }
        told_ += " post";
    }

    void expect_flushed_report(const std::string& request) {
        if (!request.starts_with("POST ")) {
            return;
        }
        const ActionRecord action = flushed_action();
        told_ += contains(request, "\"closed\"") ? " closed" : "";
        EXPECT_TRUE(confirmed_ || !contains(request, "/confirmationBase/"));
        if (!contains(request, "/deploymentBase/")) {
            return;
        }
        EXPECT_TRUE(contains(request, "/deploymentBase/" + action.id + "/")) << request;
        EXPECT_EQ(contains(request, "\"closed\""), action.stage == ACTION_RESULT) << request;
        EXPECT_EQ(contains(request, "\"success\""), action.succeeded) << request;
        EXPECT_EQ(contains(request, "\"downloaded\""), action.downloadOnly) << request;
        begun_ = true;
    }

    void expect_states() {
        const std::vector<State> states = world_.storage().states();
        if (std::exchange(boots_, world_.boots()) != world_.boots()) {
            there_.clear();  // the service may have removed the files of the package
        }
        there_.insert(states.back().begin(), states.back().end());
        for (const State& state : states) {
            if (!testing::Test::HasFailure()) {
                expect_recovery(state, states.back());
            }
        }
    }

    void expect_recovery(const State& state, const State& written) {
        const ActionRecord action = load(state);
        EXPECT_TRUE(!begun_ || action.id == ID ||
                    std::ranges::find(history_, ID, &HistoryEntry::id) != history_.end())
            << "the action is forgotten";
        if (action.stage > ACTION_DOWNLOADING && action.stage < ACTION_RESULT) {
            for (const OfferedFile& file : action.files) {
                const std::string path = AGENT_FOLDER + file.name;
                EXPECT_TRUE(state.contains(path) || !there_.contains(path)) << path << " is lost";
            }
        }
        if (const auto whole = state.find(AGENT_FOLDER + NAME); whole != state.end()) {
            EXPECT_TRUE(whole->second == bytes_) << NAME << " is not whole";
        } else if (state.contains(AGENT_FOLDER)) {
            expect_part(written);
        }
    }

    // The bytes that NAME.part claims must be those of its entity tag, and less than two MiB may be
    // downloaded again.
    void expect_part(const State& written) {
        OpenFolder folder;
        EXPECT_EQ("", open_folder({.path = ROOT + AGENT_FOLDER}, folder).text);
        PartFile part = {.file = kernel_, .content = nullptr, .folder = folder, .stop = stop_};
        EXPECT_EQ("", open_part(part).text);
        std::string expected = bytes_.substr(0, part.position);
        if (part.record.entityTag == OLD_TAG && part.position > 0) {
            expected[0] ^= 1;
        }
        const std::string path = AGENT_FOLDER + NAME + ".part";
        EXPECT_TRUE(expected == read_file(ROOT + path)) << "other bytes of " << part.position;
        for (const std::string& name : {path, AGENT_FOLDER + NAME}) {
            if (written.contains(name)) {
                EXPECT_GE(part.position + COST_MAX, written.at(name).size()) << "are fetched again";
            }
        }
    }

    const std::string bytes_;
    DdiFile kernel_;
    std::atomic<bool> stop_ = false;
    World& world_;
    State there_;
    std::vector<HistoryEntry> history_;
    bool confirmed_ = false;
    int boots_ = 0;
    bool begun_ = false;
    std::string told_;
};

// Kills the agent, or cuts the power, at the change number `place` that it makes to the outside.
bool cut_agent(World& world, int place, bool powerGoesToo) {
    if (powerGoesToo) {
        world.watch_storage([](const std::string& /*call*/, const std::string& /*sent*/) {});
    }
    world.start_service();
    world.live(place, powerGoesToo);
    return world.agent_was_cut();
}

// Checks every state that a power cut can leave at each step of the agent.
TEST(Action, IsKeptWhateverAPowerCutForgets) {
    struct Row {
        std::string camera, action, faults, told;
    };
    const std::string old = std::string("; file:3 tag ") + OLD_TAG;
    for (const auto& [camera, action, faults, told] : std::vector<Row>{
             {"good", "files", "", " post closed"},
             {"service-dies", "files", "", " post post post closed"},
             {"agrees", "consent", "", " post closed"},
             {"good", "outside-window", "", " closed"},  // "closed" is the cancellation
             // The second download has another content and entity tag, and comes in two parts.
             {"good", "large", "file:3 flip 0; file:3 cut 1500000; file:4 cut 2200000" + old, ""},
         }) {
        SCOPED_TRACE(camera + " " + action);
        World world(camera, action);
        Promise promise(world,
                        action == "large" ? read_file(PACKAGES + "large/kernel.bin") : KERNEL);
        std::filesystem::resize_file("/dev/block/by-name/kernel", 3000000);
        world.server().misbehave(faults);
        world.start_service();
        if (action == "consent") {
            EXPECT_EQ(0, world.live());
            EXPECT_EQ(0, shell(ForgetfulStorage::tracer(TRACE) + "corvo_agent confirm"));
        }
        world.live_to_the_end();
        promise.expect_cancellation();
        world.server().cancel(ID);
        world.live();
        EXPECT_EQ(told, promise.told()) << world.server().story(ID);
    }
}

TEST(Action, SurvivesTheAgentsDeathAtEveryStep) {
    sweep([](World& world, int place) { return cut_agent(world, place, false); });
}

TEST(Action, SurvivesAPowerCutAtEveryStepOfTheAgent) {
    sweep([](World& world, int place) { return cut_agent(world, place, true); });
}

TEST(Action, SurvivesAPowerCutAtEveryStepAfterTheRestart) {
    sweep([](World& world, int place) {
        world.start_service();
        EXPECT_EQ(-1, world.live());
        world.live(place, true);
        return world.agent_was_cut();
    });
}

TEST(Action, SurvivesAPowerCutAtEveryStepOfTheService) {
    sweep([](World& world, int place) {
        world.start_service({{.call = "change", .ordinal = place, .effect = CUT}});
        return false;
    });
}

// An action can be cancelled, force-quit or replaced by a newer one at any moment: the result must
// be true, and nothing may be left over.
TEST(Action, EndsWhateverTheOperatorDoes) {
    const std::vector<std::function<void(SimulatedServer&)>> acts = {
        [](SimulatedServer& server) { server.cancel(ID); },
        [](SimulatedServer& server) { server.force_quit(ID); },
        [](SimulatedServer& server) {
            SimulatedAction newer = make_action("files");
            newer.id = "12";
            server.offer(newer);
        }};
    for (size_t requests = 1; requests < 40 && !HasFailure();
         requests += static_cast<size_t>(sweep_stride())) {
        for (size_t i = 0; i < acts.size(); ++i) {
            SCOPED_TRACE(std::to_string(i) + " " + std::to_string(requests));
            World world("good", "files");
            world.start_service();
            world.when_asked(requests, acts[i]);
            world.live_to_the_end();
            if (!world.acted()) {
                return;  // the action ended with fewer requests
            }
            const char* const last = i == 2 ? "12" : ID;
            world.live_to_the_end(last);
            world.expect_promise(i == 1 ? "" : last);
        }
    }
}

constexpr char GATE[] = "/run/gate";  // a fitness command waits until this file is removed
constexpr char LOG[] = "/run/running-agent.log";

// Runs `corvo_agent run`, with its output in LOG.
class RunningAgent {
  public:
    explicit RunningAgent(const char* program = PROGRAMS "/corvo_agent") {
        write_file(LOG, "");
        pid_ = fork();
        if (pid_ == 0) {
            const int log = open(LOG, O_WRONLY | O_APPEND);
            dup2(log, STDOUT_FILENO);
            dup2(log, STDERR_FILENO);
            close(log);
            execl(program, "corvo_agent", "run", nullptr);
            _exit(127);
        }
    }
    ~RunningAgent() { (void)end(SIGKILL); }
    RunningAgent(const RunningAgent&) = delete;
    RunningAgent& operator=(const RunningAgent&) = delete;

    [[nodiscard]] pid_t pid() const { return pid_; }
    void signal(int number) const { kill(pid_, number); }
    // Makes the agent poll; returns whether it does so in time.
    [[nodiscard]] bool polls(SimulatedServer& server, int patienceMs) const {
        const size_t polls = server.count("poll");
        signal(SIGHUP);
        return eventually(patienceMs, [&] { return server.count("poll") > polls; });
    }

    // Sends the signal and returns the exit status; -1: not ended in time, or ended by a signal.
    int end(int number, int patienceMs = 10000) {
        int status = -1;
        if (pid_ > 0) {
            kill(pid_, number);
            const bool ended =
                eventually(patienceMs, [&] { return waitpid(pid_, &status, WNOHANG) == pid_; });
            pid_ = ended ? -1 : pid_;
        }
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

  private:
    pid_t pid_ = -1;
};

// Otherwise, after a power cut in between, the agent would have to find the result without the
// files.
TEST(Action, ResultIsStoredBeforeTheFilesGo) {
    World world("good", "foreign");
    EXPECT_EQ(-1, world.live(-3));
    EXPECT_TRUE(world.agent_was_cut());
    EXPECT_TRUE(contains(names_in(AGENT_FOLDER), "package.manifest"));
    EXPECT_TRUE(contains(read_file(STATE_FOLDER + "action.json"), "\"stage\": \"verdict\""));
}

// The line must appear once for each action, not at each poll.
TEST(Action, WaitForConsentIsLogged) {
    World world("asks", "consent");
    RunningAgent agent;
    EXPECT_TRUE(eventually(5000, [&] { return world.server().count("poll") > 0; }));
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(agent.polls(world.server(), 5000));
    }
    SimulatedAction newer = make_action("consent");
    newer.id = "12";
    world.server().offer(newer);
    const char* const last = "action 12: waits for consent: corvo_agent confirm or deny\n";
    EXPECT_TRUE(agent.polls(world.server(), 5000));
    EXPECT_TRUE(eventually(5000, [&] { return contains(read_file(LOG), last); }));
    EXPECT_EQ(2U, lines_of(replaced(read_file(LOG), "waits for consent.*|[^\n]", "")).size())
        << read_file(LOG);
}

// The upgrade is complete and the slot switched, but the camera does not restart. The agent polls
// as usual, and its wait ends with the restart.
TEST(Action, RestartThatDoesNotComeIsWaitedFor) {
    World world("good", "files");
    world.start_service();
    {
        RunningAgent agent(AGENT_WITH_CUTS);
        EXPECT_TRUE(eventually(20000, [] {
            return contains(read_file(LOG),
                            "action 11: waits for a restart: the slot is switched\n");
        })) << read_file(LOG);
        for (int i = 0; i < 3; ++i) {
            EXPECT_TRUE(agent.polls(world.server(), 900));  // a wait of 60 s takes 1200 ms here
        }
        write_file(SLOT, "?\n");
        agent.signal(SIGHUP);
        EXPECT_TRUE(eventually(10000, [] {
            return contains(read_file(LOG), "action 11: waits for a restart: the slot is unknown");
        })) << read_file(LOG);
        write_file(SLOT, "B\n");
        EXPECT_EQ(0, agent.end(SIGTERM));
    }
    world.restart();
    world.live_to_the_end();
    world.expect_promise();
    EXPECT_TRUE(contains(read_file("/run/agent.log"), "action 11: the camera has restarted"));
}

// The download takes 43 s; the server's polling interval is an hour. After a cancellation during
// the first image, the second one is not downloaded; without it there is at most one poll in ten
// seconds.
TEST(Action, CancellationIsNoticedInTheMiddleOfADownload) {
    for (const bool cancelled : {true, false}) {
        World world("slow", "files");
        world.start_service();
        world.when_asked(3, [&](SimulatedServer& server) {
            EXPECT_TRUE(eventually(5000, [&] { return std::filesystem::exists(GATE); }));
            if (cancelled) {
                server.cancel(ID);
            }
            remove(GATE);
        });
        EXPECT_EQ(cancelled ? 0 : -1, world.live());
        EXPECT_EQ(cancelled ? 3U : 4U, world.server().count("file"));
        EXPECT_EQ(cancelled, world.server().story(ID).starts_with("canceled"));
        EXPECT_LE(world.server().count("poll"), 1U + 4U + 1U);
    }
}

// The agent must not treat the killed command as a result, nor report that the camera is not fit.
TEST(Action, SignalEndsAFitnessCommandThatHangs) {
    for (const auto& [camera, stage] :
         {std::pair("hangs", "downloading"), std::pair("hangs-later", "waiting")}) {
        World world(camera, "files");
        world.start_service();
        RunningAgent agent;
        EXPECT_TRUE(eventually(5000, [] {
            return std::filesystem::exists("/run/fitness.pid") &&
                   !read_file("/run/fitness.pid").empty();
        }));
        const std::string command =
            "/proc/" + std::to_string(std::stoi(read_file("/run/fitness.pid")));
        EXPECT_EQ(0, agent.end(SIGTERM, 1500)) << camera;
        // A zombie has an empty command line.
        EXPECT_EQ(0, shell("! grep -q . " + command + "/cmdline 2> /dev/null")) << camera;
        EXPECT_EQ("offered", world.server().story(ID).substr(0, 7));
        EXPECT_FALSE(contains(read_file(LOG), "waits for")) << read_file(LOG);
        EXPECT_TRUE(contains(read_file(STATE_FOLDER + "action.json"), stage));
    }
}

// If the state folder becomes read-only, the agent must not report the end of an action for ever.
TEST(Action, EndIsReportedOnceFromAReadOnlyStateFolder) {
    World world("slow", "unsigned");
    world.server().misbehave("feedback status 500");
    const std::string protect =
        "cd " + STATE_FOLDER + " && mount --bind . $PWD && mount -o remount,bind,ro $PWD";
    {
        RunningAgent agent;
        EXPECT_TRUE(eventually(5000, [] { return std::filesystem::exists(GATE); }));
        EXPECT_EQ(0, shell(protect));
        remove(GATE);
        for (int i = 0; i < 3; ++i) {
            EXPECT_TRUE(agent.polls(world.server(), 5000));
        }
        // A report that could not be stored must not be sent.
        EXPECT_EQ(0U, world.server().count("feedback", "closed"));
        EXPECT_EQ(0, umount(STATE_FOLDER.c_str()));
        EXPECT_TRUE(agent.polls(world.server(), 5000));
        EXPECT_TRUE(
            eventually(5000, [&] { return world.server().count("feedback", "closed") > 0; }));
        EXPECT_EQ(0, shell(protect));
        world.server().misbehave("");
        const auto ended = [&] { return world.server().story(ID).starts_with("failure"); };
        const auto wakeUntil = [&](int patienceMs, const std::function<bool()>& done) {
            return eventually(patienceMs, [&] {
                agent.signal(SIGHUP);
                return done();
            });
        };
        EXPECT_TRUE(wakeUntil(5000, ended));
        const size_t reported = world.server().count("feedback", "closed");
        EXPECT_FALSE(
            wakeUntil(1000, [&] { return world.server().count("feedback", "closed") > reported; }));
    }
    umount(STATE_FOLDER.c_str());
}

// A download over a connection that breaks again and again must complete; the pauses must not grow
// as long as bytes arrive.
TEST(Action, BytesThatCameResetThePause) {
    World world("good", "files");
    world.server().misbehave("file status 500");
    RunningAgent agent;
    size_t requests = 0;
    for (; requests < 7; ++requests) {
        EXPECT_TRUE(eventually(5000, [&] { return world.server().count("file") > requests; }));
        agent.signal(SIGHUP);
    }
    EXPECT_TRUE(eventually(5000, [&] { return world.server().count("file") > requests; }));
    world.server().misbehave("file:3 cut 9000");
    agent.signal(SIGHUP);
    // The manifest, its signature, a part of an image; then, soon, the missing part.
    EXPECT_TRUE(eventually(5000, [&] { return world.server().count("file") >= requests + 4; }));
    EXPECT_TRUE(eventually(9000, [&] { return world.server().count("file") >= requests + 5; }));
}

TEST(Action, TokenIsReadAgainAtSighup) {
    make_packages();
    SimulatedServer server({});
    ASSERT_EQ(0, shell("sh " TEXTS "support/agent_camera.sh good " + server.url() + " '" +
                       SimulatedServer::CONTROLLER + "'; echo old > /etc/corvo/token"));
    EXPECT_EQ(77, shell("corvo_agent report"));
    RunningAgent agent;
    EXPECT_TRUE(eventually(5000, [&] { return server.count("poll") == 1; }));
    write_file("/etc/corvo/token", "secret\n");
    agent.signal(SIGHUP);
    EXPECT_TRUE(eventually(5000, [&] { return server.count("poll") == 2; }));
    EXPECT_EQ("TargetToken old", server.requests()[1].authorization);
    EXPECT_EQ(SimulatedServer::AUTHORIZATION, server.requests()[2].authorization);
}

// Without a pending action, or with files that wait for another action, the agent's process becomes
// the sleeper, which holds only the lock open, until a signal arrives or the time is over. A change
// of the settings in the meantime does not end it.
TEST(Action, NothingInHandIsSleptThroughInAnotherProgram) {
    World world("slow", "download-only");
    SimulatedServer& server = world.server();
    RunningAgent agent;
    const std::string process = "/proc/" + std::to_string(agent.pid()) + "/";
    const auto sleeps_after = [&](size_t polls) {
        return eventually(10000, [&] {
            std::error_code ended;
            const auto program = std::filesystem::read_symlink(process + "exe", ended);
            return server.count("poll") == polls &&
                   read_file(process + "comm") == "corvo_agent\n" &&
                   program == PROGRAMS "/corvo_agent_sleeper";
        });
    };
    // A SIGHUP before the sleep replaces the sleep by a third poll.
    EXPECT_TRUE(eventually(5000, [] { return std::filesystem::exists(GATE); }));
    agent.signal(SIGHUP);
    remove(GATE);
    EXPECT_TRUE(sleeps_after(3));
    for (const auto& entry : std::filesystem::directory_iterator(process + "fd")) {
        const std::string file = std::filesystem::read_symlink(entry.path());
        EXPECT_TRUE(entry.path().filename() <= "2" || file == STATE_FOLDER + "lock") << file;
    }
    EXPECT_EQ(1, shell("corvo_agent once 2> /run/said"));
    EXPECT_TRUE(contains(read_file("/run/said"), "another agent uses " + STATE_FOLDER));

    EXPECT_EQ(0, shell("corvo_agent status | grep -c -e 'pending    nothing' -e 'downloaded action "
                       "11,' | grep -q 2"));

    agent.signal(SIGHUP);
    EXPECT_TRUE(sleeps_after(4));
    const std::string settings = read_file("/etc/corvo/agent.conf");
    write_file("/etc/corvo/agent.conf", settings + "half-written");
    agent.signal(SIGHUP);
    usleep(200000);
    EXPECT_TRUE(sleeps_after(4));
    write_file("/etc/corvo/agent.conf", settings);
    agent.signal(SIGHUP);
    EXPECT_TRUE(sleeps_after(5));
    EXPECT_EQ(1U, server.count("attributes"));

    // The signals arrive in both programs, and while the process changes from one to the other.
    for (int i = 0; i < 60; ++i) {
        agent.signal(SIGHUP);
        usleep(7000);
    }
    EXPECT_EQ(0, agent.end(SIGTERM));
}

}  // namespace
