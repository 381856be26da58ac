// Acts as many cameras of one update server at the level of the protocol: requests, connections and
// pauses are those of corvo_agent, which uses the same transport and the same delays. Downloads are
// discarded, and an upgrade is only a pause. Everything that a camera chooses follows from the
// seed.
//
// A wake-up of a camera is one task of a worker thread, with a new connection as the agent has it
// after its sleep. If all workers are busy, a wake-up is late; the longest delay is printed.
#include <signal.h>
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <map>
#include <mutex>
#include <queue>
#include <thread>

#include "agent/ddi.h"
#include "agent/delay.h"
#include "agent/http.h"
#include "agent/json_text.h"
#include "agent/server.h"
#include "agent/url.h"
#include "base/monotonic_clock.h"
#include "cli/command_line.h"

namespace {

constexpr char PROGRAM[] = "load_generator";
constexpr int64_t MS_PER_S = 1000;
constexpr int POLLS_MAX = 12;     // in one wake-up, as in the agent
constexpr int64_t LOOK_MS = 100;  // how late a wake-up is noticed at most
constexpr int64_t START_WITHIN_MS = 1000;
// With --unspread, the polling interval by which retries are limited.
constexpr uint32_t UNSPREAD_INTERVAL_S = 3600;

const DdiAttributes ATTRIBUTES = {
    {"version", "2.0"}, {"slot", "B"}, {"modules", "kernel"}, {"outcome", "success"}};

struct Options {
    std::string server, ca, secondsFile;
    uint32_t cameras = 1, seconds = 60, startWithinS = 0, upgradeS = 10, powerAtS = 0, done = 0;
    uint32_t workers = 500;
    uint64_t requests = 5000000, seed = 1;
    bool list = false, saturate = false, unspread = false;
};

enum class Stage { IDLE, DOWNLOADED, UPGRADING, RESULT };

struct Camera {
    Stage stage = Stage::IDLE;
    std::string action = {};
    uint32_t number = 0, sleepS = 0, failures = 0, wakes = 0;
    bool attributesDue = false;  // as in the agent: after a start and after a result
    bool progressed = false;     // a file was downloaded in this wake-up
    uint32_t starts = 0;         // power failures that it has noticed
    int64_t upgradedMs = 0;      // when its upgrade ends
    int64_t servedMs = -1;       // when the first poll after a start was answered
};

struct Second {
    uint32_t wakes = 0;     // wake-ups that were due in this second
    uint32_t demanded = 0;  // requests of these wake-ups, whenever they were sent
    uint32_t requests = 0;  // requests that began
    uint32_t errors = 0;    // of these
};

using Due = std::pair<int64_t, uint32_t>;  // time in ms, index of the camera

struct Load {
    Options options;
    std::atomic<bool> stop = false;
    int64_t beganMs = corvo::monotonic_ms();

    std::mutex mutex;  // of everything below; a camera in a wake-up belongs to its worker
    std::condition_variable changed;
    std::vector<Camera> cameras;
    std::priority_queue<Due, std::vector<Due>, std::greater<>> queue;
    std::vector<Second> seconds;
    std::map<std::string, uint64_t> errors;
    uint64_t requests = 0, wakes = 0, done = 0;
    int64_t slowestMs = 0, latestMs = 0;
    uint32_t powerFailures = 0;
    bool hasLeader =
        false;  // one idle worker waits for the next wake-up, the others for that worker

    [[nodiscard]] int64_t now_ms() const { return corvo::monotonic_ms() - beganMs; }
    Second& second_of(int64_t ms) {
        return seconds[std::min(static_cast<size_t>(ms / MS_PER_S), seconds.size() - 1)];
    }
};

// SplitMix64: a well-mixed number for each pair of seed and index.
uint64_t mixed(uint64_t seed, uint64_t index) {
    uint64_t x = seed * 0x9E3779B97F4A7C15 + index * 0xD1B54A32D192ED03 + 0x2545F4914F6CDD1D;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EB;
    return x ^ (x >> 31);
}

uint32_t random_of(const Load& load, Camera& camera) {
    const uint64_t index = uint64_t{camera.number} << 32 | ++camera.wakes;
    return static_cast<uint32_t>(mixed(load.options.seed, index));
}

std::string name_of(uint32_t number) {
    char name[32];
    snprintf(name, sizeof(name), "load-%06u", number);
    return name;
}

// Not a secret: the server is on this machine and ends with the measurement.
std::string token_of(uint64_t seed, uint32_t number) {
    char token[40];
    snprintf(token, sizeof(token), "%016lx%016lx", mixed(~seed, number), mixed(seed, number));
    return token;
}

// The kind of an error, without the URL and other details in which requests differ.
std::string kind_of(const std::string& text) {
    const size_t answer = text.find(" answers ");
    std::string kind = answer == std::string::npos ? text.substr(text.rfind(": ") + 2)
                                                   : text.substr(answer + 1, 11);
    if (answer == std::string::npos) {
        std::ranges::replace_if(
            kind, [](char c) { return c >= '0' && c <= '9'; }, '#');
    }
    return kind;
}

// A wake-up of a camera.
class Wake {
  public:
    Wake(Load& load, Camera& camera, int64_t dueMs)
        : load_(load),
          camera_(camera),
          dueMs_(dueMs),
          settings_({.url = load.options.server,
                     .controllerId = name_of(camera.number),
                     .authorization = "TargetToken " + token_of(load.options.seed, camera.number),
                     .ca = load.options.ca}),
          server_(settings_, load.stop) {}

    AgentStatus run() {
        camera_.progressed = false;
        if (camera_.stage == Stage::UPGRADING) {  // the upgrade is over, and the camera has started
            camera_.stage = Stage::RESULT;
            camera_.attributesDue = true;
        }
        AgentStatus status;
        bool again = true;
        for (int i = 0; i < POLLS_MAX && again && status.ok(); ++i) {
            again = false;
            status = poll(again);
        }
        return status;
    }

  private:
    // Sends a request and counts it.
    template <typename Call>
    AgentStatus request(Call call) {
        const int64_t begin = load_.now_ms();
        AgentStatus status = call();
        const int64_t taken = load_.now_ms() - begin;
        if (status.result == AGENT_STOPPED) {
            return status;
        }
        const std::lock_guard lock(load_.mutex);
        ++load_.requests;
        ++load_.second_of(begin).requests;
        ++load_.second_of(dueMs_).demanded;
        load_.slowestMs = std::max(load_.slowestMs, taken);
        if (!status.ok()) {
            ++load_.second_of(begin).errors;
            ++load_.errors[kind_of(status.text)];
        }
        return status;
    }

    void count_error(const char* kind) {
        const std::lock_guard lock(load_.mutex);
        ++load_.errors[kind];
    }

    AgentStatus send(const std::string& action, const DdiFeedback& feedback) {
        return request(
            [&] { return server_.send_feedback(server_.action_href(action), feedback); });
    }

    AgentStatus poll(bool& again) {
        DdiPoll poll;
        AgentStatus status = request([&] { return server_.poll(poll); });
        if (!status.ok()) {
            return status;
        }
        camera_.sleepS = poll.sleepS;
        camera_.servedMs = camera_.servedMs < 0 ? load_.now_ms() : camera_.servedMs;
        // A result goes first, because the attributes are due again after it.
        if ((camera_.attributesDue || !poll.configData.empty()) && camera_.stage != Stage::RESULT) {
            status = request([&] { return server_.send_attributes(poll.configData, ATTRIBUTES); });
            camera_.attributesDue = camera_.attributesDue && !status.ok();
        }
        if (poll.deployment.empty()) {
            if (camera_.stage != Stage::IDLE) {
                count_error("an action that is no longer offered");
                camera_.stage = Stage::IDLE;
            }
            return {};
        }
        DdiAction action;
        status = request([&] { return server_.get_action(poll.deployment, action); });
        if (!status.ok()) {
            return status;
        }
        if (camera_.stage == Stage::RESULT) {
            return report(action, again);
        }
        if (camera_.stage == Stage::IDLE) {
            status = download(action);
            if (status.ok()) {  // the offer may have changed meanwhile
                status = request([&] { return server_.get_action(poll.deployment, action); });
            }
            if (!status.ok()) {
                return status;
            }
        }
        camera_.stage = Stage::UPGRADING;
        // The agent posts the request first, so that a failure has no effect.
        (void)send(action.id, {.id = action.id, .details = {"upgrading, request 1"}});
        return {};
    }

    // The files are small, so that their progress is not reported.
    AgentStatus download(const DdiAction& action) {
        camera_.action = action.id;
        for (const DdiFile& file : action.files) {
            if (!url_parts(file.href).same_origin(url_parts(settings_.url))) {
                return agent_fault(AGENT_MALFORMED, "download: a link to another host");
            }
            HttpHead head;
            uint64_t received = 0;
            const auto discard = [&received](const HttpHead&, std::span<const char> bytes) {
                received += bytes.size();
                return AgentStatus{};
            };
            AgentStatus status =
                request([&] { return server_.http().fetch(file.href, {}, head, discard); });
            if (status.ok() && received != file.size) {
                status = agent_fault(AGENT_DIFFERENT, "download: not the announced size");
                count_error("not the announced size");
            }
            if (!status.ok()) {
                return status;
            }
            camera_.progressed = true;
        }
        camera_.stage = Stage::DOWNLOADED;
        return {};
    }

    AgentStatus report(const DdiAction& action, bool& again) {
        if (action.id != camera_.action) {
            count_error("another action is offered before the result");
        }
        AgentStatus status = send(camera_.action, {.id = camera_.action,
                                                   .execution = DdiExecution::CLOSED,
                                                   .finished = DdiFinished::SUCCESS,
                                                   .details = {"slot B, version 2.0"}});
        if (status.ok()) {
            camera_.stage = Stage::IDLE;
            camera_.attributesDue = true;
            again = true;
            const std::lock_guard lock(load_.mutex);
            ++load_.done;
        }
        return status;
    }

    Load& load_;
    Camera& camera_;
    const int64_t dueMs_;
    const ServerSettings settings_;
    Server server_;
};

// When a camera that starts at this time polls for the first time. It ends an upgrade before.
int64_t first_poll_ms(Load& load, Camera& camera, int64_t start) {
    if (camera.stage == Stage::UPGRADING) {
        start += load.options.upgradeS * MS_PER_S;
        camera.upgradedMs = start;
    }
    const bool isIdle = camera.stage == Stage::IDLE;
    const uint32_t wait = first_delay_ms(camera.sleepS, 0, isIdle, random_of(load, camera));
    return start + (load.options.unspread ? 0 : wait);
}

// The power returns: the camera continues its upgrade, or its agent starts.
int64_t start_ms(Load& load, Camera& camera) {
    camera.starts = load.powerFailures;
    camera.failures = 0;
    camera.attributesDue = true;
    camera.servedMs = -1;
    const int64_t start =
        load.options.powerAtS * MS_PER_S + random_of(load, camera) % START_WITHIN_MS;
    if (camera.stage == Stage::UPGRADING && camera.upgradedMs <= start) {
        camera.stage = Stage::RESULT;  // it waited for its first poll
    }
    return first_poll_ms(load, camera, start);
}

// When the camera has to wake up next.
int64_t next_ms(Load& load, Camera& camera, const AgentStatus& status) {
    if (camera.starts != load.powerFailures) {
        return start_ms(load, camera);
    }
    const int64_t now = load.now_ms();
    camera.failures = status.ok() ? 0 : camera.progressed ? 1 : camera.failures + 1;
    const Options& options = load.options;
    if (options.saturate) {
        return now;
    }
    if (camera.stage == Stage::UPGRADING) {
        return first_poll_ms(load, camera, now);
    }
    const uint32_t sleepS = options.unspread && camera.failures > 0
                                ? std::max(UNSPREAD_INTERVAL_S, camera.sleepS)
                                : camera.sleepS;
    const bool isIdle = camera.stage == Stage::IDLE && !options.unspread;
    return now +
           delay_ms(sleepS, camera.failures, status.retryAfterS, isIdle, random_of(load, camera));
}

// All cameras that are not awake start again; the others do so at the end of their wake-up.
void fail_power(Load& load) {
    ++load.powerFailures;
    decltype(load.queue) queue;
    for (; !load.queue.empty(); load.queue.pop()) {
        const uint32_t index = load.queue.top().second;
        queue.emplace(start_ms(load, load.cameras[index]), index);
    }
    load.queue = std::move(queue);
}

bool is_over(const Load& load) {
    const Options& options = load.options;
    return load.stop || load.now_ms() >= options.seconds * MS_PER_S ||
           load.requests >= options.requests || (options.done != 0 && load.done >= options.done);
}

void work(Load& load) {
    std::unique_lock lock(load.mutex);
    while (!is_over(load)) {
        const int64_t now = load.now_ms();
        if (load.powerFailures == 0 && load.options.powerAtS != 0 &&
            now >= load.options.powerAtS * MS_PER_S) {
            fail_power(load);
        }
        if (load.queue.empty() || load.queue.top().first > now) {
            if (load.hasLeader) {
                load.changed.wait(lock);
                continue;
            }
            const int64_t wait =
                load.queue.empty() ? LOOK_MS : std::min(load.queue.top().first - now, LOOK_MS);
            load.hasLeader = true;
            load.changed.wait_for(lock, std::chrono::milliseconds(wait));
            load.hasLeader = false;
            continue;
        }
        const auto [due, index] = load.queue.top();
        load.queue.pop();
        ++load.wakes;
        ++load.second_of(due).wakes;
        load.latestMs = std::max(load.latestMs, now - due);
        Camera& camera = load.cameras[index];
        load.changed.notify_one();  // another worker becomes the leader
        lock.unlock();
        const AgentStatus status = Wake(load, camera, due).run();
        lock.lock();
        load.queue.emplace(next_ms(load, camera, status), index);
        load.changed.notify_one();
    }
    load.changed.notify_all();
}

void run_cameras(Load& load) {
    const Options& options = load.options;
    load.cameras.resize(options.cameras);
    load.seconds.resize(options.seconds + 1);
    for (uint32_t index = 0; index < options.cameras; ++index) {
        Camera& camera = load.cameras[index];
        camera.number = index + 1;
        load.queue.emplace(random_of(load, camera) % (options.startWithinS * MS_PER_S + 1), index);
    }
    std::vector<std::thread> workers;
    for (uint32_t i = 0; i < options.workers; ++i) {
        workers.emplace_back(work, std::ref(load));
    }
    // Requests that take longer than the time that is left are ended, and not counted.
    bool over = false;
    while (!over) {
        std::this_thread::sleep_for(std::chrono::milliseconds(LOOK_MS));
        const std::lock_guard lock(load.mutex);
        over = is_over(load);
    }
    load.stop = load.now_ms() >= options.seconds * MS_PER_S;
    load.changed.notify_all();
    for (std::thread& worker : workers) {
        worker.join();
    }
}

Json result_of(const Load& load) {
    std::vector<int64_t> served;
    for (const Camera& camera : load.cameras) {
        if (camera.servedMs >= 0) {
            served.push_back(camera.servedMs - load.options.powerAtS * MS_PER_S);
        }
    }
    std::ranges::sort(served);
    const auto part = [&served](size_t percent) {
        return served.empty() ? -1 : served[(served.size() - 1) * percent / 100];
    };
    rusage used = {};
    getrusage(RUSAGE_SELF, &used);
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return {{"cameras", load.options.cameras},
            {"seconds", static_cast<double>(load.now_ms()) / MS_PER_S},
            {"requests", load.requests},
            {"wakes", load.wakes},
            {"errors", load.errors},
            {"done", load.done},
            {"slowest_ms", load.slowestMs},
            {"latest_ms", load.latestMs},
            {"served", served.size()},
            {"served_ms", {part(50), part(99), part(100)}},
            {"peak_kib", used.ru_maxrss},
            {"cpu_seconds", seconds(used.ru_utime) + seconds(used.ru_stime)}};
}

int write_seconds(const Load& load) {
    FILE* const file = fopen(load.options.secondsFile.c_str(), "we");
    if (file == nullptr) {
        print_error(PROGRAM, "cannot write " + load.options.secondsFile);
        return EXIT_FAILURE;
    }
    for (const Second& second : load.seconds) {
        fprintf(file, "%u %u %u %u\n", second.wakes, second.demanded, second.requests,
                second.errors);
    }
    return fclose(file) == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}

bool is_loopback(const std::string& url) {
    const UrlParts parts = url_parts(url);
    return parts.scheme == "https" && (parts.host == "127.0.0.1" || parts.host == "[::1]");
}

std::atomic<bool>* g_stop = nullptr;

int program(int argc, char** argv) {
    Load load;
    Options& options = load.options;
    CLI::App app("Acts as many cameras of an update server on this machine.", PROGRAM);
    app.add_option("--server", options.server, "URL of the server: https and a loopback address");
    app.add_option("--ca", options.ca, "Certificate of the server's authority (PEM)");
    app.add_option("--cameras", options.cameras, "Number of cameras")
        ->check(CLI::Range(1, 1000000));
    app.add_option("--seconds", options.seconds, "End after this time")->check(CLI::Range(1, 7200));
    app.add_option("--requests", options.requests, "End after so many requests");
    app.add_option("--done", options.done, "End after so many actions; 0: do not");
    app.add_option("--seed", options.seed, "Seed of ids, tokens and pauses");
    app.add_option("--workers", options.workers, "Wake-ups at a time")->check(CLI::Range(1, 4000));
    app.add_option("--start-within", options.startWithinS, "Seconds over which first polls spread");
    app.add_option("--upgrade-seconds", options.upgradeS,
                   "Duration of an upgrade with its restart");
    app.add_option("--power-at", options.powerAtS, "Second in which all cameras start again");
    app.add_option("--seconds-file", options.secondsFile,
                   "File for a line per second: wake-ups, their requests, requests sent, errors");
    app.add_flag("--saturate", options.saturate, "Poll without pauses");
    app.add_flag("--unspread", options.unspread,
                 "For comparison: poll at once after a start, and retry after up to an hour");
    app.add_flag("--list", options.list, "Only print the ids and tokens of the cameras");
    if (const auto status = parse_command_line(app, argc, argv)) {
        return *status;
    }
    if (options.list) {
        for (uint32_t number = 1; number <= options.cameras; ++number) {
            printf("%s %s\n", name_of(number).c_str(), token_of(options.seed, number).c_str());
        }
        return flush_output(PROGRAM) ? EXIT_SUCCESS : EXIT_FAILURE;
    }
    if (!is_loopback(options.server)) {
        print_error(PROGRAM, "--server: load is sent only to https://127.0.0.1 or https://[::1]");
        return EXIT_WRONG_USE;
    }
    g_stop = &load.stop;
    signal(SIGTERM, [](int /*signal*/) { *g_stop = true; });
    signal(SIGPIPE, SIG_IGN);
    run_cameras(load);
    printf("%s\n", text_of_json(result_of(load)).c_str());
    const int status = options.secondsFile.empty() ? EXIT_SUCCESS : write_seconds(load);
    return flush_output(PROGRAM) ? status : EXIT_FAILURE;
}

}  // namespace

int main(int argc, char** argv) {
    return run_guarded(PROGRAM, [&] { return program(argc, argv); });
}
