// The agent with update servers that behave well or badly: invalid JSON, truncated answers, wrong
// files. The cases are data.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <future>
#include <nlohmann/json.hpp>
#include <sstream>

#include "agent/download.h"
#include "files.h"
#include "simulated_server.h"

namespace {

using nlohmann::json;

const std::string FOLDER = "/run/download/";
const std::string PKI = "/run/tls/";
const std::string KERNEL = pattern_bytes(1200000, 1);
constexpr int CALLS_MAX = 20;

const std::string TLS = "test -e /run/tls/ca.pem || sh " TEXTS "support/tls.sh /run/tls";
const std::string PLACE = "/DEFAULT/controller/v1/cam%201/";

std::string name_of(const AgentStatus& status) {
    constexpr const char* NAMES[] = {"OK",        "UNREACHABLE", "REFUSED", "GONE",
                                     "MALFORMED", "DIFFERENT",   "STORAGE", "STOPPED"};
    return NAMES[status.result];
}

ServerSettings settings_of(const SimulatedServer& server) {
    return {.url = server.url(),
            .controllerId = SimulatedServer::CONTROLLER,
            .authorization = SimulatedServer::AUTHORIZATION,
            .ca = PKI + "ca.pem"};
}

SimulatedServer::Setup tls_setup(const std::string& certificate, bool onlyFiles) {
    EXPECT_EQ(0, system(TLS.c_str()));
    return {.certificate = PKI + certificate + ".pem",
            .key = PKI + certificate + ".key",
            .clients = PKI + "ca.pem",
            .onlyFiles = onlyFiles};
}

// A camera that connects to a simulated server, and a second server that has the same files.
struct World {
    World(const SimulatedServer::Setup& setup, const SimulatedServer::Setup& elsewhereSetup,
          const std::string& step)
        : server(setup), elsewhere(elsewhereSetup), settings(settings_of(server)) {
        std::filesystem::remove_all(FOLDER);
        std::filesystem::create_directories(FOLDER);
        SimulatedAction action = {.id = "11", .files = {{"kernel.bin", KERNEL}}};
        action.consent = step == "consent" || step == "word";
        elsewhere.offer(action);
        server.offer(action);
        if (step == "cancellation" || step == "answer") {
            server.cancel("11");
        }
    }
    explicit World(const SimulatedServer::Setup& setup = {}, const std::string& step = "file")
        : World(setup, {.onlyFiles = true}, step) {}

    AgentStatus fetch(Server& camera) {
        DdiAction action;
        AgentStatus status = camera.get_action(server.url() + PLACE + "deploymentBase/11", action);
        OpenFolder folder;
        status = status.ok() ? open_folder({.path = FOLDER}, folder) : status;
        return status.ok() ? download_file(camera, action.files[0], content, folder,
                                           [this](uint64_t bytes) { return (told = bytes) > 0; })
                           : status;
    }

    AgentStatus run(const std::string& step) {
        Server camera(settings, stop);
        const std::string base = server.url() + PLACE;
        const std::string consent = base + "confirmationBase/11?c=1";
        DdiPoll poll;
        DdiAction action;
        DdiCancellation cancellation;
        const DdiAttributes slot = {{"slot", "; slot B"}};
        const DdiFeedback closed = {.id = "11",
                                    .execution = DdiExecution::CLOSED,
                                    .finished = DdiFinished::SUCCESS,
                                    .details = {"all is well"}};
        const std::map<std::string, std::function<AgentStatus()>> steps = {
            {"poll", [&] { return camera.poll(poll); }},
            {"action", [&] { return camera.get_action(base + "deploymentBase/11?c=1", action); }},
            {"consent", [&] { return camera.get_action(consent, action); }},
            {"cancellation",
             [&] { return camera.get_cancellation(base + "cancelAction/11", cancellation); }},
            {"attributes", [&] { return camera.send_attributes("", slot); }},
            {"word", [&] { return camera.send_confirmation(consent, true, "by hand"); }},
            {"feedback",
             [&] { return camera.send_feedback(base + "deploymentBase/11?c=1", closed); }},
            {"answer", [&] { return camera.send_feedback(base + "cancelAction/11", closed); }},
            {"file", [&] { return fetch(camera); }}};
        return steps.at(step)();
    }

    // Repeats the step, as an agent that is started again and again does.
    std::string run_until_decided(const std::string& step) {
        int interrupted = 0;
        AgentStatus status = run(step);
        while (status.result == AGENT_UNREACHABLE && step == "file" && ++interrupted < CALLS_MAX) {
            status = run(step);
        }
        std::string text = replaced(status.text, "(cannot reach [^ ]*): .*", "$1");
        text = replaced(replaced(text, elsewhere.url(), "ELSEWHERE"), server.url(), "SERVER");
        return (interrupted == 0 ? "" : std::to_string(interrupted) + " times UNREACHABLE, ") +
               name_of(status) + (text.empty() ? "" : " ") + text +
               (status.retryAfterS == 0
                    ? ""
                    : ", again in " + std::to_string(status.retryAfterS) + " s");
    }

    SimulatedServer server;
    SimulatedServer elsewhere;
    ServerSettings settings;
    const PackageFile* content = nullptr;
    std::atomic<bool> stop{false};
    uint64_t told = 0;
};

// Returns the ranges and the authorization of the requests.
std::string asked(const SimulatedServer& server, const std::string& step) {
    std::string text;
    for (const SimulatedRequest& request : server.requests()) {
        if (request.what == step) {
            text += (text.empty() ? "" : ", ") +
                    (request.range.empty() ? "all" : request.range.substr(6)) +
                    (request.authorization.empty() ? " by nobody" : "") + request.subject;
        }
    }
    return text;
}

// Tries every status of HTTP, and groups them by the agent's result.
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
        text += text.empty() ? "" : "; ";
        text += name + list;
    }
    return text;
}

TEST(AgentTransport, ServerThatMisbehaves) {
    expect_cases("agent_server.txt", [](std::istream& row) {
        std::string generation, step, faults;
        row >> generation >> step >> std::ws;
        std::getline(row, faults);
        World world({.old = generation == "old"}, step);
        if (faults.starts_with("codes")) {
            return try_status_codes(world, step);
        }
        const std::map<std::string, std::string> words = {
            {"FILE", PLACE + "softwaremodules/11/artifacts/kernel.bin"},
            {"ELSEWHERE", world.elsewhere.url()},
            {"LONG", std::string(DDI_TEXT_SIZE_MAX + 1, 'x')},
            {"DEEP", std::string(100000, '[')}};
        for (const auto& [word, text] : words) {
            faults = replaced(faults, word, text);
        }
        world.server.misbehave(faults);
        if (contains(faults, "drip")) {
            world.settings.connectTimeoutS = world.settings.stallTimeoutS = 1;
        }
        std::string outcome = world.run_until_decided(step);
        outcome += "; asked " + asked(world.server, step) +
                   replaced("; elsewhere " + asked(world.elsewhere, step), "; elsewhere $", "");
        if (step == "file") {
            const std::string left = names_in(FOLDER);
            EXPECT_TRUE(left != " kernel.bin" || (read_file(FOLDER + "kernel.bin") == KERNEL &&
                                                  world.told == KERNEL.size()));
            return outcome + ";" + left;
        }
        return outcome + "; " + world.server.story("11") + world.server.attributes()["slot"];
    });
}

// A row changes a valid text: KIND POINTER VALUE sets the value at the JSON pointer ("gone" removes
// it); "text" instead of the pointer replaces the whole text.
std::string read_answer(const std::string& kind, const std::string& text) {
    DdiPoll poll;
    DdiAction action;
    DdiCancellation cancellation;
    AgentStatus status = kind == "poll"     ? parse_poll(text, poll)
                         : kind == "action" ? parse_action(text, action)
                                            : parse_cancellation(text, cancellation);
    if (!status.ok()) {
        return name_of(status) + " " + status.text;
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
        std::string kind, pointer, value;
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

std::string repeated(const std::string& piece) {
    std::string text;
    while (text.size() + piece.size() < DDI_TEXT_SIZE_MAX - 16) {
        text += piece;
    }
    return text;
}

// Parsing the largest allowed answer must not take long, whatever it contains, because a signal
// cannot interrupt it.
TEST(AgentTransport, LargestAnswersAreReadInLinearTime) {
    constexpr rlimit CPU_LIMIT = {.rlim_cur = 10, .rlim_max = 10};  // seconds
    for (const std::string& text :
         {R"({"a":[)" + repeated("{},") + "{}]}", R"({"a":[)" + repeated("[],") + "[]]}",
          "{" + repeated("\"a\":["), R"({"a":")" + repeated("\\\"[") + "\"}"}) {
        EXPECT_EXIT(
            {
                setrlimit(RLIMIT_CPU, &CPU_LIMIT);
                DdiPoll poll;
                (void)parse_poll(text, poll);
                _exit(0);
            },
            testing::ExitedWithCode(0), "")
            << text.substr(0, 16);
    }
    // The lengths of the agent's own texts are limited too.
    EXPECT_GT(2000U, feedback_text({.id = "11", .details = {repeated("x")}}).size());
    // Memory must not grow with the number of elements in the answer either.
    DdiPoll poll;
    EXPECT_EQ("the poll's answer of the server: more than 65536 values",
              parse_poll(R"({"a":[)" + repeated("1,") + "1]}", poll).text);
}

TEST(AgentTransport, PowerCutCostsAMebibyteAtMost) {
    World world;
    world.server.misbehave("file cut 1100000");
    EXPECT_EQ(AGENT_UNREACHABLE, world.run("file").result);
    // The state of the storage if neither the last bytes nor their record were flushed.
    const std::string part = FOLDER + "kernel.bin.part";
    write_file(part, read_file(part).substr(0, 1080000) + std::string(20000, '\0'));
    const std::string record = replaced(read_file(part + ".from"), "kept 1100000", "kept 0");
    write_file(part + ".from", record);
    world.server.misbehave("");
    EXPECT_EQ("", world.run("file").text);
    EXPECT_NE("", world.server.requests().back().condition);
    EXPECT_EQ(" kernel.bin", names_in(FOLDER));
    EXPECT_EQ(KERNEL, read_file(FOLDER + "kernel.bin"));
    // An incomplete record of the part file is ignored.
    std::filesystem::rename(FOLDER + "kernel.bin", part);
    write_file(part + ".from", replaced(record, "end\n", ""));
    EXPECT_EQ("", world.run("file").text);
    // An existing file is verified, not downloaded.
    EXPECT_EQ("", world.run("file").text);
    EXPECT_EQ("all, 1048576-, all", asked(world.server, "file"));
    write_file(FOLDER + "kernel.bin", std::string(KERNEL.size(), 'x'));
    EXPECT_EQ("", world.run("file").text);
    EXPECT_EQ(KERNEL, read_file(FOLDER + "kernel.bin"));
}

TEST(AgentTransport, SignalEndsItWithinASecond) {
    World world;
    world.server.misbehave("file:1 cut 600000; file:2 drip");
    EXPECT_EQ(AGENT_UNREACHABLE, world.run("file").result);
    auto running = std::async(std::launch::async, [&] { return world.run("file").result; });
    EXPECT_TRUE(eventually(5000, [&] { return world.server.requests().size() == 4; }));
    world.stop = true;
    EXPECT_EQ(std::future_status::ready, running.wait_for(std::chrono::milliseconds(1500)));
    EXPECT_EQ(AGENT_STOPPED, running.get());
    world.stop = false;
    EXPECT_EQ("", world.run("file").text);
    EXPECT_EQ(KERNEL, read_file(FOLDER + "kernel.bin"));
}

TEST(AgentTransport, MediumThatIsFullIsNotTheServersFault) {
    World world;
    ASSERT_EQ(0, system(("mount -t tmpfs -o size=512k small " + FOLDER).c_str()));
    EXPECT_EQ("cannot write " + FOLDER + "kernel.bin.part: No space left on device",
              world.run("file").text);
    EXPECT_EQ(0, system(("umount " + FOLDER).c_str()));
    std::filesystem::remove(FOLDER);
    EXPECT_EQ(AGENT_STORAGE, world.run("file").result);
}

// NAME.part may be something that the agent's user cannot or must not write to: a part file that
// `once` left as root, or anything on a card that was prepared elsewhere.
TEST(AgentTransport, PartThatIsNotItsOwnIsFetchedAnew) {
    World world;
    const std::string part = FOLDER + "kernel.bin.part";
    write_file("/run/theirs", "theirs");
    for (const char* make : {"install -m 600 /run/theirs ", "mkfifo ", "ln /run/theirs ",
                             "ln -s /run/theirs ", "mkdir ", "mknod -m 666 "}) {
        SCOPED_TRACE(make);
        const std::string what = std::string(make).starts_with("mknod") ? " c 1 3" : "";
        ASSERT_EQ(0, system((make + part + what + " && chown 990 " + FOLDER).c_str()));
        if (seteuid(990) != 0) {
            GTEST_SKIP() << "no other users here";
        }
        EXPECT_EQ("", world.run("file").text);
        EXPECT_EQ(0, seteuid(0));
        EXPECT_EQ(" kernel.bin", names_in(FOLDER));
        EXPECT_TRUE(read_file(FOLDER + "kernel.bin") == KERNEL);
        std::filesystem::remove(FOLDER + "kernel.bin");
    }
    EXPECT_EQ("theirs", read_file("/run/theirs"));
    // A group to which the agent's user does not belong may write to the folder.
    EXPECT_EQ(0, chown(FOLDER.c_str(), 990, 991));
    EXPECT_EQ(0, chmod(FOLDER.c_str(), 0770));
    EXPECT_EQ(0, seteuid(990));
    EXPECT_EQ("STORAGE", name_of(world.run("file")));
    EXPECT_EQ(0, seteuid(0));
}

// Authentication in both directions: the server's certificate, the authorities that the camera
// trusts, the camera's certificate or token.
TEST(AgentTransport, BothProveWhoTheyAre) {
    expect_cases("agent_tls.txt", [](std::istream& row) {
        std::string server, ca, certificate, key;
        row >> server >> ca >> certificate >> key;
        World world(tls_setup(server, false));
        world.settings.ca = ca == "-" ? "" : PKI + ca;
        if (certificate != "-") {
            world.settings.authorization = "";
            world.settings.certificate = PKI + certificate;
            world.settings.key = key == "-" ? "" : PKI + key;
        }
        const std::string outcome = world.run_until_decided("poll");
        return outcome + "; asked " + asked(world.server, "poll");
    });
}

// Only the proxy of the settings is used, whatever the environment contains, and a refusal by the
// proxy does not count as an answer of the server.
TEST(AgentTransport, ProxyIsTheOneOfTheSettings) {
    World world;
    setenv("http_proxy", "http://localhost:1", 1);
    EXPECT_EQ("", world.run("poll").text);
    unsetenv("http_proxy");

    world.settings.proxy = world.server.url();
    world.settings.url = "http://updates.example";
    setenv("no_proxy", "*", 1);
    EXPECT_EQ("", world.run("poll").text);
    unsetenv("no_proxy");
    const std::string url = world.settings.url + "/DEFAULT/controller/v1/cam%201";
    EXPECT_EQ("GET " + url, world.server.requests().back().line);
    world.server.misbehave("poll status 407");
    AgentStatus status = world.run("poll");
    EXPECT_EQ("UNREACHABLE GET " + url + ": the proxy answers 407, as told",
              name_of(status) + " " + status.text);
    world.settings.url = "https://updates.example";
    world.settings.tenant = "a b";
    status = world.run("poll");
    EXPECT_EQ(
        "UNREACHABLE cannot reach https://updates.example/a%20b/controller/v1/cam%201: "
        "the proxy answers 407",
        name_of(status) + " " + status.text);
}

TEST(AgentTransport, TokenIsReadAgainWhenItIsRefused) {
    for (const std::string step : {"poll", "feedback"}) {
        World world({}, step);
        world.settings.tokenFile = "/run/token";
        world.settings.authorization = "TargetToken rotated";
        write_file("/run/token", "secret\n");
        EXPECT_EQ(0, chmod("/run/token", 0640));
        const AgentStatus refused = world.run(step);
        EXPECT_EQ("REFUSED", name_of(refused));
        EXPECT_TRUE(
            contains(refused.text, "401; the token: /run/token is accessible to other users"));
        EXPECT_EQ(0, chmod("/run/token", 0600));
        EXPECT_EQ("", world.run(step).text);
        EXPECT_EQ(3U, world.server.requests().size());
    }
    World world;
    world.settings.tokenFile = "/run/token";
    world.server.misbehave("file status 401");
    EXPECT_EQ("REFUSED", name_of(world.run("file")));
    EXPECT_EQ("all", asked(world.server, "file"));  // not repeated with the same token
    write_file("/run/token", "secret2\n");
    EXPECT_EQ("REFUSED", name_of(world.run("file")));
    EXPECT_EQ("all, all, all", asked(world.server, "file"));
    world.settings.authorization = "GatewayToken old";
    EXPECT_EQ("REFUSED", name_of(world.run("poll")));
    EXPECT_EQ("GatewayToken secret2", world.server.requests().back().authorization);
}

// Files may be on another host: the camera must not send its credentials to that host, and must not
// download from it with less protection than from the server.
TEST(AgentTransport, OtherHostsLearnNothing) {
    for (const bool safely : {true, false}) {
        World world(tls_setup("server", false),
                    safely ? tls_setup("server", true) : SimulatedServer::Setup{.onlyFiles = true},
                    "file");
        world.settings.certificate = PKI + "camera.pem";
        world.settings.key = PKI + "camera.key";
        world.server.change(
            "11", [&](SimulatedAction& action) { action.elsewhere = world.elsewhere.url(); });
        EXPECT_EQ(safely ? "OK" : "MALFORMED", name_of(world.run("file")));
        EXPECT_EQ("all/CN=camera", asked(world.server, "action"));
        EXPECT_EQ(safely ? "all by nobody" : "", asked(world.elsewhere, "file"));
        world.server.misbehave("poll redirect 307 " +
                               replaced(world.server.url(), "https", "http"));
        EXPECT_EQ("MALFORMED", name_of(world.run("poll")));
    }
}

// The sizes and hashes of the server and those of the signed manifest must agree. SIZE BYTE of the
// modules.
TEST(AgentTransport, ServerAndManifestMustAgree) {
    expect_cases("agent_manifests.txt", [](std::istream& row) {
        PackageFile content = {
            .name = "kernel.bin", .size = 0, .mayBeLonger = false, .modules = {}};
        size_t size = 0;
        for (size_t from = 0; row >> size >> from; content.size += size) {
            Sha256Stream stream;
            stream.update({KERNEL.data() + from, size});
            content.modules.push_back({.name = "module",
                                       .file = {},
                                       .offset = content.size,
                                       .size = size,
                                       .crc = {},
                                       .sha256 = stream.take()});
        }
        World world;
        world.content = &content;
        const std::string outcome = name_of(world.run("file"));
        return outcome + "; asked " + asked(world.server, "file") + ";" + names_in(FOLDER);
    });
}

}  // namespace
