// Whole actions: the agent's program and the real service on a simulated camera, a simulated
// server, and what an operator, a network or a loss of power can do to them.

#include <nlohmann/json.hpp>

#include "agent/action.h"
#include "agent/part_file.h"
#include "agent_world.h"
#include "session.h"
#include "stride.h"

namespace {

using nlohmann::json;

constexpr char OLD_TAG[] = "\"old\"";

// The steps of cases/agent_actions.txt.
std::map<std::string, Step> steps_of(World& world) {
    SimulatedServer& server = world.server;
    const auto count = [&server](const std::string& kind) {
        return kind == "closed" ? server.count("feedback", kind) : server.count(kind);
    };
    // Waits for "STATE" of the action, "N KIND" requests in all, or "+N KIND" more than now;
    // "closed" is feedback that ends an action.
    const auto wait = [&server, count](Text ms, Text wanted, bool wakes) {
        const std::string kind = wanted.substr(wanted.find(' ') + 1);
        const bool isState = kind == wanted;
        const size_t least = isState                   ? 0
                             : wanted.starts_with('+') ? std::stoul(wanted) + count(kind)
                                                       : std::stoul(wanted);
        const bool seen = eventually(std::stoi(ms), [&] {
            const bool isAwake = !wakes || run("hup") == "0";
            return isAwake &&
                   (isState ? server.story(ID).starts_with(wanted) : count(kind) >= least);
        });
        return seen ? "" : (wakes ? "wakes in vain: " : "sees in vain: ") + wanted;
    };
    return {
        {"server", [&](Text what, Text rest) { return server.misbehave(what + " " + rest), ""; }},
        {"offer", [&](Text id, Text kind) { return server.offer(make_action(kind, id)), ""; }},
        {"change", [&](Text id, Text kind) { return server.change(make_action(kind, id)), ""; }},
        {"cancel", [&](Text, Text) { return server.cancel(ID), ""; }},
        {"quit", [&](Text, Text) { return server.force_quit(ID), ""; }},
        {"reinstall", [&](Text, Text) { return server.reinstall(), ""; }},
        {"restart", [&](Text, Text) { return world.restart(), ""; }},
        {"another",  // sender has taken the request away and posted one
         [](Text, Text) {
             OtaQueueMessage own = {};
             EXPECT_LT(0, msgrcv(Camera::queue(), &own, sizeof(own.text), 0, IPC_NOWAIT));
             World::post_empty_request();
             return "";
         }},
        {"empty", [](Text, Text) { return World::post_empty_request(), ""; }},
        {"answers",
         [&](Text kind, Text) {
             std::string statuses = kind;
             for (const SimulatedRequest& request : server.requests()) {
                 statuses += request.what == kind ? " " + std::to_string(request.status) : "";
             }
             return statuses;
         }},
        {"connections",
         [&](Text, Text) {
             std::set<int> ports;
             for (const SimulatedRequest& request : server.requests()) {
                 ports.insert(request.port);
             }
             return std::to_string(ports.size());
         }},
        {"attributes",
         [&](Text, Text) {
             std::string text;
             for (const auto& [name, value] : server.attributes()) {
                 if (name == "committed" || name == "trial" || name == "fallback" ||
                     name == "installed") {
                     text.append(text.empty() ? "" : " ").append(name).append("=").append(value);
                 }
             }
             return text;
         }},
        {"when",
         [&](Text requests, Text steps) {
             world.actAt = std::stoul(requests);
             world.act = [&world, steps] {
                 EXPECT_EQ("done", do_steps(replaced(steps, " \\+ ", " | "), steps_of(world)));
             };
             return "";
         }},
        {"live",
         [&](Text cut, Text) {
             const int status = world.live(cut.empty() ? 0 : std::stoi(cut));
             return world.wasCut ? "cut" : status < 0 ? "restarts" : std::to_string(status);
         }},
        {"end", [&](Text, Text) { return world.live_to_the_end(), world.summary(); }},
        {"sees", [wait](Text ms, Text wanted) { return wait(ms, wanted, false); }},
        {"wakes", [wait](Text ms, Text wanted) { return wait(ms, wanted, true); }},
        {"polls", [&, wait](Text ms, Text) {
             const std::string next = std::to_string(server.count("poll") + 1) + " poll";
             return run("hup"), wait(ms, next, false);
         }}};
}

// Rows read CAMERA; ACTION; STEPS with " | " between them. Steps that are not known here are typed.
TEST(Action, EndsAsItDeserves) {
    setenv("AGENT_WITH_CUTS", AGENT_WITH_CUTS, 1);
    expect_cases(
        "agent_actions.txt",
        [](std::istream& row) {
            std::string camera, action;
            std::getline(row, camera, ';');
            std::getline(row >> std::ws, action, ';');
            World world(camera, action);
            world.start_service();
            std::string printed = do_steps(rest_of(row), steps_of(world));
            run("stop_agent KILL");
            return printed;
        },
        Rows::ARE_INDEPENDENT);
}

// Tries one position after the other until `cut_at` returns that no cut happened. After a single
// cut at any position, the camera must be upgraded and the server must have the result.
void sweep(const std::function<bool(World& world, int place)>& cut_at,
           const std::string& camera = "good", const std::string& action = "files", int step = 1) {
    bool cut = true;
    for (int place = 1; cut && !testing::Test::HasFailure(); place += step * sweep_stride()) {
        SCOPED_TRACE(place);
        World world(camera, action);
        cut = cut_at(world, place);
        const bool decided = world.server.story(ID).starts_with("success");
        const int posted = world.posted;
        world.live_to_the_end();
        EXPECT_TRUE(!decided || posted == world.posted) << "flashed twice";
        cut = cut || world.boots > 1;  // one restart belongs to the upgrade
        world.expect_promise();
        EXPECT_TRUE(world.server.story(ID).starts_with("success"));
    }
}

// What must be true at every power cut, and whenever the agent posts a request or sends a report.
class Promise {
  public:
    std::string sent;    // what was posted and closed, in this order
    bool begun = false;  // the server knows that the action has begun

    Promise(World& world, const std::string& kernel) : bytes_(kernel), world_(world) {
        Sha256Stream sha256;
        sha256.update(bytes_);
        kernel_ = {.name = NAME, .size = bytes_.size(), .sha256 = sha256.take(), .href = {}};
        world.watch_storage([this](const std::string& call, const std::string& bytes) {
            if (call == "msgsnd") {
                expect_flushed_request();
            } else if (bytes.starts_with("POST ")) {
                expect_flushed_report(bytes);
            } else if (bytes.empty()) {
                expect_states();
            }
        });
    }

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

    // Of a chunked image the file of its frames is offered, and the image is stored.
    static std::vector<std::string> stored_files(const ActionRecord& action) {
        std::vector<std::string> paths;
        for (const OfferedFile& file : action.files) {
            paths.push_back(AGENT_FOLDER + replaced(file.name, "[.]zst$", ""));
        }
        return paths;
    }

    void expect_flushed_request() {
        const ActionRecord action = flushed_action();
        EXPECT_EQ(ACTION_COMMITTED, action.stage);
        const std::vector<State> states = world_.storage().states();
        for (const std::string& path : stored_files(action)) {
            EXPECT_TRUE(states.front().contains(path) &&
                        states.front().at(path) == states.back().at(path))
                << path << " is not flushed";
        }
        sent += " post";
    }

    void expect_flushed_report(const std::string& request) {
        const ActionRecord action = flushed_action();
        sent += contains(request, "\"closed\"") ? " closed" : "";
        EXPECT_TRUE(confirmed_ || !contains(request, "/confirmationBase/"));
        if (!contains(request, "/deploymentBase/")) {
            return;
        }
        EXPECT_TRUE(contains(request, "/deploymentBase/" + action.id + "/")) << request;
        EXPECT_EQ(contains(request, "\"closed\""), action.stage == ACTION_RESULT) << request;
        EXPECT_EQ(contains(request, "\"success\""), action.succeeded) << request;
        EXPECT_EQ(contains(request, "\"downloaded\""), action.downloadOnly) << request;
        begun = true;
    }

    void expect_states() {
        const std::vector<State> states = world_.storage().states();
        if (std::exchange(boots_, world_.boots) != world_.boots) {
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
        EXPECT_TRUE(!begun || action.id == ID ||
                    std::ranges::find(history_, ID, &HistoryEntry::id) != history_.end())
            << "the action is forgotten";
        if (action.stage > ACTION_DOWNLOADING && action.stage < ACTION_RESULT) {
            for (const std::string& path : stored_files(action)) {
                EXPECT_TRUE(state.contains(path) || !there_.contains(path)) << path << " is lost";
            }
        }
        if (const auto whole = state.find(AGENT_FOLDER + NAME); whole != state.end()) {
            EXPECT_TRUE(whole->second == bytes_) << NAME << " is not whole";
        } else if (state.contains(AGENT_FOLDER) && bytes_ != CHUNKED_KERNEL) {
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
};

// Kills the agent, or cuts the power, at the change number `place` that it makes to the outside.
bool cut_agent(World& world, int place, bool powerGoesToo) {
    if (powerGoesToo) {
        world.watch_storage([](const std::string& /*call*/, const std::string& /*sent*/) {});
    }
    world.start_service();
    world.live(place, powerGoesToo);
    return world.wasCut;
}

// Checks every state that a power cut can leave at each step of the agent.
TEST(Action, IsKeptWhateverAPowerCutForgets) {
    expect_cases("agent_power_cuts.txt", [](std::istream& row) {
        std::string camera, action;
        std::getline(row, camera, ';');
        std::getline(row >> std::ws, action, ';');
        World world(camera, action);
        Promise promise(world, action == "large"     ? LARGE_KERNEL
                               : action == "chunked" ? CHUNKED_KERNEL
                                                     : KERNEL);
        std::filesystem::resize_file("/dev/block/by-name/kernel", 3000000);
        world.server.misbehave(rest_of(row));
        world.start_service();
        if (action == "consent") {
            EXPECT_EQ(0, world.live());
            EXPECT_EQ("0", run(ForgetfulStorage::tracer(TRACE) + "corvo_agent confirm"));
        }
        world.live_to_the_end();
        promise.begun = false;  // a cancelled action may be forgotten
        world.server.cancel(ID);
        world.live();
        return promise.sent.empty() ? "nothing" : promise.sent.substr(1);
    });
}

TEST(Action, SurvivesTheAgentsDeathAtEveryStep) {
    sweep([](World& world, int place) { return cut_agent(world, place, false); });
}

TEST(Action, SurvivesAPowerCutAtEveryStepOfTheAgent) {
    sweep([](World& world, int place) { return cut_agent(world, place, true); });
}

// Each chunk is a step, so only some are tried.
TEST(Action, SurvivesAPowerCutWhileChunksAreDownloaded) {
    constexpr int STEP = 11;
    sweep([](World& world, int place) { return cut_agent(world, place, true); }, "older", "chunked",
          STEP);
}

TEST(Action, SurvivesAPowerCutAtEveryStepAfterTheRestart) {
    sweep([](World& world, int place) {
        world.start_service();
        EXPECT_EQ(-1, world.live());
        world.live(place, true);
        return world.wasCut;
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
    // What the operator does, and the action whose result the server must have in the end.
    const std::map<std::string, std::string> acts = {
        {"cancel", ID}, {"quit", ""}, {"offer 12 files", "12"}};
    for (size_t requests = 1; requests < 40 && !HasFailure();
         requests += static_cast<size_t>(sweep_stride())) {
        for (const auto& [act, last] : acts) {
            SCOPED_TRACE(act + " " + std::to_string(requests));
            World world("good", "files");
            world.start_service();
            world.actAt = requests;
            world.act = [&world, step = act] { do_steps(step, steps_of(world)); };
            world.live_to_the_end();
            if (world.act) {
                return;  // the action ended with fewer requests
            }
            world.live_to_the_end(last.empty() ? ID : last);
            world.expect_promise(last);
        }
    }
}

}  // namespace
