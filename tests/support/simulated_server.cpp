#include "simulated_server.h"

#include <httplib.h>

#include "files.h"

namespace {

constexpr size_t PIECE_SIZE = 16384;

struct Fault {
    std::string what;
    int from = 1;
    int to = INT_MAX;
    std::string kind;
    std::string argument;
};

// An answer, and how it is sent.
struct SentAnswer : SimulatedAnswer {
    size_t cut = SIZE_MAX;
    int dripMs = 0;  // pause between two bytes; 0: sends the whole content at once
    bool chunked = false;
};

std::string subject_of(const httplib::Request& request) {
    const std::unique_ptr<X509, decltype(&X509_free)> certificate(
        request.ssl == nullptr ? nullptr : SSL_get_peer_certificate(request.ssl), X509_free);
    char name[256] = "";
    if (certificate) {
        X509_NAME_oneline(X509_get_subject_name(certificate.get()), name, sizeof(name));
    }
    return name;
}

void set_header(httplib::Response& response, const char* name, const std::string& value) {
    if (!value.empty()) {
        response.set_header(name, value);
    }
}

// Changes an answer according to a fault.
void apply(const Fault& fault, const std::string& url, bool old, SentAnswer& answer,
           httplib::Response& response) {
    const std::string& kind = fault.kind;
    const std::string& text = fault.argument;
    const size_t number = strtoul(text.c_str(), nullptr, 10);
    const size_t space = std::min(text.find(' '), text.size());
    const std::string first = text.substr(0, space);
    const std::string rest = text.substr(std::min(space + 1, text.size()));
    if (kind == "status" || kind == "redirect") {
        answer.status = static_cast<int>(number);
    }
    if (kind == "status") {
        answer.body = old ? "" : R"({"errorCode":"played","message":"as\ttold"})";
        set_header(response, "Retry-After", rest);
    } else if (kind == "redirect") {
        response.set_header("Location", replaced(rest, "^here", url));
    } else if (kind == "date") {
        response.set_header("Date", text);
    } else if (kind == "say") {
        answer.body = text;
    } else if (kind == "swap") {
        answer.body.replace(answer.body.find(first), first.size(), rest);
    } else if (kind == "cut") {
        answer.cut = number;
    } else if (kind == "drip") {
        answer.dripMs = number > 0 ? static_cast<int>(number) : 100;
    } else if (kind == "flip") {
        answer.body.at(number) = static_cast<char>(answer.body[number] ^ 1);
    } else if (kind == "length" || kind == "chunked") {
        answer.body.resize(number, ' ');
        answer.chunked = kind == "chunked";
    } else if (kind == "tag") {
        answer.tag = text;
    } else if (kind == "range") {
        answer.range = text;
    }
}

}  // namespace

struct SimulatedServer::Impl {
    SimulatedServer& server;
    const Setup setup;
    std::unique_ptr<httplib::Server> http = {};
    std::thread thread = {};
    std::atomic<bool> ending = false;

    std::mutex mutex = {};  // guards the members below
    std::vector<Fault> faults = {};
    std::map<std::string, int> counts = {};  // requests of each kind since the faults were set
    std::vector<SimulatedRequest> requests = {};

    bool make_server();
    void serve(httplib::Request& request, httplib::Response& response);
    std::vector<Fault> faults_of(const SimulatedRequest& request);
    void send(const SentAnswer& answer, const std::string& type, httplib::Response& response);
};

std::vector<Fault> SimulatedServer::Impl::faults_of(const SimulatedRequest& request) {
    const bool closes = request.what == "feedback" && contains(request.body, "\"closed\"");
    std::vector<std::string> names = {request.what, "any", closes ? "closed" : "any other"};
    for (const std::string& name : names) {
        ++counts[name];
    }
    std::vector<Fault> wanted = faults;
    std::erase_if(wanted, [&](const Fault& fault) {
        const int count = counts[fault.what];
        return std::ranges::count(names, fault.what) == 0 || count < fault.from || count > fault.to;
    });
    return wanted;
}

void SimulatedServer::Impl::send(const SentAnswer& answer, const std::string& type,
                                 httplib::Response& response) {
    response.status = answer.status;
    set_header(response, "ETag", answer.tag);
    set_header(response, "Content-Range", answer.range);
    // Sends a piece of the content; false ends the connection.
    const auto piece = [this, answer](size_t at, size_t /*most*/, httplib::DataSink& sink) {
        const size_t most = std::min({answer.body.size() - at, answer.dripMs > 0 ? 1 : PIECE_SIZE,
                                      answer.cut - std::min(answer.cut, at)});
        std::this_thread::sleep_for(std::chrono::milliseconds(answer.dripMs));
        return most > 0 && !ending && sink.write(answer.body.data() + at, most);
    };
    const size_t size = answer.body.size();
    if (answer.chunked) {
        response.set_chunked_content_provider(type, [=](size_t at, httplib::DataSink& sink) {
            return at < size ? piece(at, size, sink) : (sink.done(), true);
        });
    } else if (size > 0) {
        response.set_content_provider(size, type, piece);
    }
}

void SimulatedServer::Impl::serve(httplib::Request& request, httplib::Response& response) {
    SimulatedRequest seen = {.line = request.method + " " + request.target,
                             .authorization = request.get_header_value("Authorization"),
                             .range = request.get_header_value("Range"),
                             .condition = request.get_header_value("If-Range"),
                             .subject = subject_of(request),
                             .port = request.remote_port,
                             .body = request.body};
    // Otherwise the library would apply the range to our answer.
    request.ranges.clear();
    classify(seen, replaced(request.path, "^http://[^/]*", ""));
    const std::lock_guard<std::mutex> lock(mutex);
    const std::vector<Fault> wanted = faults_of(seen);
    const auto meets = [&wanted](const char* kind) {
        return std::ranges::count(wanted, kind, &Fault::kind) > 0;
    };
    const bool isFile = seen.what == "file";
    const bool known =
        setup.onlyFiles ? isFile : seen.authorization == AUTHORIZATION || !seen.subject.empty();
    SentAnswer answer = {{.status = known ? 404 : 401}};
    // A request that is refused or redirected has no effect.
    if (known && !seen.what.empty() && !meets("status") && !meets("redirect")) {
        SimulatedRequest heard = seen;
        heard.range = meets("no-ranges") ? "" : seen.range;
        answer = {server.answer(heard)};
    }
    for (const Fault& fault : wanted) {
        apply(fault, server.url_, setup.old, answer, response);
    }
    const std::string json =
        setup.old ? "application/hal+json" : "application/hal+json;charset=UTF-8";
    send(answer, isFile ? "application/octet-stream" : json, response);
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

SimulatedServer::SimulatedServer(const Setup& setup)
    : SimulatedHawkbit(setup.old, setup.sleep), impl_(new Impl{.server = *this, .setup = setup}) {
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
    http.set_keep_alive_max_count(100);  // requests; real servers allow more than the library
    http.set_tcp_nodelay(true);
    url_ = (setup.certificate.empty() ? "http://localhost:" : "https://localhost:") +
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

void SimulatedServer::misbehave(const std::string& faults) {
    const std::lock_guard<std::mutex> lock(impl_->mutex);
    impl_->faults.clear();
    impl_->counts.clear();
    std::istringstream rows(faults);
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
        impl_->faults.push_back(fault);
    }
}

std::vector<SimulatedRequest> SimulatedServer::requests() const {
    const std::lock_guard<std::mutex> lock(impl_->mutex);
    return impl_->requests;
}

size_t SimulatedServer::count(const std::string& what, const std::string& text) const {
    const std::vector<SimulatedRequest> all = requests();
    return static_cast<size_t>(std::ranges::count_if(all, [&](const SimulatedRequest& request) {
        return request.what == what && contains(request.body, text);
    }));
}
