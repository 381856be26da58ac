#include "agent/http.h"

#include <curl/curl.h>
#include <time.h>

#include <algorithm>
#include <new>

#include "agent/ddi.h"
#include "agent/token.h"
#include "agent/url.h"
#include "base/version.h"

namespace {

constexpr int REDIRECTS_MAX = 5;
constexpr size_t ENTITY_TAG_SIZE_MAX = 256;
constexpr int64_t RETRY_AFTER_MAX_S = 86400;
// Limit for a "Retry-After" date without a "Date" header. The wait is then computed from this
// camera's clock, which may be wrong.
constexpr int64_t RETRY_AFTER_UNDATED_MAX_S = 600;
// Bytes of a redirect's content that are read; the connection is closed if there are more.
constexpr size_t REDIRECT_CONTENT_MAX = 65536;
// Bytes a second. A transfer that is slower for the whole stall time-out is ended, so that a server
// that sends a byte now and then cannot block the camera for ever.
constexpr long SPEED_MIN = 64;
constexpr size_t SHOWN_SIZE_MAX = 200;  // bytes of an answer that a message quotes

struct ListDeleter {
    void operator()(curl_slist* list) const { curl_slist_free_all(list); }
};
struct TextDeleter {
    void operator()(char* text) const { curl_free(text); }
};
using OwnedList = std::unique_ptr<curl_slist, ListDeleter>;
using OwnedText = std::unique_ptr<char, TextDeleter>;

AgentStatus unreachable(const std::string& url, const std::string& reason) {
    return agent_fault(AGENT_UNREACHABLE, "cannot reach " + shown_url(url) + ": " + reason);
}

AgentStatus malformed(const std::string& text) {
    return agent_fault(AGENT_MALFORMED, text);
}

AgentResult result_of(long code) {
    switch (code) {
        case 401:
        case 403:
            return AGENT_REFUSED;
        case 404:
        case 410:
            return AGENT_GONE;
        case 407:  // the proxy's answer: the server did not get the request
        case 408:
        case 425:
        case 429:
            return AGENT_UNREACHABLE;
        default:
            return code >= 500 ? AGENT_UNREACHABLE : AGENT_MALFORMED;
    }
}

// The explanation in an error answer. It need not be JSON: it may be a page of a proxy.
std::string explanation(std::string_view answer) {
    const std::string message = error_message(answer);
    return message.empty() ? printable_start(answer) : message;
}

// The status for an error answer. `message` is its explanation, or empty. The target of a redirect
// is part of the text, because it shows that a network's login page answered, not the server.
AgentStatus refusal(const std::string& method, const std::string& url, const HttpHead& head,
                    const std::string& message) {
    const std::string code = std::to_string(head.code) +
                             (head.location.empty() ? "" : " to " + shown_url(head.location));
    AgentStatus status = agent_fault(
        result_of(head.code), method + " " + shown_url(url) + ": the " +
                                  (head.code == 407 ? "proxy" : "server") + " answers " + code +
                                  (message.empty() ? "" : ", ") + message);
    status.retryAfterS = head.retryAfterS;
    return status;
}

bool is_success(const HttpHead& head) {
    return head.code >= 200 && head.code < 300;
}

bool is_redirect(const HttpHead& head) {
    return !head.location.empty();
}

std::string header(CURL* handle, const char* name) {
    curl_header* found = nullptr;
    return curl_easy_header(handle, name, 0, CURLH_HEADER, -1, &found) == CURLHE_OK ? found->value
                                                                                    : "";
}

// Reads "Retry-After", a number of seconds or a date. A date is compared with the server's time
// ("Date"), because this camera's clock may be wrong by decades.
uint32_t retry_after_s(CURL* handle) {
    const std::string text = header(handle, "Retry-After");
    const bool number = !text.empty() && text.find_first_not_of("0123456789") == std::string::npos;
    if (number) {
        const bool fits = text.size() <= 5;
        return static_cast<uint32_t>(
            std::min<int64_t>(fits ? std::stol(text) : RETRY_AFTER_MAX_S, RETRY_AFTER_MAX_S));
    }
    const int64_t until = text.empty() ? -1 : curl_getdate(text.c_str(), nullptr);
    if (until < 0) {
        return 0;
    }
    const int64_t sent = curl_getdate(header(handle, "Date").c_str(), nullptr);
    const int64_t seconds = until - (sent < 0 ? time(nullptr) : sent);
    const int64_t most = sent < 0 ? RETRY_AFTER_UNDATED_MAX_S : RETRY_AFTER_MAX_S;
    return static_cast<uint32_t>(std::clamp<int64_t>(seconds, 0, most));
}

HttpHead head_of(CURL* handle, const std::string& url) {
    HttpHead head;
    curl_easy_getinfo(handle, CURLINFO_RESPONSE_CODE, &head.code);
    // The header is read here because libcurl reports a redirect's target only after its content.
    const std::string location = header(handle, "Location");
    const bool redirect = head.code >= 300 && head.code < 400 && !location.empty();
    head.location = redirect ? resolved_url(url, location) : "";
    curl_off_t number = -1;
    curl_easy_getinfo(handle, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &number);
    head.length = number;
    head.retryAfterS = retry_after_s(handle);
    head.contentRange = header(handle, "Content-Range");
    head.entityTag = header(handle, "ETag");
    const auto unprintable = [](char c) { return c < ' ' || c > '~'; };
    if (head.entityTag.size() > ENTITY_TAG_SIZE_MAX ||
        std::ranges::any_of(head.entityTag, unprintable)) {
        head.entityTag.clear();
    }
    return head;
}

// Sets options of libcurl. The first failure is kept and prevents the exchange: no option is
// silently ignored.
struct Options {
    CURL* handle;
    CURLcode fault = CURLE_OK;

    template <typename Value>
    void set(CURLoption option, Value value) {
        if (fault == CURLE_OK) {
            fault = curl_easy_setopt(handle, option, value);
        }
    }
};

bool add(OwnedList& list, const std::string& line) {
    curl_slist* const longer = curl_slist_append(list.get(), line.c_str());
    if (longer != nullptr) {
        (void)list.release();
        list.reset(longer);
    }
    return longer != nullptr;
}

// Passed by libcurl to the call-backs.
struct Exchange {
    CURL* handle;
    const std::string& url;
    HttpHead& head;
    const HttpContent& content;
    AgentStatus status;
};

size_t take_content(const char* bytes, size_t /*one*/, size_t size, void* user) noexcept {
    Exchange& exchange = *static_cast<Exchange*>(user);
    if (exchange.head.code == 0) {
        exchange.head = head_of(exchange.handle, exchange.url);
    }
    if (size > 0) {
        exchange.status = exchange.content(exchange.head, {bytes, size});
    }
    return exchange.status.ok() ? size : 0;
}

// libcurl calls this about once a second, also while no bytes arrive. A result of 1 ends the
// transfer.
int check_stop(void* stop, curl_off_t /*total*/, curl_off_t /*done*/, curl_off_t /*toSend*/,
               curl_off_t /*sent*/) noexcept {
    return *static_cast<const std::atomic<bool>*>(stop) ? 1 : 0;
}

void set_tls(Options& options, const ServerSettings& settings, bool withCredentials) {
    options.set(CURLOPT_PROTOCOLS_STR, "http,https");
    options.set(CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
    options.set(CURLOPT_SSL_VERIFYPEER, 1L);
    options.set(CURLOPT_SSL_VERIFYHOST, 2L);
    if (!settings.ca.empty()) {
        options.set(CURLOPT_CAINFO, settings.ca.c_str());
        options.set(CURLOPT_CAPATH, nullptr);  // the system's CAs are not trusted then
    }
    if (!withCredentials || settings.certificate.empty()) {
        return;
    }
    options.set(CURLOPT_SSLCERT, settings.certificate.c_str());
    if (!settings.key.empty()) {
        options.set(CURLOPT_SSLKEY, settings.key.c_str());
        options.set(CURLOPT_SSLKEYTYPE, settings.key.starts_with("pkcs11:") ? "ENG" : "PEM");
    }
    // An empty password makes an encrypted key fail. Otherwise the TLS library would ask for the
    // password on the terminal.
    options.set(CURLOPT_KEYPASSWD, "");
}

// An empty string means no proxy. Without these options libcurl would use environment variables.
void set_proxy(Options& options, const std::string& proxy) {
    options.set(CURLOPT_PROXY, proxy.c_str());
    options.set(CURLOPT_NOPROXY, "");
}

// Why an exchange failed, for messages.
std::string reason_of(CURL* handle, CURLcode fault, const char* text) {
    long proxyCode = 0;
    curl_easy_getinfo(handle, CURLINFO_HTTP_CONNECTCODE, &proxyCode);
    if (proxyCode >= 300) {
        return "the proxy answers " + std::to_string(proxyCode);
    }
    return text[0] == '\0' ? curl_easy_strerror(fault) : text;
}

void set_limits(Options& options, const ServerSettings& settings, uint32_t limitS,
                uint64_t bytesPerS) {
    options.set(CURLOPT_NOSIGNAL, 1L);
    // The receive windows of HTTP/2 need megabytes of memory.
    options.set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    options.set(CURLOPT_CONNECTTIMEOUT, static_cast<long>(settings.connectTimeoutS));
    options.set(CURLOPT_TIMEOUT, static_cast<long>(limitS));
    options.set(CURLOPT_LOW_SPEED_LIMIT, SPEED_MIN);
    options.set(CURLOPT_LOW_SPEED_TIME, static_cast<long>(settings.stallTimeoutS));
    options.set(CURLOPT_MAX_RECV_SPEED_LARGE, static_cast<curl_off_t>(bytesPerS));
}

// Returns a record of open connections and TLS sessions, for handles of one thread.
std::shared_ptr<void> make_share() {
    // Each of these calls needs a curl_global_cleanup(), too.
    if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) {
        throw std::bad_alloc();
    }
    std::shared_ptr<void> share(curl_share_init(), [](void* made) {
        curl_share_cleanup(made);
        curl_global_cleanup();
    });
    for (const int what : {CURL_LOCK_DATA_CONNECT, CURL_LOCK_DATA_SSL_SESSION}) {
        if (!share || curl_share_setopt(share.get(), CURLSHOPT_SHARE, what) != CURLSHE_OK) {
            throw std::bad_alloc();
        }
    }
    return share;
}

}  // namespace

struct Http::Request {
    const char* method;
    const std::string& url;
    const std::vector<std::string>& headers;
    const std::string& body;  // of POST and PUT
    bool withCredentials;     // sends the authorization header and the client certificate
    uint32_t limitS = 0;      // for the whole exchange; 0: as long as bytes arrive
    uint64_t bytesPerS = 0;   // 0: no limit
};

void CurlDeleter::operator()(void* handle) const {
    curl_easy_cleanup(handle);
    curl_global_cleanup();
}

Http::Http(ServerSettings settings, const std::atomic<bool>& stop)
    : Http(std::move(settings), stop, make_share()) {}

Http::Http(ServerSettings settings, const std::atomic<bool>& stop, const Http& other)
    : Http(std::move(settings), stop, other.share_) {}

Http::Http(ServerSettings settings, const std::atomic<bool>& stop, std::shared_ptr<void> share)
    : settings_(std::move(settings)), stop_(stop), share_(std::move(share)) {
    // Each of these calls needs a curl_global_cleanup(), which CurlDeleter calls.
    if (curl_global_init(CURL_GLOBAL_DEFAULT) == CURLE_OK) {
        handle_.reset(curl_easy_init());
    }
    // curl_easy_reset() keeps this option.
    if (!handle_ || curl_easy_setopt(handle_.get(), CURLOPT_SHARE, share_.get()) != CURLE_OK) {
        throw std::bad_alloc();
    }
}

std::string printable_start(std::string_view answer) {
    std::string start;
    for (const char c : answer) {
        const bool printable = c > ' ' && c <= '~';
        if (printable) {
            start += c;
        } else if (!start.empty() && start.back() != ' ') {
            start += ' ';
        }
        if (start.size() == SHOWN_SIZE_MAX) {
            break;
        }
    }
    start.erase(start.find_last_not_of(' ') + 1);
    return start;
}

std::string Http::path_part(const std::string& text) const {
    const OwnedText part(
        curl_easy_escape(handle_.get(), text.c_str(), static_cast<int>(text.size())));
    if (!part) {
        throw std::bad_alloc();
    }
    return part.get();
}

AgentStatus Http::exchange(const Request& request, HttpHead& head, const HttpContent& content) {
    head = {};
    if (stop_) {
        return agent_stopped();
    }
    CURL* const handle = handle_.get();
    curl_easy_reset(handle);  // keeps open connections
    OwnedList headers;
    bool added = true;
    for (const std::string& line : request.headers) {
        added = added && add(headers, line);
    }
    if (request.withCredentials && !settings_.authorization.empty()) {
        added = added && add(headers, "Authorization: " + settings_.authorization);
    }
    char reason[CURL_ERROR_SIZE] = "";
    Exchange exchange = {handle, request.url, head, content, {}};
    Options options = {handle, added ? CURLE_OK : CURLE_OUT_OF_MEMORY};
    options.set(CURLOPT_URL, request.url.c_str());
    options.set(CURLOPT_CUSTOMREQUEST, request.method);
    options.set(CURLOPT_HTTPHEADER, headers.get());
    options.set(CURLOPT_USERAGENT, "corvo_agent/" CORVO_VERSION);
    if (!request.body.empty()) {
        options.set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
        options.set(CURLOPT_POSTFIELDS, request.body.c_str());
    }
    options.set(CURLOPT_WRITEFUNCTION, take_content);
    options.set(CURLOPT_WRITEDATA, &exchange);
    options.set(CURLOPT_XFERINFOFUNCTION, check_stop);
    options.set(CURLOPT_XFERINFODATA, &stop_);
    options.set(CURLOPT_NOPROGRESS, 0L);
    options.set(CURLOPT_ERRORBUFFER, reason);
    set_limits(options, settings_, request.limitS, request.bytesPerS);
    set_tls(options, settings_, request.withCredentials);
    set_proxy(options, settings_.proxy);
    if (options.fault == CURLE_OK) {
        options.fault = curl_easy_perform(handle);
    }
    curl_easy_setopt(handle, CURLOPT_ERRORBUFFER, nullptr);
    if (head.code == 0 && options.fault == CURLE_OK) {
        head = head_of(handle, request.url);
    }
    if (!exchange.status.ok()) {
        return exchange.status;
    }
    if (options.fault == CURLE_ABORTED_BY_CALLBACK) {
        return agent_stopped();
    }
    return options.fault == CURLE_OK
               ? AgentStatus{}
               : unreachable(request.url, reason_of(handle, options.fault, reason));
}

AgentStatus Http::reload_token() {
    if (settings_.tokenFile.empty()) {
        return {};
    }
    std::string token;
    AgentStatus status = read_token(settings_.tokenFile, token);
    if (status.ok()) {
        const size_t scheme = settings_.authorization.find(' ');
        settings_.authorization = settings_.authorization.substr(0, scheme) + ' ' + token;
    }
    return status;
}

// Reads the token file again and returns whether the token differs from the refused one. `fault`
// becomes what is wrong with the file, to be appended to the refusal's text.
bool Http::has_new_token(std::string& fault) {
    const std::string refused = settings_.authorization;
    const AgentStatus status = reload_token();
    fault = status.ok() ? "" : "; the token: " + status.text;
    return status.ok() && settings_.authorization != refused;
}

AgentStatus Http::call(const char* method, const std::string& url, const std::string& body,
                       std::string& answer) {
    const UrlParts server = url_parts(settings_.url);
    std::vector<std::string> headers = {"Accept: application/hal+json, application/json"};
    if (!body.empty()) {
        headers.emplace_back("Content-Type: application/json");
    }
    const auto content = [&answer](const HttpHead& /*head*/, std::span<const char> bytes) {
        if (bytes.size() > DDI_TEXT_SIZE_MAX - answer.size()) {
            return malformed("the answer is longer than " + std::to_string(DDI_TEXT_SIZE_MAX) +
                             " bytes");
        }
        answer.append(bytes.begin(), bytes.end());
        return AgentStatus{};
    };
    std::string place = url;
    std::string tokenFault;
    for (int redirects = 0; redirects <= REDIRECTS_MAX; ++redirects) {
        if (!server.same_origin(url_parts(place))) {
            return malformed(shown_url(place) + " is not on the configured server " +
                             shown_url(settings_.url));
        }
        answer.clear();
        HttpHead head;
        AgentStatus status =
            exchange({.method = method,
                      .url = place,
                      .headers = headers,
                      .body = body,
                      .withCredentials = true,
                      .limitS = settings_.connectTimeoutS + settings_.stallTimeoutS},
                     head, content);
        if (status.result == AGENT_STOPPED || head.code == 0) {
            return status;
        }
        if (head.code == 401 && has_new_token(tokenFault)) {
            continue;
        }
        // Only 307 and 308 keep method and body; the other redirects turn a POST or PUT into a GET.
        const bool keepsBody = body.empty() || head.code == 307 || head.code == 308;
        if (is_redirect(head) && keepsBody) {
            place = head.location;
            continue;
        }
        if (!is_success(head)) {
            status = refusal(method, place, head, explanation(answer));
            status.text += tokenFault;
            return status;
        }
        if (!status.ok() && status.result != AGENT_UNREACHABLE) {
            status.text = shown_url(place) + ": " + status.text;
        }
        return status;
    }
    return malformed(shown_url(url) + " is redirected more than " + std::to_string(REDIRECTS_MAX) +
                     " times");
}

AgentStatus Http::fetch(const std::string& url, const std::vector<std::string>& headers,
                        HttpHead& head, const HttpContent& content) {
    const UrlParts server = url_parts(settings_.url);
    std::string message;
    size_t skipped = 0;  // bytes of the contents of redirects
    const auto file_content = [&](const HttpHead& of, std::span<const char> bytes) {
        if (of.code == 200 || of.code == 206) {
            return content(of, bytes);
        }
        if (is_redirect(of) && (skipped += bytes.size()) <= REDIRECT_CONTENT_MAX) {
            return AgentStatus{};
        }
        message = explanation({bytes.data(), bytes.size()});
        return malformed("the answer is not a file");
    };
    std::string place = url;
    std::string tokenFault;
    for (int redirects = 0; redirects <= REDIRECTS_MAX; ++redirects) {
        const UrlParts parts = url_parts(place);
        if (parts.scheme != "https" && (parts.scheme != "http" || server.scheme != "http")) {
            return malformed(shown_url(place) + ": expected an https link");
        }
        message.clear();
        const bool withCredentials = redirects == 0 && server.same_origin(parts);
        AgentStatus status = exchange({.method = "GET",
                                       .url = place,
                                       .headers = headers,
                                       .body = "",
                                       .withCredentials = withCredentials,
                                       .bytesPerS = settings_.rateLimit},
                                      head, file_content);
        if (status.result == AGENT_STOPPED || head.code == 0) {
            return status;
        }
        if (head.code == 401 && withCredentials && has_new_token(tokenFault)) {
            --redirects;  // repeats the request at the same URL
            continue;
        }
        if (is_redirect(head)) {
            place = head.location;
            continue;
        }
        if (head.code != 200 && head.code != 206) {
            status = refusal("GET", place, head, message);
            status.text += tokenFault;
        }
        return status;
    }
    return malformed(shown_url(url) + " is redirected more than " + std::to_string(REDIRECTS_MAX) +
                     " times");
}
