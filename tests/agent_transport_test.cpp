// What the agent makes of an update server, good or bad: JSON that is none, answers that are cut,
// files that are others. Cases are data.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <chrono>
#include <filesystem>
#include <nlohmann/json.hpp>
#include <sstream>
#include <thread>

#include "agent/download.h"
#include "files.h"
#include "played_server.h"

namespace {

using nlohmann::json;

const std::string FOLDER = "/run/download/";
const std::string PKI = "/run/tls/";
const std::string KERNEL = pattern_bytes(1200000, 1);
constexpr int CALLS_MAX = 40;

const char* name_of(const AgentStatus& status) {
    constexpr const char* NAMES[] = {"OK",        "UNREACHABLE", "REFUSED", "GONE",
                                     "MALFORMED", "DIFFERENT",   "MEDIUM",  "STOPPED"};
    return NAMES[status.result];
}

ServerSettings settings_of(const PlayedServer& server) {
    return {.url = server.url(),
            .tenant = PlayedServer::TENANT,
            .controllerId = PlayedServer::CONTROLLER,
            .authorization = PlayedServer::AUTHORIZATION,
            .ca = PKI + "ca.pem",
            .connectTimeoutS = 2,
            .stallTimeoutS = 1};
}

PlayedAction kernel_action() {
    return {.id = "11", .files = {{"kernel.bin", KERNEL}}};
}

// A camera that talks to a played server; another one has the files of redirects.
struct World {
    explicit World(const PlayedServer::Setup& setup = {})
        : server(setup), settings(settings_of(server)) {
        std::filesystem::remove_all(FOLDER);
        std::filesystem::create_directories(FOLDER);
    }

    AgentStatus run(const std::string& step) {
        Server camera(settings, stop);
        const std::string base = server.url() + "/DEFAULT/controller/v1/cam%201/";
        DdiPoll poll;
        DdiAction action;
        DdiCancellation cancellation;
        if (step == "poll") {
            return camera.poll(poll);
        }
        if (step == "action" || step == "consent") {
            return camera.get_action(
                base + (step == "action" ? "deploymentBase/11?c=1" : "confirmationBase/11"),
                action);
        }
        if (step == "cancellation") {
            return camera.get_cancellation(base + "cancelAction/11", cancellation);
        }
        if (step == "attributes") {
            return camera.send_attributes("", {{"version", "2.7"}, {"slot", "B"}});
        }
        if (step == "word") {
            return camera.send_confirmation(base + "confirmationBase/11?c=1", true, "by hand");
        }
        if (step == "feedback" || step == "answer") {
            const DdiFeedback feedback = {.id = "11",
                                          .execution = DdiExecution::CLOSED,
                                          .finished = DdiFinished::SUCCESS,
                                          .done = 3,
                                          .of = 3,
                                          .details = {"all is well"}};
            return camera.send_feedback(
                base + (step == "answer" ? "cancelAction/11" : "deploymentBase/11?c=1"), feedback);
        }
        AgentStatus status = camera.get_action(base + "deploymentBase/11", action);
        return status.ok() ? download_file(camera, action.files[0], nullptr, FOLDER,
                                           [this](uint64_t bytes) {
                                               told = bytes;
                                               return true;
                                           })
                           : status;
    }

    // As an agent does that is started again and again.
    std::string run_until_decided(const std::string& step, std::string& text) {
        int interrupted = 0;
        AgentStatus status;
        do {
            status = run(step);
        } while (status.result == AGENT_UNREACHABLE && step == "file" && ++interrupted < CALLS_MAX);
        text = status.text + (status.retryAfterS == 0
                                  ? ""
                                  : ", again in " + std::to_string(status.retryAfterS) + " s");
        return (interrupted == 0 ? "" : std::to_string(interrupted) + " times UNREACHABLE, ") +
               std::string(name_of(status));
    }

    PlayedServer server;
    PlayedServer elsewhere{{.onlyFiles = true}};
    ServerSettings settings;
    std::atomic<bool> stop{false};
    uint64_t told = 0;
};

void prepare(World& world, const std::string& step) {
    PlayedAction action = kernel_action();
    action.consent = step == "consent" || step == "word";
    world.server.offer(action);
    world.elsewhere.offer(kernel_action());
    if (step == "cancellation" || step == "answer") {
        world.server.cancel("11");
    }
}

std::string files_left() {
    std::string text;
    for (const auto& entry : std::filesystem::directory_iterator(FOLDER)) {
        text += " " + entry.path().filename().string();
    }
    return text;
}

// Every status that an HTTP server may answer with, by what it means.
std::string try_status_codes(World& world, const std::string& step) {
    std::map<std::string, std::string> codes;
    for (const int code :
         {201, 204, 205, 300, 302, 304, 400, 401, 402, 403, 404, 405, 406, 407, 408, 409,
          410, 412, 415, 416, 418, 425, 429, 451, 500, 501, 502, 503, 504, 507, 599}) {
        world.server.misbehave(step + " status " + std::to_string(code));
        codes[name_of(world.run(step))] += " " + std::to_string(code);
    }
    std::string text;
    for (const auto& [name, list] : codes) {
        text += (text.empty() ? "" : "; ") + name + list;
    }
    return text;
}

TEST(AgentTransport, ServerThatMisbehaves) {
    ASSERT_EQ(0, system(("sh " TEXTS "support/tls.sh " + PKI).c_str()));
    expect_cases("agent_server.txt", [](std::istream& row) {
        std::string generation;
        std::string step;
        std::string faults;
        row >> generation >> step >> std::ws;
        std::getline(row, faults);
        World world({.old = generation == "old"});
        prepare(world, step);
        if (faults.starts_with("codes")) {
            return try_status_codes(world, step);
        }
        const std::string elsewhere = world.elsewhere.url();
        world.server.misbehave(replaced(
            replaced(
                replaced(
                    faults, "ELSEWHERE",
                    elsewhere +
                        "/DEFAULT/controller/v1/cam%201/softwaremodules/11/artifacts/kernel.bin"),
                "LONG", std::string(DDI_TEXT_SIZE_MAX + 1, 'x')),
            "DEEP", std::string(100000, '[')));
        std::string text;
        std::string outcome = world.run_until_decided(step, text);
        text = replaced(text, "(cannot reach [^ ]*): .*", "$1");
        text = replaced(replaced(text, elsewhere, "ELSEWHERE"), world.server.url(), "SERVER");
        outcome += text.empty() ? "" : " " + text;
        for (const PlayedServer* server : {&world.server, &world.elsewhere}) {
            size_t asked = 0;
            std::string last;
            for (const PlayedRequest& request : server->requests()) {
                if (request.what == step) {
                    ++asked;
                    last = request.range + (request.authorization.empty() ? " nobody" : "");
                }
            }
            if (asked > 1 || server == &world.elsewhere)
                outcome += asked == 0 ? ""
                                      : "; asked " + std::to_string(asked) +
                                            (server == &world.server ? " " : " elsewhere ") + last;
        }
        const bool whole = outcome.starts_with("OK") || contains(outcome, ", OK");
        if (step == "file") {
            EXPECT_EQ(whole, std::filesystem::exists(FOLDER + "kernel.bin"));
            EXPECT_TRUE(!whole || (read_file(FOLDER + "kernel.bin") == KERNEL &&
                                   world.told == KERNEL.size()));
            return outcome + ";" + files_left();
        }
        const std::string story = world.server.story("11");
        return outcome + (contains(story, "|") ? "; " + story : "") +
               (world.server.attributes().empty() ? ""
                                                  : "; slot " + world.server.attributes()["slot"]);
    });
}

// A row puts a value, or nothing ("gone"), into a text that is right: KIND POINTER VALUE; "text"
// instead of the pointer puts it in the place of all.
std::string read_answer(const std::string& kind, const std::string& text) {
    DdiPoll poll;
    DdiAction action;
    DdiCancellation cancellation;
    AgentStatus status = kind == "poll"     ? parse_poll(text, poll)
                         : kind == "action" ? parse_action(text, action)
                                            : parse_cancellation(text, cancellation);
    if (!status.ok()) {
        return name_of(status) + (" " + status.text);
    }
    std::ostringstream out;
    if (kind == "poll") {
        out << poll.sleepS << " s config=" << poll.configData << " deployment=" << poll.deployment
            << " confirmation=" << poll.confirmation << " cancellation=" << poll.cancellation;
    } else if (kind == "action") {
        out << action.id << " " << static_cast<int>(action.download)
            << static_cast<int>(action.update) << (action.outsideWindow ? " outside" : "");
        for (const DdiFile& file : action.files) {
            out << ", " << file.name << " " << file.size << " "
                << digest_text(file.sha256).substr(0, 4) << " " << file.href;
        }
    } else {
        out << cancellation.id << " stops " << cancellation.stopId;
    }
    return out.str();
}

TEST(AgentTransport, AnswersAreReadOrRefused) {
    const json good = json::parse(read_file(TEXTS "cases/agent_answers.json"));
    expect_cases("agent_answers.txt", [&good](std::istream& row) {
        std::string kind;
        std::string pointer;
        std::string value;
        row >> kind >> pointer >> std::ws;
        std::getline(row, value);
        value.resize(value.find_last_not_of(' ') + 1);
        json text = good[kind];
        if (pointer == "text") {
            return read_answer(kind, value);
        }
        if (pointer == "many") {
            for (int i = 0; i < atoi(value.c_str()); ++i) {
                json file = text["deployment"]["chunks"][0]["artifacts"][0];
                file["filename"] = "file" + std::to_string(i);
                text["deployment"]["chunks"][1]["artifacts"].push_back(file);
            }
        } else if (value == "gone") {
            const json::json_pointer gone(pointer);
            text[gone.parent_pointer()].erase(gone.back());
        } else if (!pointer.empty()) {
            text[json::json_pointer(pointer)] = json::parse(value);
        }
        return read_answer(kind, text.dump()).substr(0, 200);
    });
}

// Who is who. The server's certificate; what the camera shows; whether it talks to the server.
TEST(AgentTransport, BothProveWhoTheyAre) {
    ASSERT_EQ(0, system(("sh " TEXTS "support/tls.sh " + PKI).c_str()));
    struct Case {
        const char* server;
        const char* ca;
        const char* certificate;
        const char* key;
        AgentResult result;
        const char* subject;
    };
    for (const Case& row : {Case{"server", "ca.pem", "", "", AGENT_OK, ""},
                            Case{"other_host", "ca.pem", "", "", AGENT_UNREACHABLE, ""},
                            Case{"stranger_server", "ca.pem", "", "", AGENT_UNREACHABLE, ""},
                            Case{"server", "none.pem", "", "", AGENT_UNREACHABLE, ""},
                            Case{"server", "", "", "", AGENT_UNREACHABLE, ""},
                            Case{"server", "ca.pem", "camera", "camera", AGENT_OK, "/CN=camera"},
                            Case{"server", "ca.pem", "camera", "server", AGENT_UNREACHABLE, ""},
                            Case{"server", "ca.pem", "camera", "locked", AGENT_UNREACHABLE, ""}}) {
        SCOPED_TRACE(testing::Message() << row.server << " " << row.ca << " " << row.key);
        World world({.certificate = PKI + row.server + ".pem",
                     .key = PKI + row.server + ".key",
                     .clients = PKI + "ca.pem"});
        world.settings.ca = *row.ca == '\0' ? "" : PKI + row.ca;
        if (*row.certificate != '\0') {
            world.settings.authorization = "";
            world.settings.certificate = PKI + row.certificate + ".pem";
            world.settings.key = PKI + row.key + ".key";
        }
        const AgentStatus status = world.run("poll");
        EXPECT_EQ(row.result, status.result) << status.text;
        const auto requests = world.server.requests();
        EXPECT_EQ(row.result == AGENT_OK ? 1U : 0U, requests.size());
        EXPECT_TRUE(requests.empty() || requests[0].subject == row.subject) << requests[0].subject;
    }
}

// Files may lie elsewhere: nothing proves to that host who the camera is, and nothing is fetched
// less safely than the server is reached.
TEST(AgentTransport, OtherHostsLearnNothing) {
    ASSERT_EQ(0, system(("sh " TEXTS "support/tls.sh " + PKI).c_str()));
    const PlayedServer::Setup tls = {.certificate = PKI + "server.pem",
                                     .key = PKI + "server.key",
                                     .clients = PKI + "ca.pem",
                                     .onlyFiles = true};
    PlayedServer::Setup speaks = tls;
    speaks.onlyFiles = false;
    for (const bool safely : {true, false}) {
        World world(speaks);
        world.settings.certificate = PKI + "camera.pem";
        world.settings.key = PKI + "camera.key";
        PlayedServer elsewhere(safely ? tls : PlayedServer::Setup{.onlyFiles = true});
        PlayedAction action = kernel_action();
        action.elsewhere = elsewhere.url();
        world.server.offer(action);
        elsewhere.offer(action);
        EXPECT_EQ(safely ? AGENT_OK : AGENT_MALFORMED, world.run("file").result);
        EXPECT_EQ("/CN=camera", world.server.requests().at(0).subject);
        EXPECT_EQ(safely ? 1U : 0U, elsewhere.requests().size());
        for (const PlayedRequest& request : elsewhere.requests()) {
            EXPECT_EQ("", request.authorization + request.subject);
        }
    }
}

TEST(AgentTransport, PowerCutCostsAMebibyteAtMost) {
    World world;
    prepare(world, "file");
    world.server.misbehave("file cut 1100000");
    EXPECT_EQ(AGENT_UNREACHABLE, world.run("file").result);
    // As the medium looks when the last bytes have not reached it, nor that they have come.
    const std::string part = FOLDER + "kernel.bin.part";
    write_file(part, read_file(part).substr(0, 1080000) + std::string(20000, '\0'));
    write_file(part + ".from", replaced(read_file(part + ".from"), "kept 1100000", "kept 0"));
    world.server.misbehave("");
    EXPECT_EQ("", world.run("file").text);
    EXPECT_EQ("bytes=1048576-", world.server.requests().back().range);
    EXPECT_EQ(" kernel.bin", files_left());
    EXPECT_EQ(KERNEL, read_file(FOLDER + "kernel.bin"));
    // What is there is checked, not fetched.
    const size_t asked = world.server.requests().size();
    EXPECT_EQ("", world.run("file").text);
    EXPECT_EQ(asked + 1, world.server.requests().size());  // for the action
    write_file(FOLDER + "kernel.bin", std::string(KERNEL.size(), 'x'));
    EXPECT_EQ("", world.run("file").text);
    EXPECT_EQ(KERNEL, read_file(FOLDER + "kernel.bin"));
}

TEST(AgentTransport, SignalEndsItWithinASecond) {
    using Clock = std::chrono::steady_clock;
    World world;
    prepare(world, "file");
    world.settings.stallTimeoutS = 60;
    world.server.misbehave("file:1 cut 600000; file:2 drip");
    EXPECT_EQ(AGENT_UNREACHABLE, world.run("file").result);
    Clock::time_point asked;
    std::thread signal([&] {
        EXPECT_TRUE(eventually(5000, [&] { return world.server.requests().size() == 4; }));
        asked = Clock::now();
        world.stop = true;
    });
    EXPECT_EQ(AGENT_STOPPED, world.run("file").result);
    const Clock::time_point ended = Clock::now();
    signal.join();
    EXPECT_LT(ended - asked, std::chrono::milliseconds(1500));
    world.stop = false;
    EXPECT_EQ("", world.run("file").text);
    EXPECT_EQ(KERNEL, read_file(FOLDER + "kernel.bin"));
}

TEST(AgentTransport, MediumThatIsFullIsNotTheServersFault) {
    World world;
    prepare(world, "file");
    ASSERT_EQ(0, system(("mount -t tmpfs -o size=512k small " + FOLDER).c_str()));
    EXPECT_EQ("cannot write " + FOLDER + "kernel.bin.part: No space left on device",
              world.run("file").text);
    EXPECT_EQ(0, system(("umount " + FOLDER).c_str()));
    std::filesystem::remove(FOLDER);
    EXPECT_EQ(AGENT_MEDIUM, world.run("file").result);
}

// The server vouches for what it has, the manifest for what was signed.
TEST(AgentTransport, ServerAndManifestMustAgree) {
    Sha256Stream stream;
    stream.update(KERNEL);
    const Sha256 whole = stream.take();
    stream.update({KERNEL.data(), 1000});
    const Sha256 head = stream.take();
    const ManifestModule wrong = {.name = "rootfs",
                                  .file = {},
                                  .offset = 2000,
                                  .size = KERNEL.size() - 2000,
                                  .crc = {},
                                  .sha256 = head};
    const ManifestModule right = {
        .name = "kernel", .file = {}, .offset = 0, .size = 1000, .crc = {}, .sha256 = head};
    const ManifestModule all = {.name = "kernel",
                                .file = {},
                                .offset = 0,
                                .size = KERNEL.size(),
                                .crc = {},
                                .sha256 = whole};
    ManifestModule other = all;
    other.sha256 = head;
    struct Case {
        std::vector<ManifestModule> modules;
        AgentResult result;
        size_t requests;
    };
    for (const Case& row :
         {Case{{all}, AGENT_OK, 1}, Case{{other}, AGENT_DIFFERENT, 0},
          Case{{right}, AGENT_DIFFERENT, 0}, Case{{right, wrong}, AGENT_DIFFERENT, 2}}) {
        World world;
        prepare(world, "file");
        const uint64_t size = row.modules.back().offset + row.modules.back().size;
        const PackageFile content = {
            .name = "kernel.bin", .size = size, .mayBeLonger = false, .modules = row.modules};
        Server camera(world.settings, world.stop);
        DdiPoll poll;
        DdiAction action;
        ASSERT_EQ("", camera.poll(poll).text);
        ASSERT_EQ("", camera.get_action(poll.deployment, action).text);
        EXPECT_EQ(row.result,
                  download_file(camera, action.files[0], &content, FOLDER, [](uint64_t /*bytes*/) {
                      return true;
                  }).result);
        EXPECT_EQ(row.requests + 2, world.server.requests().size());
        EXPECT_EQ(row.result == AGENT_OK ? " kernel.bin" : "", files_left());
    }
}

}  // namespace
