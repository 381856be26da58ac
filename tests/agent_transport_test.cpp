// The agent with update servers that behave well or badly: invalid JSON, truncated answers, wrong
// files. The cases are data.

#include <nlohmann/json.hpp>

#include "agent/download.h"
#include "session.h"
#include "simulated_server.h"

namespace {

using nlohmann::json;

const std::string FOLDER = "/run/download/";
const std::string PKI = "/run/tls/";
const std::string KERNEL = pattern_bytes(1200000, 1);
constexpr int CALLS_MAX = 20;

const std::string PLACE = "/DEFAULT/controller/v1/cam%201/";

std::string name_of(const AgentStatus& status) {
    constexpr const char* NAMES[] = {"OK",        "UNREACHABLE", "REFUSED", "GONE",
                                     "MALFORMED", "DIFFERENT",   "STORAGE", "STOPPED"};
    return NAMES[status.result];
}

// Speaks https with this certificate, or "http".
SimulatedServer::Setup setup_of(const std::string& certificate, bool onlyFiles) {
    if (certificate == "http") {
        return {.onlyFiles = onlyFiles};
    }
    EXPECT_EQ(0, system("test -e /run/tls/ca.pem || sh " TEXTS "support/tls.sh /run/tls"));
    return {.certificate = PKI + certificate + ".pem",
            .key = PKI + certificate + ".key",
            .clients = PKI + "ca.pem",
            .onlyFiles = onlyFiles};
}

// A camera that connects to a simulated server, and a second server that has the same files.
struct World {
    explicit World(const SimulatedServer::Setup& setup = {}, const std::string& step = "file",
                   const SimulatedServer::Setup& elsewhereSetup = {.onlyFiles = true})
        : server(setup), elsewhere(elsewhereSetup) {
        std::filesystem::remove_all(FOLDER);
        std::filesystem::create_directories(FOLDER);
        offered.consent = step == "consent" || step == "word";
        elsewhere.offer(offered);
        server.offer(offered);
        if (step == "cancellation" || step == "answer") {
            server.cancel("11");
        }
    }
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

    std::string outcome_of(const AgentStatus& status) const {
        std::string text = replaced(status.text, "(cannot reach [^ ]*): (?!the proxy).*", "$1");
        text = replaced(replaced(text, elsewhere.url(), "ELSEWHERE"), server.url(), "SERVER");
        text = replaced(text, replaced(server.url(), "https", "http"), "INSECURE");
        return name_of(status) + (text.empty() ? "" : " ") + text +
               (status.retryAfterS == 0
                    ? ""
                    : ", again in " + std::to_string(status.retryAfterS) + " s");
    }

    // As an agent does that is started again and again.
    std::string run_until_decided(const std::string& step) {
        int interrupted = 0;
        AgentStatus status = run(step);
        while (status.result == AGENT_UNREACHABLE && step == "file" && ++interrupted < CALLS_MAX) {
            status = run(step);
        }
        return (interrupted == 0 ? "" : std::to_string(interrupted) + " times UNREACHABLE, ") +
               outcome_of(status);
    }

    SimulatedAction offered = {.id = "11", .files = {{"kernel.bin", KERNEL}}};
    SimulatedServer server;
    SimulatedServer elsewhere;
    ServerSettings settings = {.url = server.url(),
                               .controllerId = SimulatedServer::CONTROLLER,
                               .authorization = SimulatedServer::AUTHORIZATION,
                               .ca = PKI + "ca.pem"};
    const PackageFile* content = nullptr;
    std::atomic<bool> stop{false};
    uint64_t told = 0;
};

// Returns the ranges and the authorization of the requests.
std::string asked(const SimulatedServer& server, const std::string& step) {
    std::string text;
    for (const SimulatedRequest& request : server.requests()) {
        if (request.what == step) {
            const std::string& by = request.authorization;
            text += (text.empty() ? "" : ", ") +
                    (request.range.empty() ? "all" : request.range.substr(6)) +
                    (request.range.empty() || !request.condition.empty() ? "" : " of any") +
                    (by == SimulatedServer::AUTHORIZATION ? ""
                     : by.empty()                         ? " by nobody"
                                                          : " by " + by) +
                    request.subject;
        }
    }
    return text;
}

// Returns the names of the files that a download left. kernel.bin alone must be the complete file.
std::string names_left() {
    std::string left = names_in(FOLDER);
    EXPECT_TRUE(left != " kernel.bin" || read_file(FOLDER + "kernel.bin") == KERNEL);
    return left;
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
        text.append(name).append(list).append("; ");
    }
    return text.substr(0, text.size() - 2);
}

TEST(AgentTransport, ServerThatMisbehaves) {
    expect_cases("agent_server.txt", [](std::istream& row) {
        std::string generation, step;
        row >> generation >> step;
        std::string faults = rest_of(row);
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
            EXPECT_TRUE(names_left() != " kernel.bin" || world.told == KERNEL.size());
            return outcome + ";" + names_left();
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
        std::string kind, pointer;
        row >> kind >> pointer;
        const std::string value = rest_of(row);
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
    const std::string numbers = R"({"a":[)" + repeated("1,") + "1]}";
    DdiPoll poll;
    for (const std::string& text :
         {numbers, R"({"a":[)" + repeated("{},") + "{}]}", R"({"a":[)" + repeated("[],") + "[]]}",
          "{" + repeated("\"a\":["), R"({"a":")" + repeated("\\\"[") + "\"}"}) {
        ASSERT_EXIT((setrlimit(RLIMIT_CPU, &CPU_LIMIT), (void)parse_poll(text, poll), _exit(0)),
                    testing::ExitedWithCode(0), "")
            << text.substr(0, 16);
    }
    // The lengths of the agent's own texts are limited too.
    EXPECT_GT(2000U, feedback_text({.id = "11", .details = {repeated("x")}}).size());
    // Memory must not grow with the number of elements in the answer either.
    EXPECT_EQ("the poll's answer of the server: more than 65536 values",
              parse_poll(numbers, poll).text);
}

// The manifest's description of kernel.bin. `modules`: for each module its size, and the offset in
// the file at which its digest was computed.
PackageFile content_of(const std::string& modules) {
    PackageFile content = {.name = "kernel.bin", .size = 0, .mayBeLonger = false, .modules = {}};
    std::istringstream numbers(modules);
    size_t size = 0;
    for (size_t from = 0; numbers >> size >> from; content.size += size) {
        Sha256Stream stream;
        stream.update({KERNEL.data() + from, size});
        auto& module = content.modules.emplace_back();
        module.offset = content.size;
        module.size = size;
        module.sha256 = stream.take();
    }
    return content;
}

std::string do_row(std::istream& row) {
    static const std::map<std::string, std::string ServerSettings::*> SETTINGS = {
        {"ca", &ServerSettings::ca},
        {"certificate", &ServerSettings::certificate},
        {"key", &ServerSettings::key},
        {"proxy", &ServerSettings::proxy},
        {"url", &ServerSettings::url},
        {"tenant", &ServerSettings::tenant},
        {"authorization", &ServerSettings::authorization},
        {"token-file", &ServerSettings::tokenFile}};
    std::string certificate, otherCertificate;
    row >> certificate >> otherCertificate;
    World world(setup_of(certificate, false), "file", setup_of(otherCertificate, true));
    SimulatedServer& server = world.server;
    PackageFile content;
    const auto request = [&world](const std::string& step, const std::string& as) {
        EXPECT_EQ(0, seteuid(as.empty() ? 0 : 990));
        const std::string outcome = world.outcome_of(world.run(step));
        EXPECT_EQ(0, seteuid(0));
        return outcome + (step == "file" ? ";" + names_left() : "");
    };
    return do_steps(
        rest_of(row),
        {{"server",
          [&](Text first, Text rest) {
              server.misbehave(replaced(first + " " + rest, "INSECURE",
                                        replaced(server.url(), "https", "http")));
              return "";
          }},
         {"elsewhere",
          [&](Text, Text) {
              world.offered.elsewhere = world.elsewhere.url();
              server.change(world.offered);
              return "";
          }},
         {"set",
          [&](Text first, Text rest) {
              world.settings.*SETTINGS.at(first) = rest == "SERVER" ? server.url() : rest;
              return "";
          }},
         {"manifest",
          [&](Text first, Text rest) {
              content = content_of(first + " " + rest);
              world.content = &content;
              return "";
          }},
         {"environment",
          [&](Text first, Text rest) {
              rest.empty() ? unsetenv(first.c_str()) : setenv(first.c_str(), rest.c_str(), 1);
              return "";
          }},
         {"asked",
          [&](Text first, Text rest) {
              const std::string text = asked(first == "server" ? server : world.elsewhere, rest);
              return text.empty() ? "not asked" : "asked " + text;
          }},
         {"poll", [&](Text as, Text) { return request("poll", as); }},
         {"feedback", [&](Text as, Text) { return request("feedback", as); }},
         {"file", [&](Text as, Text) { return request("file", as); }}});
}

TEST(AgentTransport, ProofsProxiesAndPowerCuts) {
    expect_cases("agent_transport.txt", do_row);
}

// As root's `once` leaves a part file, or whoever fills a card.
TEST(AgentTransport, PartThatIsNotItsOwnIsFetchedAnew) {
    expect_cases("agent_parts.txt", do_row);
}

}  // namespace
