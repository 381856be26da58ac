#include "simulated_server.h"

#include <httplib.h>

#include <sstream>

#include "simulated_hawkbit.h"

namespace {

constexpr size_t PIECE_SIZE = 16384;

struct Fault {
    std::string what;
    int from = 1;
    int to = INT_MAX;
    std::string kind;
    std::string argument;
};

std::vector<Fault> read_faults(const std::string& text) {
    std::vector<Fault> faults;
    std::istringstream rows(text);
    for (std::string row; std::getline(rows, row, ';');) {
        std::istringstream words(row);
        Fault fault;
        words >> fault.what >> fault.kind >> std::ws;
        std::getline(words, fault.argument);
        if (const size_t colon = fault.what.find(':'); colon != std::string::npos) {
            fault.from = atoi(fault.what.c_str() + colon + 1);
            fault.to = fault.what.ends_with('+') ? INT_MAX : fault.from;
            fault.what.resize(colon);
        }
        faults.push_back(fault);
    }
    return faults;
}

std::string subject_of(const httplib::Request& request) {
    const std::unique_ptr<X509, decltype(&X509_free)> certificate(
        request.ssl == nullptr ? nullptr : SSL_get_peer_certificate(request.ssl), X509_free);
    char name[256] = "";
    if (certificate) {
        X509_NAME_oneline(X509_get_subject_name(certificate.get()), name, sizeof(name));
    }
    return name;
}

// How an answer is sent.
struct Manner {
    size_t cut = SIZE_MAX;
    int dripMs = 0;  // pause between two bytes; 0: sends the whole content at once
    bool chunked = false;
};

}  // namespace

struct SimulatedServer::Impl {
    Setup setup;
    std::unique_ptr<httplib::Server> http = {};
    std::thread thread = {};
    std::atomic<bool> ending = false;

    std::mutex mutex = {};  // guards the members below
    SimulatedHawkbit hawkbit = {};
    std::vector<Fault> faults = {};
    std::map<std::string, int> counts = {};  // requests of each kind since the faults were set
    std::vector<SimulatedRequest> requests = {};

    bool make_server();
    void serve(httplib::Request& request, httplib::Response& response);
    std::vector<Fault> faults_of(const SimulatedRequest& request);
    void send(const SimulatedAnswer& answer, Manner manner, const std::string& type,
              httplib::Response& response);
};

std::vector<Fault> SimulatedServer::Impl::faults_of(const SimulatedRequest& request) {
    std::vector<std::string> names = {request.what, "any"};
    if (request.what == "feedback" && request.body.find("\"closed\"") != std::string::npos) {
        names.emplace_back("closed");
    }
    for (const std::string& name : names) {
        ++counts[name];
    }
    std::vector<Fault> wanted;
    for (const Fault& fault : faults) {
        const int count = counts[fault.what];
        if (std::ranges::find(names, fault.what) != names.end() && count >= fault.from &&
            count <= fault.to) {
            wanted.push_back(fault);
        }
    }
    return wanted;
}

// Changes an answer according to a fault.
static void apply(const Fault& fault, const SimulatedHawkbit& hawkbit, SimulatedAnswer& answer,
                  Manner& manner, httplib::Response& response) {
    std::istringstream words(fault.argument);
    size_t number = 0;
    if (fault.kind == "status") {
        words >> answer.status >> std::ws;
        answer.body = hawkbit.old ? "" : R"({"errorCode":"played","message":"as\ttold"})";
        std::string seconds;
        if (std::getline(words, seconds)) {
            response.set_header("Retry-After", seconds);
        }
    } else if (fault.kind == "redirect") {
        std::string place;
        words >> answer.status >> place;
        response.set_header("Location",
                            place.starts_with("here") ? hawkbit.url + place.substr(4) : place);
    } else if (fault.kind == "date") {
        response.set_header("Date", fault.argument);
    } else if (fault.kind == "say") {
        answer.body = fault.argument;
    } else if (fault.kind == "swap") {
        std::string old, fresh;
        words >> old >> fresh;
        answer.body.replace(answer.body.find(old), old.size(), fresh);
    } else if (fault.kind == "cut") {
        words >> manner.cut;
    } else if (fault.kind == "drip") {
        manner.dripMs = 100;
        words >> manner.dripMs;
        manner.dripMs = words ? manner.dripMs : 100;
    } else if (fault.kind == "flip") {
        words >> number;
        answer.body.at(number) = static_cast<char>(answer.body[number] ^ 1);
    } else if (fault.kind == "length" || fault.kind == "chunked") {
        words >> number;
        answer.body.resize(number, ' ');
        manner.chunked = fault.kind == "chunked";
    } else if (fault.kind == "tag") {
        answer.tag = fault.argument;
    } else if (fault.kind == "range") {
        answer.range = fault.argument;
    }
}

void SimulatedServer::Impl::send(const SimulatedAnswer& answer, Manner manner,
                                 const std::string& type, httplib::Response& response) {
    response.status = answer.status;
    if (!answer.tag.empty()) {
        response.set_header("ETag", answer.tag);
    }
    if (!answer.range.empty()) {
        response.set_header("Content-Range", answer.range);
    }
    const size_t size = answer.body.size();
    // Sends a piece of the content; false ends the connection.
    const auto piece = [this, manner, body = answer.body](size_t at, httplib::DataSink& sink) {
        const size_t most = std::min({body.size() - at, manner.dripMs > 0 ? 1 : PIECE_SIZE,
                                      manner.cut - std::min(manner.cut, at)});
        if (manner.dripMs > 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(manner.dripMs));
        }
        return most > 0 && !ending && sink.write(body.data() + at, most);
    };
    if (manner.chunked) {
        response.set_chunked_content_provider(type, [=](size_t at, httplib::DataSink& sink) {
            if (at < size) {
                return piece(at, sink);
            }
            sink.done();
            return true;
        });
    } else if (size > 0) {
        response.set_content_provider(
            size, type,
            [=](size_t at, size_t /*most*/, httplib::DataSink& sink) { return piece(at, sink); });
    }
}

void SimulatedServer::Impl::serve(httplib::Request& request, httplib::Response& response) {
    SimulatedRequest seen = {.line = request.method + " " + request.target,
                             .authorization = request.get_header_value("Authorization"),
                             .range = request.get_header_value("Range"),
                             .condition = request.get_header_value("If-Range"),
                             .subject = subject_of(request),
                             .body = request.body};
    // Otherwise the library would apply the range to our answer.
    request.ranges.clear();
    const std::string& path = request.path;
    classify(seen, path.starts_with("http://") ? path.substr(path.find('/', 7)) : path);
    const std::lock_guard<std::mutex> lock(mutex);
    const std::vector<Fault> wanted = faults_of(seen);
    const auto meets = [&wanted](const char* kind) {
        return std::ranges::find(wanted, kind, &Fault::kind) != wanted.end();
    };
    const bool known = setup.onlyFiles
                           ? seen.what == "file"
                           : seen.authorization == AUTHORIZATION || !seen.subject.empty();
    SimulatedAnswer answer = {.status = known ? 404 : 401};
    // A request that is refused or redirected has no effect.
    if (known && !seen.what.empty() && !meets("status") && !meets("redirect")) {
        SimulatedRequest heard = seen;
        heard.range = meets("no-ranges") ? "" : seen.range;
        answer = hawkbit.answer(heard);
    }
    Manner manner;
    for (const Fault& fault : wanted) {
        apply(fault, hawkbit, answer, manner, response);
    }
    send(answer, manner,
         seen.what == "file" ? "application/octet-stream"
         : setup.old         ? "application/hal+json"
                             : "application/hal+json;charset=UTF-8",
         response);
    seen.status = answer.status;
    requests.push_back(std::move(seen));
}

bool SimulatedServer::Impl::make_server() {
    if (setup.certificate.empty()) {
        http = std::make_unique<httplib::Server>();
        return true;
    }
    http = std::make_unique<httplib::SSLServer>([this](SSL_CTX& context) {
        if (!setup.clients.empty()) {
            SSL_CTX_load_verify_locations(&context, setup.clients.c_str(), nullptr);
            SSL_CTX_set_verify(&context, SSL_VERIFY_PEER, nullptr);
        }
        return SSL_CTX_use_certificate_chain_file(&context, setup.certificate.c_str()) == 1 &&
               SSL_CTX_use_PrivateKey_file(&context, setup.key.c_str(), SSL_FILETYPE_PEM) == 1;
    });
    return http->is_valid();
}

SimulatedServer::SimulatedServer(const Setup& setup) : impl_(new Impl{.setup = setup}) {
    if (!impl_->make_server()) {
        abort();
    }
    httplib::Server& http = *impl_->http;
    const auto serve = [this](const httplib::Request& request, httplib::Response& response) {
        impl_->serve(const_cast<httplib::Request&>(request), response);
    };
    http.Get(".*", serve).Post(".*", serve).Put(".*", serve);
    http.set_pre_routing_handler([](const auto& request, auto& response) {
        const bool tunnel = request.method == "CONNECT";
        response.status = tunnel ? 407 : response.status;
        return tunnel ? httplib::Server::HandlerResponse::Handled
                      : httplib::Server::HandlerResponse::Unhandled;
    });
    http.set_keep_alive_timeout(1);
    http.set_tcp_nodelay(true);
    impl_->hawkbit.old = setup.old;
    impl_->hawkbit.sleep = setup.sleep;
    impl_->hawkbit.url = (setup.certificate.empty() ? "http://localhost:" : "https://localhost:") +
                         std::to_string(http.bind_to_any_port("127.0.0.1"));
    impl_->thread = std::thread([&http] { http.listen_after_bind(); });
}

SimulatedServer::~SimulatedServer() {
    impl_->ending = true;
    while (!impl_->http->is_running()) {
        std::this_thread::yield();
    }
    impl_->http->stop();
    impl_->thread.join();
}

std::string SimulatedServer::url() const {
    return impl_->hawkbit.url;
}

void SimulatedServer::offer(const SimulatedAction& action) {
    const std::lock_guard<std::mutex> lock(impl_->mutex);
    for (SimulatedHawkbit::Action& older : impl_->hawkbit.actions) {
        older.state = older.ended() ? older.state : "cancelling";
    }
    const bool waits = action.consent && !impl_->setup.old;
    impl_->hawkbit.actions.push_back({.offered = action, .state = waits ? "waiting" : "offered"});
}

void SimulatedServer::reinstall() {
    const std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->hawkbit.actions.clear();
}

void SimulatedServer::set_state(const std::string& id, const char* state) {
    const std::lock_guard<std::mutex> lock(impl_->mutex);
    SimulatedHawkbit::Action* const action = impl_->hawkbit.find(id);
    action->state = action->ended() ? action->state : state;
}

void SimulatedServer::change(const std::string& id,
                             const std::function<void(SimulatedAction& action)>& how) {
    const std::lock_guard<std::mutex> lock(impl_->mutex);
    how(impl_->hawkbit.find(id)->offered);
}

void SimulatedServer::misbehave(const std::string& faults) {
    const std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->faults = read_faults(faults);
    impl_->counts.clear();
}

std::vector<SimulatedRequest> SimulatedServer::requests() const {
    const std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->requests;
}

size_t SimulatedServer::count(const std::string& what, const std::string& text) const {
    const std::vector<SimulatedRequest> all = requests();
    return static_cast<size_t>(std::ranges::count_if(all, [&](const SimulatedRequest& request) {
        return request.what == what && request.body.find(text) != std::string::npos;
    }));
}

std::map<std::string, std::string> SimulatedServer::attributes() const {
    const std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->hawkbit.attributes;
}

std::string SimulatedServer::story(const std::string& id) const {
    const std::lock_guard<std::mutex> lock(impl_->mutex);
    const SimulatedHawkbit::Action* const action = impl_->hawkbit.find(id);
    return action == nullptr ? "unknown" : action->state + action->story;
}
