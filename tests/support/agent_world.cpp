#include "agent_world.h"

#include <sys/mount.h>

#include "session.h"

namespace {

constexpr char SLOT[] = "/run/slot";
const std::string ROOTFS = pattern_bytes(16384, 2);
const std::vector<std::string> FOLDERS = {STATE_FOLDER, AGENT_FOLDER};

std::atomic<bool> g_delays{false};  // the service's next command, for half a second

// What the service has the system-call daemon run, as far as this camera has it.
int32_t run_command(const void* command, uint32_t length, void* out, uint32_t outSize) {
    const std::string text(static_cast<const char*>(command), length);
    usleep(g_delays.exchange(false) ? 500000 : 0);
    if (text.starts_with("/etc/init.d/S99checkboot system") || text.starts_with("echo ")) {
        run(text);
    }
    return snprintf(static_cast<char*>(out), outSize, "0");
}

int32_t print_slot(const void* /*command*/, uint32_t /*length*/, void* out, uint32_t outSize) {
    return snprintf(static_cast<char*>(out), outSize, "%s", read_file(SLOT).c_str());
}

// Keys, and one package in every form that a row names: made once.
std::string make_packages() {
    write_file("/run/images/kernel.bin", KERNEL);
    write_file("/run/large/kernel.bin", LARGE_KERNEL);
    write_file("/run/chunked/kernel.bin", CHUNKED_KERNEL);
    write_file("/run/chunked/rootfs.img", ROOTFS);
    // What a camera of the row "older" has in its partition.
    write_file("/run/older",
               CHUNKED_KERNEL.substr(0, 400000) + KERNEL + CHUNKED_KERNEL.substr(450000) + KERNEL);
    write_file("/run/images/rootfs.img", ROOTFS);
    return run("sh $TEXTS/support/agent_packages.sh $TEXTS/../scripts/make_pki");
}

// Of the service's queue; all zeros when it is not there.
msqid_ds queue_status() {
    msqid_ds status = {};
    msgctl(Camera::queue(), IPC_STAT, &status);
    return status;
}

}  // namespace

SimulatedAction make_action(const std::string& kind, const std::string& id) {
    const std::string one = "package.manifest package.manifest.sig kernel.bin";
    const std::string both = one + " rootfs.img";
    const std::string chunked =
        "package.manifest package.manifest.sig rootfs.img kernel.bin.chunks";
    const std::map<std::string, std::string> others = {
        {"combined", "all.manifest all.manifest.sig all.pkg"},
        {"unsigned", "package.manifest kernel.bin rootfs.img"},
        {"too-little", one},
        {"large", one},
        {"chunked", chunked + " kernel.bin.zst"},
        {"two-manifests", both + " all.manifest all.manifest.sig"},
        {"too-much", both + " all.pkg"}};
    const bool waits = kind == "download-only" || kind == "large" || kind == "outside-window";
    const bool isOther =
        kind == "older" || kind == "foreign" || kind == "large" || kind == "chunked";
    SimulatedAction action = {.id = id,
                              .update = waits               ? "skip"
                                        : kind == "attempt" ? "attempt"
                                                            : "forced",
                              .window = kind == "outside-window" ? "unavailable" : "",
                              .consent = kind == "consent"};
    std::istringstream names(others.contains(kind) ? others.at(kind) : both);
    for (std::string name; names >> name;) {
        action.files.push_back(
            {name, read_file("/run/packages/" + (isOther ? kind : "files") + "/" + name)});
    }
    if (kind == "large-signature") {
        action.files[1].bytes.resize(65537);
    }
    if (kind == "changed-image") {
        action.files.back().bytes[100] ^= 1;
    }
    return action;
}

World::World(const std::string& camera, const std::string& action)
    : server({.old = contains(camera, "0.3"),
              .sleep = contains(camera, "slow")         ? "01:00:00"
                       : contains(camera, "every-16-s") ? "00:00:16"
                                                        : "00:00:02"}),
      mode_(camera),
      kernel_(action == "chunked" ? CHUNKED_KERNEL : KERNEL) {
    EXPECT_EQ("0", make_packages());
    EXPECT_EQ("0", run("sh $TEXTS/support/agent_camera.sh '" + camera + "' " + server.url() + " '" +
                       SimulatedServer::CONTROLLER + "'"));
    server.offer(make_action(action));
}

World::~World() {
    stop_agent();
    stop_service();
    run("umount /proc/sys/kernel/random/boot_id /media/mmcblk0p1/ota /media/mmcblk0p1 " +
        STATE_FOLDER + "history.json");
}

void World::restart(int lostAt) {
    stop_agent();
    stop_service();
    observe_storage();
    if (storage_) {
        if (lostAt >= 0) {
            lose_power(static_cast<size_t>(lostAt));
        }
        storage_.emplace(FOLDERS);
    }
    EXPECT_EQ("0",
              run("sh $TEXTS/support/agent_restart.sh '" + mode_ + "' " + std::to_string(++boots)));
    start_service();
}

void World::start_service(std::vector<Fault> faults) {
    if (is("no-service")) {
        return;
    }
    camera_.daemon.reset();
    camera_.daemon = std::make_unique<SimulatedDaemon>(run_command, print_slot);
    if (is("service-dies") || (is("dies-once") && boots == 0)) {
        faults.push_back({.call = "image", .ordinal = 1, .effect = CRASH});
    } else if (is("fails")) {
        faults.push_back({.call = "image", .ordinal = -1, .effect = FLIP});
    }
    camera_.start(faults);
    serves_ = true;
    EXPECT_TRUE(eventually(5000, [] { return Camera::queue() >= 0; }));
    if (is("stuck")) {
        kill(camera_.pid(), SIGSTOP);
    }
}

void World::watch_storage(ForgetfulStorage::Observer observer) {
    observer_ = std::move(observer);
    storage_.emplace(FOLDERS);
}

int World::live(int cutAt, bool powerGoesToo) {
    start_agent(cutAt);
    int status = 0;
    bool restarts = false;
    EXPECT_TRUE(eventually(30000, [&] {
        restarts = serves_ && service_has_ended();
        count_requests(restarts);
        interfere();
        if (act && server.requests().size() >= actAt) {
            std::exchange(act, nullptr)();
        }
        return restarts || waitpid(agent_, &status, WNOHANG) != 0;
    })) << "the agent hangs";
    wasCut = !restarts && WIFSIGNALED(status);
    if (!restarts) {
        agent_ = -1;
        observe_storage();
    }
    if (restarts || (wasCut && powerGoesToo)) {
        restart(wasCut ? cutAt : -1);
        return -1;
    }
    EXPECT_NE(64, WIFEXITED(status) ? WEXITSTATUS(status) : -1) << "settings";
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void World::live_to_the_end(const std::string& id) {
    for (int lives = 0; lives < 10; ++lives) {
        const int status = live();
        const std::string story = server.story(id);
        const bool ended = !story.starts_with("offered") && !story.starts_with("cancelling");
        if (status == 0 && ended && !std::filesystem::exists(STATE_FOLDER + "action.json")) {
            return;
        }
    }
}

std::string World::summary() {
    const std::string story = server.story(ID);
    std::string left = names_in(AGENT_FOLDER);
    if (is("state ")) {
        left += names_in(STATE_FOLDER) + ", closed " +
                std::to_string(server.count("feedback", "closed")) + " times,";
    }
    const bool lost =
        run("grep told /config/agent/history.json | tail -n 1 | grep -q false") == "0";
    return std::to_string(posted) + (queue_status().msg_qnum > 0 ? " in the queue" : "") +
           (lost ? " not delivered" : "") + (left.empty() ? "" : " left" + left) + " " +
           story.substr(0, story.find(" | ")) +
           (contains(story, " | ")
                ? replaced(story.substr(story.rfind(" | ")), "[0-9]{2}:[0-9]{2}|:[0-9]{5}", "#")
                : "");
}

void World::expect_promise(const std::string& id) {
    const std::string story = server.story(id);
    const bool runs = Camera::partition("kernel").starts_with(kernel_) &&
                      Camera::partition("rootfs").starts_with(ROOTFS) &&
                      (read_file(SLOT) == "B\n" || id != ID);
    EXPECT_TRUE(id.empty() || runs == story.starts_with("success")) << story;
    EXPECT_FALSE(std::filesystem::exists(STATE_FOLDER + "action.json")) << story;
    if (!id.empty() && !story.starts_with("canceled")) {
        EXPECT_TRUE(contains(read_file(STATE_FOLDER + "history.json"), "\"id\": \"" + id + "\""));
    }
    EXPECT_EQ("", names_in(AGENT_FOLDER));
    EXPECT_LE(posted, 3);
}

void World::post_empty_request() {
    Camera::post(Camera::request(0, {}), 0);
}

void World::start_agent(int cutAt) {
    const std::string command =
        "echo $$ > /run/agent.pid; exec >> /run/agent.log 2>&1; export CORVO_CUT=" +
        std::to_string(cutAt) + (is("slow") ? " CORVO_SLOW=2000" : "") + "; exec " +
        (storage_ ? ForgetfulStorage::tracer(TRACE) : "") + AGENT_WITH_CUTS " once";
    agent_ = fork();
    if (agent_ == 0) {
        execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
        _exit(127);
    }
}

void World::stop_agent() {
    if (agent_ > 0) {
        // The tracer writes no end for a program that is killed before its first traced call.
        EXPECT_TRUE(!storage_ || eventually(10000, [] { return !read_file(TRACE).empty(); }));
        kill(agent_, SIGKILL);
        waitpid(agent_, nullptr, 0);
        agent_ = -1;
    }
}

void World::observe_storage() {
    if (std::filesystem::exists(TRACE)) {
        storage_->replay(TRACE, observer_);
    }
}

// Leaves of the agent's folders what a power cut can leave: every second time only what was
// flushed, else one of the other states.
void World::lose_power(size_t choice) {
    const std::vector<ForgetfulStorage::State> states = storage_->states();
    ForgetfulStorage::State left = states[choice % 2 == 0 ? 0 : choice / 2 % states.size()];
    for (const auto& [path, content] : states.back()) {
        if (!std::filesystem::exists(path)) {
            left.erase(path);  // the service has removed it
        }
    }
    for (const std::string& folder : FOLDERS) {
        std::filesystem::remove_all(folder);
    }
    put_state(left, "");
}

bool World::service_has_ended() const {
    siginfo_t info = {};
    return waitid(P_PID, static_cast<id_t>(camera_.pid()), &info, WEXITED | WNOHANG | WNOWAIT) ==
               0 &&
           info.si_pid != 0;
}

void World::stop_service() {
    if (serves_) {
        kill(camera_.pid(), SIGKILL);
        camera_.finish();
        serves_ = false;
    }
    // A command of the service that still runs ends before the next start.
    camera_.daemon.reset();
    msgctl(Camera::queue(), IPC_RMID, nullptr);
    remove("/tmp/corvo_upgrade.pid");
    counted_ = false;
}

// What another process does while the agent or its command waits for it.
void World::interfere() {
    if (std::filesystem::exists("/run/withdraws")) {
        // The service takes the request, and for a moment nothing but the queue shows that.
        g_delays = true;
        kill(camera_.pid(), SIGCONT);
        EXPECT_TRUE(eventually(5000, [] { return queue_status().msg_qnum == 0; }));
        remove("/run/withdraws");
    }
    if (std::filesystem::exists("/run/overtake")) {
        post_empty_request();
        remove("/run/overtake");
    }
}

// A queue takes one request, and keeps the time of the last one. A service that has ended has
// removed its queue, and if it had a request, left its pid file.
void World::count_requests(bool hasEnded) {
    const bool wasServed = hasEnded && std::filesystem::exists("/tmp/corvo_upgrade.pid");
    if (!counted_ && (queue_status().msg_stime != 0 || wasServed)) {
        counted_ = true;
        ++posted;
    }
}
